// The newest decoded picture of a screen on its way to the window, as the pixels that the window
// wants. Latest wins: there is no queue, a picture that comes before the one before it was taken
// replaces it. The decoder thread converts and offers, the window's thread takes; the lock is held
// only to exchange buffers.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

#include "apps/client/decoder.h"
#include "apps/client/statistics.h"
#include "capture/ffmpeg_objects.h"

struct ShownPicture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;  // blue, green, red, unused; rows top-down, no padding
  FrameTimes times;
  std::uint64_t decoded_us = 0;  // when its conversion began
  std::uint64_t serial = 0;      // 1 for the first
};

class LatestPicture {
 public:
  // Decoder thread. False when there was no memory to convert it.
  bool offer(const DecodedPicture& picture, const FrameTimes& times, std::uint64_t now_us);

  // Window's thread. The newest, if it wasn't taken before; stays valid until the next call.
  const ShownPicture* take();
  std::uint64_t replaced() const;  // pictures that were never taken

 private:
  bool convert(const DecodedPicture& from, ShownPicture* to);

  ffmpeg::ScalerPtr scaler_;
  int scaler_width_ = 0, scaler_height_ = 0;
  std::uint64_t serial_ = 0;

  // One is being filled, one is being shown, one waits between them.
  std::array<ShownPicture, 3> buffers_;
  std::size_t filling_ = 0, showing_ = 2;  // of one thread each
  mutable std::mutex mutex_;
  std::size_t waiting_ = 1;
  bool fresh_ = false;  // what waits is new
  std::uint64_t replaced_ = 0;
};
