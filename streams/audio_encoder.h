// Opus (RFC 6716) through FFmpeg's libopus: blocks of 10 ms in, a packet each out. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "capture/ffmpeg_objects.h"

namespace audio_internal {

inline constexpr std::size_t BLOCK_FRAMES = 480;               // 10 ms
inline constexpr std::size_t BLOCK_FLOATS = BLOCK_FRAMES * 2;  // interleaved stereo
inline constexpr std::uint64_t BLOCK_US = 10'000;

// Least delay: CELT alone, packets of 10 ms, each with a rate near the average and prepared for one
// in ten being lost.
struct OpusSettings {
  const char* encoder = "libopus";
  int rate = 48'000;
  std::int64_t bit_rate = 128'000;
  int compression_level = 10;
  const char* application = "lowdelay";
  const char* frame_duration_ms = "10";
  const char* vbr = "constrained";
  const char* packet_loss_percent = "10";
};

class AudioEncoder {
 public:
  bool open(const OpusSettings& settings = {});  // logs why not

  // Takes one block; false: it is lost.
  bool send(std::span<const float, BLOCK_FLOATS> block);

  // What came of it, empty when there is nothing more. Valid until the next call.
  std::span<const std::uint8_t> receive();

 private:
  ffmpeg::ContextPtr context_;
  ffmpeg::FramePtr frame_;
  ffmpeg::PacketPtr packet_;
  std::int64_t pts_ = 0;  // in samples
};

}  // namespace audio_internal
