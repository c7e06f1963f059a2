// The software encoder for real, judged by a decoder.
#include "capture/encoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "capture/encoder_internal.h"
#include "connection/clock.h"
#include "media/cpu_codec.h"
#include "tests/capture/realtime/h264_decoder.h"
#include "tests/capture/realtime/untouched_device.h"
#include "tests/support/captured_log.h"

namespace {

using namespace encoder_internal;

constexpr std::array<Colour, 8> PATCHES = {{{255, 255, 255},
                                            {0, 0, 0},
                                            {255, 0, 0},
                                            {0, 255, 0},
                                            {0, 0, 255},
                                            {128, 128, 128},
                                            {200, 100, 50},
                                            {20, 180, 220}}};
constexpr int LEVELS = 4;  // what coding may change a flat colour by

// Four patches across, two down.
struct Picture {
  Picture(int w, int h, int padding_bytes = 0)
      : width(w),
        height(h),
        stride(w * 4 + padding_bytes),
        bytes(static_cast<std::size_t>(stride) * static_cast<std::size_t>(h), 0xEE) {
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const int patch = y * 2 / h * 4 + x * 4 / w;
        const Colour& c = PATCHES[static_cast<std::size_t>(patch)];
        std::uint8_t* p = bytes.data() + std::ptrdiff_t{y} * stride + x * 4;
        p[0] = static_cast<std::uint8_t>(c.b);
        p[1] = static_cast<std::uint8_t>(c.g);
        p[2] = static_cast<std::uint8_t>(c.r);
        p[3] = static_cast<std::uint8_t>(x * 7);  // means nothing
      }
    }
  }
  int width, height, stride;
  std::vector<std::uint8_t> bytes;
};

class EncoderTest : public testing::Test {
 protected:
  bool open(int width, int height, int kbps = 20'000) {
    EncoderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.bitrate_kbps = kbps;
    return encoder_.open(nullptr, settings);
  }
  bool prepare(const Picture& p) {
    return encoder_.prepare_cpu_frame(p.bytes.data(), p.bytes.size(), p.width, p.height, p.stride);
  }
  bool encode(const Picture& p, bool force) {
    return prepare(p) && encoder_.end_frame(force, &out_, &keyframe_);
  }
  void expect_patches(int width, int height) {
    ASSERT_EQ(decoder_.frame().width, width);
    ASSERT_EQ(decoder_.frame().height, height);
    for (std::size_t i = 0; i < PATCHES.size(); ++i) {
      const int x = (static_cast<int>(i % 4) * 2 + 1) * width / 8;
      const int y = (static_cast<int>(i / 4) * 2 + 1) * height / 4;
      const Colour seen = decoder_.at(x, y);
      EXPECT_NEAR(seen.r, PATCHES[i].r, LEVELS) << "patch " << i;
      EXPECT_NEAR(seen.g, PATCHES[i].g, LEVELS) << "patch " << i;
      EXPECT_NEAR(seen.b, PATCHES[i].b, LEVELS) << "patch " << i;
    }
  }

  VideoEncoder encoder_;
  H264Decoder decoder_;
  std::vector<std::uint8_t> out_;
  bool keyframe_ = false;
};

TEST_F(EncoderTest, ColoursSurviveTheRoundTrip) {
  ASSERT_TRUE(open(640, 360));
  EXPECT_EQ(encoder_.name(), "libopenh264");
  EXPECT_FALSE(encoder_.is_hevc());
  const Picture picture(640, 360);
  ASSERT_TRUE(encode(picture, true));
  ASSERT_TRUE(keyframe_);
  ASSERT_TRUE(decoder_.decode(out_));
  expect_patches(640, 360);
  EXPECT_TRUE(lund_cpu::h264_bootstrap(out_.data(), out_.size()));
}

TEST_F(EncoderTest, SourceOfOddSizeAndPaddedRowsIsScaled) {
  ASSERT_TRUE(open(640, 360));
  ASSERT_TRUE(encode(Picture(1279, 721, 36), true));
  ASSERT_TRUE(decoder_.decode(out_));
  expect_patches(640, 360);
}

TEST_F(EncoderTest, SmallSourceIsEnlarged) {
  ASSERT_TRUE(open(640, 360));
  ASSERT_TRUE(encode(Picture(321, 181), true));
  ASSERT_TRUE(decoder_.decode(out_));
  expect_patches(640, 360);
}

TEST_F(EncoderTest, SizeOfTheSourceMayChangeBetweenFrames) {
  ASSERT_TRUE(open(640, 360));
  ASSERT_TRUE(encode(Picture(640, 360), true));
  ASSERT_TRUE(encode(Picture(800, 600), true));
  ASSERT_TRUE(decoder_.decode(out_));
  expect_patches(640, 360);
}

TEST_F(EncoderTest, OneFrameInOneFrameOut) {
  ASSERT_TRUE(open(640, 360));
  const Picture picture(640, 360);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(encode(picture, i == 0));
    EXPECT_FALSE(out_.empty());
    EXPECT_EQ(keyframe_, i == 0);
    ASSERT_TRUE(decoder_.decode(out_)) << i;
  }
}

TEST_F(EncoderTest, ForcedKeyframeIsCompleteAndTheNextFrameIsNoneAgain) {
  ASSERT_TRUE(open(640, 360));
  const Picture picture(640, 360);
  ASSERT_TRUE(encode(picture, true));
  ASSERT_TRUE(encode(picture, false));
  EXPECT_FALSE(keyframe_);
  ASSERT_TRUE(encode(picture, true));
  EXPECT_TRUE(keyframe_);
  EXPECT_TRUE(lund_cpu::h264_bootstrap(out_.data(), out_.size()));
  H264Decoder fresh;
  EXPECT_TRUE(fresh.decode(out_));
  ASSERT_TRUE(encode(picture, false)) << "the same frame object";
  EXPECT_FALSE(keyframe_);
  EXPECT_TRUE(fresh.decode(out_));
}

TEST_F(EncoderTest, StreamSaysBt709FullRange) {
  ASSERT_TRUE(open(640, 360));
  ASSERT_TRUE(encode(Picture(640, 360), true));
  ASSERT_TRUE(decoder_.decode(out_));
  EXPECT_EQ(decoder_.frame().color_range, AVCOL_RANGE_JPEG);
  EXPECT_EQ(decoder_.frame().colorspace, AVCOL_SPC_BT709);
  EXPECT_EQ(decoder_.frame().color_primaries, AVCOL_PRI_BT709);
  EXPECT_EQ(decoder_.frame().color_trc, AVCOL_TRC_BT709);
}

TEST_F(EncoderTest, PictureThatDoesNotFitItsBufferIsRefused) {
  ASSERT_TRUE(open(640, 360));
  const Picture p(640, 360);
  EXPECT_FALSE(encoder_.prepare_cpu_frame(p.bytes.data(), p.bytes.size() - 1, 640, 360, p.stride));
  EXPECT_FALSE(encoder_.prepare_cpu_frame(p.bytes.data(), p.bytes.size(), 640, 360, 640));
  EXPECT_FALSE(encoder_.prepare_cpu_frame(nullptr, p.bytes.size(), 640, 360, p.stride));
}

TEST_F(EncoderTest, ClosedEncoderDoesNothing) {
  const Picture picture(640, 360);
  ASSERT_TRUE(open(640, 360));
  encoder_.close();
  encoder_.close();
  EXPECT_FALSE(encoder_.is_open());
  EXPECT_EQ(encoder_.name(), "");
  out_ = {1};
  keyframe_ = true;
  EXPECT_FALSE(encoder_.end_frame(true, &out_, &keyframe_));
  EXPECT_TRUE(out_.empty());
  EXPECT_FALSE(keyframe_);
  EncoderSurface surface;
  EXPECT_FALSE(encoder_.begin_frame(&surface));
  EXPECT_FALSE(prepare(picture));
  EXPECT_FALSE(encoder_.set_bitrate(500));
  EXPECT_EQ(encoder_.settings().bitrate_kbps, 500);
}

TEST_F(EncoderTest, CpuEncoderHasNoSurfaces) {
  ASSERT_TRUE(open(640, 360));
  EncoderSurface surface;
  EXPECT_FALSE(encoder_.begin_frame(&surface));
}

TEST_F(EncoderTest, NewRateNeedsAReopeningAndIsKept) {
  ASSERT_TRUE(open(640, 360));
  EXPECT_FALSE(encoder_.set_bitrate(3000));
  EXPECT_EQ(encoder_.settings().bitrate_kbps, 3000);
  const EncoderSettings kept = encoder_.settings();
  const CapturedLog log;
  ASSERT_TRUE(encoder_.open(nullptr, kept));
  EXPECT_EQ(log.count("(640x360@60, 3000 kbps CBR, VBV 1 frame, CPU I420)"), 1);
}

TEST_F(EncoderTest, RequiredEncoderThatIsMissingFailsAfterOneAttempt) {
  const CapturedLog log;
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  settings.required = "h264_of_another_build";
  EXPECT_FALSE(encoder_.open(nullptr, settings));
  EXPECT_EQ(log.count("encoder: h264_of_another_build not in this FFmpeg build"), 1);
  EXPECT_EQ(log.count("encoder: no usable CPU I420 encoder"), 1);
  EXPECT_EQ(log.count("libopenh264"), 0);
}

TEST_F(EncoderTest, PreferredEncoderThatIsMissingIsPassedOver) {
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  settings.preferred = "h264_qsv";
  ASSERT_TRUE(encoder_.open(nullptr, settings));
  EXPECT_EQ(encoder_.name(), "libopenh264");
}

TEST_F(EncoderTest, EncoderOfAnotherKindIsRefused) {
  const CapturedLog log;
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  settings.required = "libopus";
  EXPECT_FALSE(encoder_.open(nullptr, settings));
  EXPECT_EQ(log.count("encoder: libopus is not H264 or HEVC"), 1);
}

TEST_F(EncoderTest, SoftwareEncoderTakesNoDevicesFrames) {
  const CapturedLog log;
  UntouchedDevice device;
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  settings.required = "libopenh264";
  EXPECT_FALSE(encoder_.open(&device, settings));
  EXPECT_EQ(log.count("encoder: libopenh264 takes neither D3D11 nor NV12 frames"), 1);
  EXPECT_EQ(log.count("encoder: no usable D3D11/NV12 encoder"), 1);
}

TEST(CollectPackets, NothingWithin100MsIsSuccessWithoutOutput) {
  PacketPtr packet(av_packet_alloc());
  std::vector<std::uint8_t> out;
  bool keyframe = false;
  const std::uint64_t begin_us = lund_now_us();
  EXPECT_TRUE(collect_packets([](AVPacket*) { return AVERROR(EAGAIN); }, packet.get(), 100, &out,
                              &keyframe));
  EXPECT_GE(lund_now_us() - begin_us, 100'000u);
  EXPECT_TRUE(out.empty());
}

TEST(CollectPackets, SeveralPacketsAreOneOutput) {
  PacketPtr packet(av_packet_alloc());
  std::vector<std::uint8_t> out;
  bool keyframe = false;
  int calls = 0;
  EXPECT_TRUE(collect_packets(
      [&](AVPacket* p) {
        if (++calls > 2) return AVERROR(EAGAIN);
        av_new_packet(p, 3);
        p->data[0] = p->data[1] = p->data[2] = static_cast<std::uint8_t>(calls);
        if (calls == 1) p->flags |= AV_PKT_FLAG_KEY;
        return 0;
      },
      packet.get(), 100, &out, &keyframe));
  EXPECT_EQ(out, (std::vector<std::uint8_t>{1, 1, 1, 2, 2, 2}));
  EXPECT_TRUE(keyframe);
}

TEST(CollectPackets, ErrorIsLoggedAndFails) {
  const CapturedLog log;
  PacketPtr packet(av_packet_alloc());
  std::vector<std::uint8_t> out;
  bool keyframe = false;
  EXPECT_FALSE(
      collect_packets([](AVPacket*) { return AVERROR_EOF; }, packet.get(), 100, &out, &keyframe));
  EXPECT_EQ(log.count("encoder: receive_packet failed: End of file"), 1);
}

}  // namespace
