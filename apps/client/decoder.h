// Decodes the stream's access units with FFmpeg, one picture out for one unit in. One thread.
#pragma once

#include <cstdint>
#include <memory>

// A decoded picture, BT.709 full range, 4:2:0; valid until the decoder's next call.
struct DecodedPicture {
  int width = 0;
  int height = 0;
  const std::uint8_t* planes[3] = {};
  int strides[3] = {};
};

class VideoDecoder {
 public:
  VideoDecoder();
  ~VideoDecoder();
  VideoDecoder(const VideoDecoder&) = delete;
  VideoDecoder& operator=(const VideoDecoder&) = delete;

  bool open(bool hevc);

  // Bytes that must follow every access unit in its buffer, zeroed: the bitstream reader overreads.
  static const std::size_t PADDING_BYTES;

  // True with a picture; false when the unit gave none or was damaged.
  bool decode(const std::uint8_t* data, std::size_t size, DecodedPicture* picture);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
