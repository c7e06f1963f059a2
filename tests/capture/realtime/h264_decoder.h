// The judge of what an encoder made: FFmpeg's own decoder, and the colours that a viewer would see.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "capture/ffmpeg_objects.h"

struct Colour {
  int r, g, b;
};

// BT.709, full range: the inverse of what the encoder converts with.
inline Colour rgb(int y, int u, int v) {
  const double luma = y;
  const double cb = u - 128;
  const double cr = v - 128;
  const auto level = [](double value) {
    return static_cast<int>(std::lround(std::clamp(value, 0.0, 255.0)));
  };
  return {level(luma + 1.5748 * cr), level(luma - 0.18733 * cb - 0.46813 * cr),
          level(luma + 1.8556 * cb)};
}

class H264Decoder {
 public:
  H264Decoder() : ctx_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))) {
    ctx_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    EXPECT_GE(avcodec_open2(ctx_.get(), nullptr, nullptr), 0);
  }
  bool decode(const std::vector<std::uint8_t>& bytes) {
    ffmpeg::PacketPtr packet(av_packet_alloc());
    if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0) return false;
    std::copy(bytes.begin(), bytes.end(), packet->data);
    return avcodec_send_packet(ctx_.get(), packet.get()) >= 0 &&
           avcodec_receive_frame(ctx_.get(), frame_.get()) >= 0;
  }
  Colour at(int x, int y) const {
    const auto sample = [&](int plane, int column, int row) {
      return int{frame_->data[plane][row * frame_->linesize[plane] + column]};
    };
    return rgb(sample(0, x, y), sample(1, x / 2, y / 2), sample(2, x / 2, y / 2));
  }
  const AVFrame& frame() const { return *frame_; }

 private:
  ffmpeg::ContextPtr ctx_;
  ffmpeg::FramePtr frame_{av_frame_alloc()};
};
