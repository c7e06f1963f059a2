// The encoder's decisions for all families, of which most need hardware to be opened for real.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "capture/encoder_internal.h"
#include "tests/support/captured_log.h"

namespace {

using namespace encoder_internal;
using testing::ElementsAre;
using testing::Pair;

std::vector<std::pair<std::string, std::string>> options(const char* name) {
  std::vector<std::pair<std::string, std::string>> list;
  for (const Option& option : family_options(name)) list.emplace_back(option.key, option.value);
  return list;
}

FramePath path(bool device, const std::vector<AVPixelFormat>& formats) {
  FramePath chosen{};
  EXPECT_TRUE(choose_path(device, formats.data(), static_cast<int>(formats.size()), &chosen));
  return chosen;
}

bool refused(bool device, const std::vector<AVPixelFormat>& formats) {
  FramePath chosen{};
  return !choose_path(device, formats.data(), static_cast<int>(formats.size()), &chosen);
}

TEST(EncoderTables, NvidiaOptions) {
  const auto expected =
      ElementsAre(Pair("preset", "p1"), Pair("tune", "ull"), Pair("zerolatency", "1"),
                  Pair("delay", "0"), Pair("rc", "cbr"), Pair("rc-lookahead", "0"),
                  Pair("forced-idr", "1"), Pair("no-scenecut", "1"), Pair("multipass", "disabled"));
  EXPECT_THAT(options("h264_nvenc"), expected);
  EXPECT_THAT(options("hevc_nvenc"), expected);
}

TEST(EncoderTables, AmdOptions) {
  EXPECT_THAT(options("hevc_amf"),
              ElementsAre(Pair("usage", "ultralowlatency"), Pair("quality", "speed"),
                          Pair("rc", "cbr"), Pair("header_insertion_mode", "idr"),
                          Pair("latency", "1"), Pair("enforce_hrd", "1"), Pair("forced_idr", "1")));
}

TEST(EncoderTables, IntelOptions) {
  EXPECT_THAT(options("h264_qsv"), ElementsAre(Pair("preset", "veryfast"), Pair("async_depth", "1"),
                                               Pair("look_ahead", "0"), Pair("forced_idr", "1"),
                                               Pair("low_delay_brc", "1")));
}

TEST(EncoderTables, SoftwareOptionsGoByTheExactName) {
  EXPECT_THAT(options("libopenh264"),
              ElementsAre(Pair("rc_mode", "bitrate"), Pair("allow_skip_frames", "0")));
  EXPECT_TRUE(options("libopenh264x").empty());
  EXPECT_TRUE(options("h264_mf").empty());
}

TEST(EncoderTables, FamiliesAreToldInTheirOrder) {
  EXPECT_EQ(options("nvenc_amf"), options("h264_nvenc"));
  EXPECT_EQ(options("amf_qsv"), options("h264_amf"));
}

TEST(EncoderTables, VbvHoldsOneFrame) {
  EXPECT_EQ(vbv_bits(20'000, 60), 333'333);
  EXPECT_EQ(vbv_bits(20'000, 0), 333'333) << "a rate below 1 counts as 60";
}

TEST(EncoderTables, KeyframesComeOnRequestAlone) {
  EXPECT_EQ(gop_size("hevc_nvenc"), 0x7FFFFFFF);
  EXPECT_EQ(gop_size("libopenh264"), 100'000);
}

TEST(EncoderTables, OnlyNvidiaTakesARateInPlace) {
  EXPECT_TRUE(takes_rate_in_place("h264_nvenc"));
  for (const char* name : {"h264_amf", "hevc_qsv", "libopenh264"}) {
    EXPECT_FALSE(takes_rate_in_place(name)) << name;
  }
}

TEST(EncoderTables, PathFollowsWhatTheEncoderLists) {
  EXPECT_EQ(path(true, {AV_PIX_FMT_NV12, AV_PIX_FMT_D3D11}), FramePath::ZeroCopy);
  EXPECT_EQ(path(true, {AV_PIX_FMT_D3D11}), FramePath::ZeroCopy);
  EXPECT_EQ(path(true, {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}), FramePath::ReadBack);
  EXPECT_TRUE(refused(true, {AV_PIX_FMT_YUV420P}));
  EXPECT_EQ(path(false, {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P}), FramePath::Cpu);
  EXPECT_TRUE(refused(false, {AV_PIX_FMT_NV12}));
}

TEST(EncoderTables, EncoderWithoutAListOfFormatsIsReadBack) {
  FramePath chosen{};
  ASSERT_TRUE(choose_path(true, nullptr, 0, &chosen));
  EXPECT_EQ(chosen, FramePath::ReadBack);
}

class EncoderSettingsTest : public testing::TestWithParam<std::pair<const char*, EncoderSettings>> {
};

EncoderSettings with(int width, int height, int fps, int kbps) {
  EncoderSettings settings;
  settings.width = width;
  settings.height = height;
  settings.fps = fps;
  settings.bitrate_kbps = kbps;
  return settings;
}

TEST_P(EncoderSettingsTest, AreRefusedWithoutALogLine) {
  const CapturedLog log;
  VideoEncoder encoder;
  EXPECT_FALSE(encoder.open(nullptr, GetParam().second));
  EXPECT_FALSE(encoder.is_open());
  EXPECT_EQ(log.count("encoder:"), 0);
}

INSTANTIATE_TEST_SUITE_P(Bad, EncoderSettingsTest,
                         testing::Values(std::pair{"OddWidth", with(641, 360, 60, 1000)},
                                         std::pair{"OddHeight", with(640, 361, 60, 1000)},
                                         std::pair{"NoWidth", with(0, 360, 60, 1000)},
                                         std::pair{"NegativeHeight", with(640, -2, 60, 1000)},
                                         std::pair{"WidthAbove8192", with(8194, 360, 60, 1000)},
                                         std::pair{"HeightAbove8192", with(640, 8194, 60, 1000)},
                                         std::pair{"Fps0", with(640, 360, 0, 1000)},
                                         std::pair{"Fps241", with(640, 360, 241, 1000)},
                                         std::pair{"NoRate", with(640, 360, 60, 0)}),
                         [](const auto& tested) { return std::string(tested.param.first); });

}  // namespace
