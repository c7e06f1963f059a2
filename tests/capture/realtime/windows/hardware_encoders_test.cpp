#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "capture/windows/d3d11_encoder_device.h"
#include "tests/support/captured_log.h"

namespace {

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
  EXPECT_EQ(log.count("libopenh264"), 0);
  EXPECT_EQ(log.count("encoder: no usable D3D11/NV12 encoder"), 1);
}

}  // namespace
