// The video encoder on a device: what it makes of it, and that it gives all of it back. No driver
// stands behind the device, so that the encoder itself doesn't open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/encoder.h"
#include "capture/windows/d3d11_encoder_device.h"
#include "tests/support/captured_log.h"
#include "tests/support/windows/fake_direct3d.h"

namespace {

using testing::IsEmpty;

class VideoEncoderOnDevice : public testing::Test {
 protected:
  VideoEncoderOnDevice() {
    ComPtr<ID3D11Device> made;
    gpu_.device.give(made.GetAddressOf());
    device_ = std::make_unique<D3d11EncoderDevice>(std::move(made));
    settings_.width = 640;
    settings_.height = 360;
    settings_.required = "h264_nvenc";
  }
  void TearDown() override {
    encoder_.close();
    EXPECT_EQ(gpu_.device.references(), 1) << "the device's own";
    device_.reset();
    EXPECT_THAT(gpu_.stage.complaints(), IsEmpty());
  }

  CapturedLog log_;
  FakeDirect3d gpu_;
  std::unique_ptr<D3d11EncoderDevice> device_;
  EncoderSettings settings_;
  VideoEncoder encoder_;
};

TEST_F(VideoEncoderOnDevice, HardwareEncoderGetsAPoolOnTheDeviceAndGivesItBack) {
  EXPECT_FALSE(encoder_.open(device_.get(), settings_));
  EXPECT_EQ(log_.count("frame pool failed"), 0);
  EXPECT_EQ(log_.count("encoder: h264_nvenc failed to open: "), 1) << log_.text();
  EXPECT_EQ(log_.count("encoder: no usable D3D11/NV12 encoder"), 1);
  EXPECT_FALSE(encoder_.is_open());
}

TEST_F(VideoEncoderOnDevice, DeviceWithoutVideoHasNoPoolAndIsNotReadBackFrom) {
  gpu_.device.deny<ID3D11VideoDevice>();
  EXPECT_FALSE(encoder_.open(device_.get(), settings_));
  EXPECT_EQ(log_.count("encoder: h264_nvenc: D3D11 frame pool failed: "), 1) << log_.text();
  EXPECT_THAT(gpu_.textures, IsEmpty());
}

TEST_F(VideoEncoderOnDevice, SoftwareEncoderTakesNoSurfaces) {
  settings_.required = "libopenh264";
  EXPECT_FALSE(encoder_.open(device_.get(), settings_));
  EXPECT_EQ(log_.count("encoder: libopenh264 takes neither D3D11 nor NV12 frames"), 1);
}

}  // namespace
