#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "capture/encoder_internal.h"
#include "capture/windows/d3d11_encoder_device.h"
#include "tests/support/captured_log.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What this build of FFmpeg doesn't know of the options that an encoder is opened with.
std::vector<std::string> unknown_options(const char* name) {
  std::vector<std::string> unknown;
  const AVCodec* encoder = avcodec_find_encoder_by_name(name);
  AVCodecContext* context = encoder ? avcodec_alloc_context3(encoder) : nullptr;
  if (!context) return {"it isn't there"};
  for (const auto& option : encoder_internal::family_options(name)) {
    if (av_opt_set(context, option.key, option.value, AV_OPT_SEARCH_CHILDREN) < 0)
      unknown.emplace_back(option.key);
  }
  avcodec_free_context(&context);
  return unknown;
}

// A maker's options are the same for both codecs and all versions of FFmpeg: what one of those
// lacks is passed over.
TEST(HardwareEncoders, AllSixAreInTheBuildAndKnowTheirOptions) {
  EXPECT_THAT(unknown_options("h264_nvenc"), IsEmpty());
  EXPECT_THAT(unknown_options("hevc_nvenc"), IsEmpty());
  EXPECT_THAT(unknown_options("h264_amf"), ElementsAre("header_insertion_mode", "forced_idr"));
  EXPECT_THAT(unknown_options("hevc_amf"), ElementsAre("forced_idr"));
  EXPECT_THAT(unknown_options("h264_qsv"), IsEmpty());
  EXPECT_THAT(unknown_options("hevc_qsv"), ElementsAre("look_ahead"));
}

// Wine's device has no driver of an encoder behind it, and makes no surfaces of NV12.
TEST(HardwareEncoders, WithoutADriverAreAllSixTriedAndNoSoftware) {
  ComPtr<ID3D11Device> made;
  ASSERT_GE(system_direct3d().create_device(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr,
                                            D3D11_CREATE_DEVICE_BGRA_SUPPORT, nullptr, 0,
                                            D3D11_SDK_VERSION, &made, nullptr, nullptr),
            0);
  D3d11EncoderDevice device(std::move(made));
  const CapturedLog log;
  EncoderSettings settings;
  settings.width = 640;
  settings.height = 360;
  VideoEncoder encoder;
  EXPECT_FALSE(encoder.open(&device, settings));
  for (const char* name :
       {"hevc_nvenc", "hevc_amf", "hevc_qsv", "h264_nvenc", "h264_amf", "h264_qsv"})
    EXPECT_EQ(log.count("encoder: " + std::string(name)), 1) << name;
  EXPECT_EQ(log.count("not in this FFmpeg build"), 0);
  EXPECT_EQ(log.count("libopenh264"), 0);
  EXPECT_EQ(log.count("encoder: no usable D3D11/NV12 encoder"), 1);
}

}  // namespace
