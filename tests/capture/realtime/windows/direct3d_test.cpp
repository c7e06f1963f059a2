// The GPU's side of capturing on the system's own DXGI and Direct3D, as far as this computer has
// them: on one without desktop duplication a session falls back to GDI and says why.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "capture/source.h"
#include "capture/windows/d3d11_encoder_device.h"
#include "capture/windows/duplication_source.h"
#include "tests/capture/realtime/received.h"
#include "tests/support/captured_log.h"
// After what the device's header includes.
#include <d3d10.h>

namespace {

using testing::StartsWith;

constexpr int WIDTH = 66;  // whose rows are padded in any texture that is mapped
constexpr int HEIGHT = 38;

// The thread stays where it is. Wine's Direct3D makes itself a window, which the rights that the
// capture thread enters the input desktop with don't allow.
class DesktopOfTheProcess final : public InputDesktop {
 public:
  Look look() override { return Look::Same; }
  bool enter() override { return true; }
  bool matches() override { return true; }
  std::string name() const override { return "Default"; }
  void leave() override {}
};

class Direct3dTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(select_display("", &display_));
    ASSERT_TRUE(display_.has_adapter) << display_.device;
  }
  ComPtr<ID3D11RenderTargetView> target_of(const EncoderSurface& surface) {
    ComPtr<ID3D11RenderTargetView> view;
    gpu_.device->CreateRenderTargetView(static_cast<ID3D11Texture2D*>(surface.texture), nullptr,
                                        &view);
    return view;
  }

  CapturedLog log_;
  DisplayInfo display_;
  DisplayDevice gpu_;
  std::uint32_t error_ = 0;
};

TEST_F(Direct3dTest, DeviceIsOfTheDisplaysAdapter) {
  ASSERT_TRUE(open_display_device(system_direct3d(), display_, &gpu_)) << log_.text();
  EXPECT_GE(gpu_.device->GetFeatureLevel(), D3D_FEATURE_LEVEL_11_0);
  EXPECT_EQ(gpu_.device->GetDeviceRemovedReason(), S_OK);
  ComPtr<IDXGIDevice> dxgi;
  ComPtr<IDXGIAdapter> adapter;
  ASSERT_EQ(gpu_.device.As(&dxgi), S_OK);
  ASSERT_EQ(dxgi->GetAdapter(&adapter), S_OK);
  DXGI_ADAPTER_DESC description;
  ASSERT_EQ(adapter->GetDesc(&description), S_OK);
  EXPECT_EQ(description.AdapterLuid.LowPart, display_.adapter_luid_low);
  EXPECT_EQ(description.AdapterLuid.HighPart, display_.adapter_luid_high);
}

TEST_F(Direct3dTest, DeviceIsProtectedFromTheDriversThreads) {
  ASSERT_TRUE(open_display_device(system_direct3d(), display_, &gpu_));
  ComPtr<ID3D10Multithread> multithread;
  ASSERT_EQ(gpu_.device.As(&multithread), S_OK);
  EXPECT_TRUE(multithread->GetMultithreadProtected());
}

TEST_F(Direct3dTest, AnotherAdaptersDisplayHasNoDevice) {
  display_.adapter_luid_high ^= 0x40000000;
  EXPECT_FALSE(open_display_device(system_direct3d(), display_, &gpu_));
  EXPECT_EQ(log_.count("video: no DXGI output for the display"), 1);
  EXPECT_EQ(gpu_.device.Get(), nullptr);
}

TEST_F(Direct3dTest, WhatIsDrawnIsReadBackExactly) {
  ASSERT_TRUE(open_display_device(system_direct3d(), display_, &gpu_));
  const auto read_back =
      make_texture_read_back(gpu_.device.Get(), DXGI_FORMAT_B8G8R8A8_UNORM, WIDTH, HEIGHT, &error_);
  ASSERT_NE(read_back, nullptr) << std::hex << error_;
  const auto target = target_of(read_back->render_surface());
  ASSERT_NE(target.Get(), nullptr);
  for (const float red : {1.0f, 0.2f}) {
    const float colour[] = {red, 0.4f, 0.6f, 1.0f};
    gpu_.context->ClearRenderTargetView(target.Get(), colour);
    const std::uint8_t* pixels = nullptr;
    int pitch = 0;
    ASSERT_TRUE(read_back->map(&pixels, &pitch, &error_)) << std::hex << error_;
    ASSERT_GE(pitch, WIDTH * 4);
    const std::uint8_t bgra[] = {153, 102, static_cast<std::uint8_t>(red * 255 + 0.5f), 255};
    int wrong = 0;
    for (int y = 0; y < HEIGHT; ++y) {
      for (int x = 0; x < WIDTH; ++x)
        wrong += std::memcmp(pixels + y * pitch + x * 4, bgra, sizeof bgra) != 0;
    }
    EXPECT_EQ(wrong, 0);
    read_back->unmap();
  }
}

TEST_F(Direct3dTest, Nv12IsReadBackOrItsLackHasACode) {
  ASSERT_TRUE(open_display_device(system_direct3d(), display_, &gpu_));
  D3d11EncoderDevice device(gpu_.device);
  const auto read_back = device.make_read_back(640, 360, &error_);
  if (!read_back) {
    EXPECT_NE(error_ & 0x80000000u, 0u) << std::hex << error_;
    return;
  }
  const std::uint8_t* pixels = nullptr;
  int pitch = 0;
  ASSERT_TRUE(read_back->map(&pixels, &pitch, &error_));
  EXPECT_GE(pitch, 640);
  read_back->unmap();
}

// On a computer that has it, the picture comes and is held; else the text names the cause.
TEST_F(Direct3dTest, DuplicationDeliversThePictureOrSaysWhyNot) {
  const auto source = make_duplication_source();
  ASSERT_TRUE(source->open({display_, 1280, 720, 60})) << log_.text();
  SubscribeFailure failure;
  if (!source->subscribe(&display_, &failure)) {
    EXPECT_NE(failure.code & 0x80000000u, 0u);
    EXPECT_THAT(failure.text, StartsWith("DuplicateOutput failed (0x8"));
    EXPECT_FALSE(source->subscribed());
    return;
  }
  WakeEvent wake(WakeEvent::Reset::Manual);
  AcquiredPicture picture;
  ASSERT_EQ(source->acquire(1000, wake, &picture), AcquireResult::Picture);
  EXPECT_EQ(picture.width, display_.width);
  EXPECT_EQ(picture.height, display_.height);
  EXPECT_TRUE(source->hold());
  source->release();
  EXPECT_TRUE(source->has_picture());
  EXPECT_TRUE(source->alive());
}

TEST_F(Direct3dTest, SessionWithoutDuplicationIsGdisAndFlows) {
  auto source = make_duplication_source();
  SubscribeFailure failure;
  ASSERT_TRUE(source->open({display_, 1280, 720, 60}));
  if (DisplayInfo moved = display_; source->subscribe(&moved, &failure))
    GTEST_SKIP() << "this computer has desktop duplication";
  source.reset();
  Received received;
  CapturePlatform platform = native_capture_platform();
  platform.make_desktop = [] { return std::make_unique<DesktopOfTheProcess>(); };
  CapturePipeline pipeline(platform);
  received.listen_to(pipeline);
  VideoSettings settings;
  settings.display = display_;
  settings.width = 640;
  settings.height = 360;
  settings.bitrate_kbps = 2000;
  ASSERT_TRUE(pipeline.init(settings)) << log_.text();
  EXPECT_EQ(pipeline.capture_backend(), "GDI CPU");
  EXPECT_EQ(pipeline.encoder_name(), "libopenh264");
  EXPECT_EQ(log_.count("video: " + failure.text + "; retrying"), 1) << log_.text();
  pipeline.start();
  EXPECT_TRUE(received.wait_for_frames(5));
  pipeline.stop();
  EXPECT_EQ(received.keyframes(), 1);
  EXPECT_EQ(received.fatal(), "");
}

}  // namespace
