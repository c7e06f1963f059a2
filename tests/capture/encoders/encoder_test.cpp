// The video encoder over made-up encoders: how each kind is set up, what is sent to it, and what
// becomes of what it says.
#include "capture/encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "connection/clock.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_codec.h"
#include "tests/support/virtual_time.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr int WIDTH = 64;
constexpr int HEIGHT = 36;
constexpr int PITCH = 80;  // of what is read back

// A surface whose pixels the test has laid down.
struct ReadBackState {
  std::vector<std::uint8_t> pixels = std::vector<std::uint8_t>(PITCH * HEIGHT * 3 / 2);
  std::uint32_t make_error = 0;
  std::uint32_t map_error = 0;
  int made = 0;
  int alive = 0;
  int maps = 0;
  int unmaps = 0;
};

class FakeReadBack final : public SurfaceReadBack {
 public:
  explicit FakeReadBack(ReadBackState& state) : state_(state) {
    ++state_.made;
    ++state_.alive;
  }
  ~FakeReadBack() override { --state_.alive; }

  EncoderSurface render_surface() override { return {&state_, 0}; }
  bool map(const std::uint8_t** pixels, int* row_pitch, std::uint32_t* error) override {
    if (state_.map_error != 0) {
      *error = state_.map_error;
      return false;
    }
    ++state_.maps;
    *pixels = state_.pixels.data();
    *row_pitch = PITCH;
    return true;
  }
  void unmap() override { ++state_.unmaps; }

 private:
  ReadBackState& state_;
};

class ReadBackDevice final : public EncoderDevice {
 public:
  explicit ReadBackDevice(ReadBackState& state) : state_(state) {}

  void fill(AVHWDeviceContext*) override { ADD_FAILURE(); }
  void fill(AVHWFramesContext*) override { ADD_FAILURE(); }
  std::unique_ptr<SurfaceReadBack> make_read_back(int width, int height,
                                                  std::uint32_t* error) override {
    EXPECT_EQ(width, WIDTH);
    EXPECT_EQ(height, HEIGHT);
    EXPECT_THAT(fake_codec::world().opened, SizeIs(1)) << "the encoder opens first";
    *error = state_.make_error;
    if (state_.make_error != 0) return nullptr;
    return std::make_unique<FakeReadBack>(state_);
  }

 private:
  ReadBackState& state_;
};

class EncoderOverFakes : public testing::Test {
 protected:
  EncoderOverFakes() {
    virtual_time::reset();
    fake_codec::reset();
    settings_.width = WIDTH;
    settings_.height = HEIGHT;
    settings_.fps = 50;
  }
  ~EncoderOverFakes() override {
    encoder_.close();
    EXPECT_EQ(read_back_.alive, 0);
    fake_codec::reset();
  }
  fake_codec::World& codec() { return fake_codec::world(); }
  bool open_by_device(const std::string& name, const fake_codec::Encoder& what) {
    codec().encoders[name] = what;
    settings_.required = name;
    return encoder_.open(&device_, settings_);
  }
  bool open_read_back(const std::string& name = "h264_qsv") {
    return open_by_device(name, {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12, AV_PIX_FMT_QSV}});
  }
  bool open_software() {
    codec().encoders["libopenh264"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_YUV420P}};
    return encoder_.open(nullptr, settings_);
  }
  bool end_frame(bool force = false) { return encoder_.end_frame(force, &out_, &keyframe_); }

  CapturedLog log_;
  ReadBackState read_back_;
  ReadBackDevice device_{read_back_};
  EncoderSettings settings_;
  VideoEncoder encoder_;
  std::vector<std::uint8_t> out_;
  bool keyframe_ = false;
};

TEST_F(EncoderOverFakes, ContextIsOfOneFrameInAndOneFrameOut) {
  ASSERT_TRUE(open_read_back());
  ASSERT_THAT(codec().opened, SizeIs(1));
  const AVCodecContext& context = *codec().opened[0].context;
  EXPECT_EQ(context.width, WIDTH);
  EXPECT_EQ(context.height, HEIGHT);
  EXPECT_EQ(context.time_base.num, 1);
  EXPECT_EQ(context.time_base.den, 50);
  EXPECT_EQ(context.framerate.num, 50);
  EXPECT_EQ(context.framerate.den, 1);
  EXPECT_EQ(context.max_b_frames, 0);
  EXPECT_EQ(context.bit_rate, 20'000'000);
  EXPECT_EQ(context.rc_max_rate, 20'000'000);
  EXPECT_EQ(context.rc_buffer_size, 400'000);
  EXPECT_EQ(context.gop_size, 100'000);
  EXPECT_TRUE(context.flags & AV_CODEC_FLAG_LOW_DELAY);
  EXPECT_EQ(context.chroma_sample_location, AVCHROMA_LOC_LEFT);
  EXPECT_EQ(context.color_primaries, AVCOL_PRI_BT709);
  EXPECT_EQ(context.color_trc, AVCOL_TRC_BT709);
  EXPECT_EQ(context.colorspace, AVCOL_SPC_BT709);
  EXPECT_EQ(context.color_range, AVCOL_RANGE_JPEG);
  EXPECT_EQ(context.thread_count, 0);
  EXPECT_EQ(context.pix_fmt, AV_PIX_FMT_NV12);
  EXPECT_EQ(context.profile, 100);
  EXPECT_EQ(context.hw_device_ctx, nullptr);
  EXPECT_EQ(log_.count("(64x36@50, 20000 kbps CBR, VBV 1 frame, CPU read-back NV12)"), 1);
  EXPECT_FALSE(encoder_.is_hevc());
}

TEST_F(EncoderOverFakes, HevcIsOfTheMainProfile) {
  ASSERT_TRUE(open_by_device("hevc_qsv", {AV_CODEC_ID_HEVC, {AV_PIX_FMT_NV12}}));
  EXPECT_EQ(codec().opened[0].context->profile, 1);
  EXPECT_TRUE(encoder_.is_hevc());
}

TEST_F(EncoderOverFakes, SoftwareIsOfTheConstrainedBaselineAndHasFewThreads) {
  ASSERT_TRUE(open_software());
  const AVCodecContext& context = *codec().opened[0].context;
  EXPECT_EQ(context.profile, 578);
  EXPECT_EQ(context.pix_fmt, AV_PIX_FMT_YUV420P);
  EXPECT_GE(context.thread_count, 1);
  EXPECT_LE(context.thread_count, 4);
  EXPECT_EQ(context.color_range, AVCOL_RANGE_JPEG);
  EXPECT_THAT(codec().opened[0].options,
              UnorderedElementsAre(Pair("rc_mode", "bitrate"), Pair("allow_skip_frames", "0")));
}

TEST_F(EncoderOverFakes, OptionsOfItsFamilyReachTheEncoder) {
  ASSERT_TRUE(open_read_back());
  EXPECT_THAT(codec().opened[0].options,
              UnorderedElementsAre(Pair("preset", "veryfast"), Pair("async_depth", "1"),
                                   Pair("look_ahead", "0"), Pair("forced_idr", "1"),
                                   Pair("low_delay_brc", "1")));
}

TEST_F(EncoderOverFakes, RequiredEncoderIsTheOnlyOneThatIsTried) {
  codec().encoders["h264_amf"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12}};
  settings_.required = "h264_nvenc";
  EXPECT_FALSE(encoder_.open(&device_, settings_));
  EXPECT_THAT(codec().sought, ElementsAre("h264_nvenc"));
}

TEST_F(EncoderOverFakes, WithoutADeviceOthersThanLibopenh264AreRefusedInSilence) {
  codec().encoders["h264_mf"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_YUV420P}};
  codec().encoders["libopenh264"] = {AV_CODEC_ID_HEVC, {AV_PIX_FMT_YUV420P}};
  for (const char* name : {"h264_mf", "libopenh264"}) {
    settings_.required = name;
    EXPECT_FALSE(encoder_.open(nullptr, settings_)) << name;
    EXPECT_EQ(log_.count(name), 0);
  }
  EXPECT_THAT(codec().opened, IsEmpty());
}

TEST_F(EncoderOverFakes, SoftwareThatTakesNoI420IsRefused) {
  codec().encoders["libopenh264"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12}};
  EXPECT_FALSE(encoder_.open(nullptr, settings_));
  EXPECT_EQ(log_.count("encoder: libopenh264 takes neither D3D11 nor NV12 frames"), 1);
}

TEST_F(EncoderOverFakes, OneThatDoesNotOpenIsTold) {
  EXPECT_FALSE(
      open_by_device("h264_qsv", {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12}, AVERROR_ENCODER_NOT_FOUND}));
  EXPECT_EQ(log_.count("encoder: h264_qsv failed to open: Encoder not found"), 1);
  EXPECT_EQ(read_back_.made, 0);
  EXPECT_FALSE(encoder_.is_open());
}

TEST_F(EncoderOverFakes, OneThatListsNoFormatsIsReadBackFor) {
  ASSERT_TRUE(open_by_device("h264_mf", {AV_CODEC_ID_H264, {}}));
  EXPECT_EQ(read_back_.made, 1);
  EXPECT_EQ(codec().opened[0].context->pix_fmt, AV_PIX_FMT_NV12);
  EXPECT_THAT(codec().opened[0].options, IsEmpty());
  EncoderSurface surface;
  ASSERT_TRUE(encoder_.begin_frame(&surface));
  EXPECT_EQ(surface.texture, &read_back_);
  EXPECT_EQ(surface.subresource, 0u);
}

TEST_F(EncoderOverFakes, TexturesThatFailAreToldWithTheirCode) {
  read_back_.make_error = 0x887A0005;
  EXPECT_FALSE(open_read_back());
  EXPECT_EQ(log_.count("encoder: h264_qsv: NV12 read-back textures failed (0x887a0005)"), 1);
  EXPECT_FALSE(encoder_.is_open());
}

TEST_F(EncoderOverFakes, RowsAreReadBackWithoutWhatPadsThem) {
  ASSERT_TRUE(open_read_back());
  std::vector<std::uint8_t> luma, chroma;
  for (int row = 0; row < HEIGHT * 3 / 2; ++row) {
    for (int x = 0; x < PITCH; ++x) {
      const auto value = static_cast<std::uint8_t>(row * 5 + x);
      read_back_.pixels[static_cast<std::size_t>(row * PITCH + x)] = value;
      if (x < WIDTH) (row < HEIGHT ? luma : chroma).push_back(value);
    }
  }
  ASSERT_TRUE(end_frame());
  ASSERT_THAT(codec().sent, SizeIs(1));
  const fake_codec::Sent& sent = codec().sent[0];
  EXPECT_EQ(sent.format, AV_PIX_FMT_NV12);
  EXPECT_EQ(sent.width, WIDTH);
  EXPECT_EQ(sent.height, HEIGHT);
  EXPECT_EQ(sent.luma, luma);
  EXPECT_EQ(sent.chroma_rows, chroma);
  EXPECT_EQ(read_back_.maps, 1);
  EXPECT_EQ(read_back_.unmaps, 1);
}

TEST_F(EncoderOverFakes, FrameThatTheEncoderStillHoldsIsNotOverwritten) {
  ASSERT_TRUE(open_read_back());
  codec().holds_frames = true;
  std::fill(read_back_.pixels.begin(), read_back_.pixels.end(), std::uint8_t{1});
  ASSERT_TRUE(end_frame());
  std::fill(read_back_.pixels.begin(), read_back_.pixels.end(), std::uint8_t{2});
  ASSERT_TRUE(end_frame());
  EXPECT_EQ(codec().held[0]->data[0][0], 1);
  EXPECT_EQ(codec().held[1]->data[0][0], 2);
}

TEST_F(EncoderOverFakes, MapThatFailsIsToldAndNothingIsSent) {
  ASSERT_TRUE(open_read_back());
  read_back_.map_error = 0x887A0007;
  EXPECT_FALSE(end_frame());
  EXPECT_EQ(log_.count("encoder: staging Map failed (0x887a0007)"), 1);
  EXPECT_THAT(codec().sent, IsEmpty());
  EXPECT_EQ(read_back_.unmaps, 0);
}

TEST_F(EncoderOverFakes, FramesAreCountedMarkedAndColoured) {
  ASSERT_TRUE(open_read_back());
  for (const bool force : {true, false, true, false}) {
    ASSERT_TRUE(end_frame(force));
    EXPECT_EQ(keyframe_, force);
    EXPECT_FALSE(out_.empty());
  }
  ASSERT_THAT(codec().sent, SizeIs(4));
  for (int i = 0; i < 4; ++i) {
    const fake_codec::Sent& sent = codec().sent[static_cast<std::size_t>(i)];
    EXPECT_EQ(sent.pts, i);
    EXPECT_EQ(sent.key, i % 2 == 0);
    EXPECT_EQ(sent.picture, i % 2 == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE);
    EXPECT_EQ(sent.primaries, AVCOL_PRI_BT709);
    EXPECT_EQ(sent.transfer, AVCOL_TRC_BT709);
    EXPECT_EQ(sent.space, AVCOL_SPC_BT709);
    EXPECT_EQ(sent.range, AVCOL_RANGE_JPEG);
    EXPECT_EQ(sent.chroma, AVCHROMA_LOC_LEFT);
  }
}

TEST_F(EncoderOverFakes, NothingWithin100MsIsSuccessWithoutOutput) {
  ASSERT_TRUE(open_read_back());
  codec().encode = [](const fake_codec::Sent&) { return std::nullopt; };
  const std::uint64_t begin_us = lund_now_us();
  out_ = {1};
  keyframe_ = true;
  EXPECT_TRUE(end_frame(true));
  EXPECT_EQ(lund_now_us() - begin_us, 100'000u);
  EXPECT_EQ(codec().yields, 200) << "most encoders need microseconds, which are not slept through";
  EXPECT_EQ(codec().sleeps, 100);
  EXPECT_TRUE(out_.empty());
  EXPECT_FALSE(keyframe_);
}

TEST_F(EncoderOverFakes, PacketThatIsThereIsNotWaitedFor) {
  ASSERT_TRUE(open_read_back());
  ASSERT_TRUE(end_frame());
  EXPECT_FALSE(out_.empty());
  EXPECT_EQ(codec().yields, 0);
}

TEST_F(EncoderOverFakes, FullEncoderIsDrainedAllTheSame) {
  ASSERT_TRUE(open_read_back());
  codec().send_results = {AVERROR(EAGAIN)};
  EXPECT_TRUE(end_frame());
  EXPECT_THAT(codec().sent, IsEmpty());
  EXPECT_TRUE(end_frame());
  EXPECT_THAT(codec().sent, SizeIs(1));
}

TEST_F(EncoderOverFakes, FrameThatIsRefusedIsTold) {
  ASSERT_TRUE(open_read_back());
  codec().send_results = {AVERROR_EOF};
  EXPECT_FALSE(end_frame());
  EXPECT_EQ(log_.count("encoder: send_frame failed: End of file"), 1);
}

TEST_F(EncoderOverFakes, PacketThatFailsIsTold) {
  ASSERT_TRUE(open_read_back());
  codec().receive_results = {AVERROR_EXTERNAL};
  EXPECT_FALSE(end_frame());
  EXPECT_EQ(log_.count("encoder: receive_packet failed: Generic error in an external library"), 1);
}

TEST_F(EncoderOverFakes, NvidiasTakesANewRateFromItsContext) {
  ASSERT_TRUE(open_read_back("h264_nvenc"));
  EXPECT_EQ(codec().opened[0].context->gop_size, 0x7FFFFFFF);
  EXPECT_TRUE(encoder_.set_bitrate(3000));
  const AVCodecContext& context = *codec().opened[0].context;
  EXPECT_EQ(context.bit_rate, 3'000'000);
  EXPECT_EQ(context.rc_max_rate, 3'000'000);
  EXPECT_EQ(context.rc_buffer_size, 60'000);
  EXPECT_EQ(encoder_.settings().bitrate_kbps, 3000);
}

TEST_F(EncoderOverFakes, AnyOtherKeepsANewRateForItsReopening) {
  ASSERT_TRUE(open_read_back("h264_amf"));
  EXPECT_FALSE(encoder_.set_bitrate(3000));
  EXPECT_EQ(codec().opened[0].context->bit_rate, 20'000'000);
  EXPECT_EQ(encoder_.settings().bitrate_kbps, 3000);
}

TEST_F(EncoderOverFakes, CountOfFramesBeginsAnewWithEachOpening) {
  ASSERT_TRUE(open_read_back());
  ASSERT_TRUE(end_frame() && end_frame());
  const EncoderSettings kept = encoder_.settings();
  codec().opened.clear();
  ASSERT_TRUE(encoder_.open(&device_, kept));
  EXPECT_EQ(log_.count("encoder: h264_qsv closed: 2 frames"), 1);
  EXPECT_EQ(read_back_.alive, 1);
  ASSERT_TRUE(end_frame());
  EXPECT_EQ(codec().sent.back().pts, 0);
}

}  // namespace
