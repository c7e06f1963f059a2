// The encoder's share of the device: FFmpeg's records filled, NV12 read back.
#include "capture/windows/d3d11_encoder_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/ffmpeg_objects.h"
#include "tests/support/windows/fake_direct3d.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/hwcontext_d3d11va.h>
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class D3d11EncoderDeviceTest : public testing::Test {
 protected:
  D3d11EncoderDeviceTest() {
    ComPtr<ID3D11Device> made;
    gpu_.device.give(made.GetAddressOf());
    device_ = std::make_unique<D3d11EncoderDevice>(std::move(made));
  }
  void TearDown() override {
    device_.reset();
    EXPECT_THAT(gpu_.stage.complaints(), IsEmpty());
  }

  FakeDirect3d gpu_;
  std::unique_ptr<D3d11EncoderDevice> device_;
  std::uint32_t error_ = 0;
};

TEST_F(D3d11EncoderDeviceTest, DeviceContextGetsAReferenceThatFfmpegGivesBack) {
  ffmpeg::BufferPtr hw(av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_D3D11VA));
  ASSERT_TRUE(hw);
  auto* context = reinterpret_cast<AVHWDeviceContext*>(hw->data);
  device_->fill(context);
  EXPECT_EQ(static_cast<AVD3D11VADeviceContext*>(context->hwctx)->device,
            gpu_.device.as<ID3D11Device>());
  EXPECT_EQ(gpu_.device.references(), 2);
  // Initialised, it holds the immediate context and the video interfaces too.
  EXPECT_GE(av_hwdevice_ctx_init(hw.get()), 0);
  EXPECT_EQ(gpu_.context.references(), 1);
  EXPECT_EQ(gpu_.video_context.references(), 1);
  device_.reset();
  EXPECT_GE(gpu_.device.references(), 1) << "it outlives the source";
  hw.reset();
  EXPECT_EQ(gpu_.device.references(), 0);
}

TEST_F(D3d11EncoderDeviceTest, SurfacesOfThePoolCanBeDrawnInto) {
  ffmpeg::BufferPtr hw(av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_D3D11VA));
  ASSERT_TRUE(hw);
  device_->fill(reinterpret_cast<AVHWDeviceContext*>(hw->data));
  ASSERT_GE(av_hwdevice_ctx_init(hw.get()), 0);
  ffmpeg::BufferPtr frames(av_hwframe_ctx_alloc(hw.get()));
  ASSERT_TRUE(frames);
  auto* pool = reinterpret_cast<AVHWFramesContext*>(frames->data);
  pool->format = AV_PIX_FMT_D3D11;
  pool->sw_format = AV_PIX_FMT_NV12;
  pool->width = 640;
  pool->height = 360;
  device_->fill(pool);
  ASSERT_GE(av_hwframe_ctx_init(frames.get()), 0);
  ffmpeg::FramePtr frame(av_frame_alloc());
  ASSERT_GE(av_hwframe_get_buffer(frames.get(), frame.get(), 0), 0);
  ASSERT_EQ(gpu_.textures.size(), 1u);
  EXPECT_EQ(gpu_.textures[0].BindFlags, 0x20u);
  EXPECT_EQ(gpu_.textures[0].Format, DXGI_FORMAT_NV12);
  EXPECT_EQ(gpu_.textures[0].ArraySize, 1u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(frame->data[1]), 0u);
}

TEST_F(D3d11EncoderDeviceTest, ReadBackHasATextureToDrawIntoAndOneToMap) {
  const auto read_back = device_->make_read_back(640, 360, &error_);
  ASSERT_NE(read_back, nullptr);
  ASSERT_EQ(gpu_.textures.size(), 2u);
  for (const D3D11_TEXTURE2D_DESC& texture : gpu_.textures) {
    EXPECT_EQ(texture.Width, 640u);
    EXPECT_EQ(texture.Height, 360u);
    EXPECT_EQ(texture.Format, DXGI_FORMAT_NV12);
    EXPECT_EQ(texture.MipLevels, 1u);
    EXPECT_EQ(texture.ArraySize, 1u);
    EXPECT_EQ(texture.SampleDesc.Count, 1u);
  }
  EXPECT_EQ(gpu_.textures[0].Usage, D3D11_USAGE_DEFAULT);
  EXPECT_EQ(gpu_.textures[0].BindFlags, static_cast<UINT>(D3D11_BIND_RENDER_TARGET));
  EXPECT_EQ(gpu_.textures[0].CPUAccessFlags, 0u);
  EXPECT_EQ(gpu_.textures[1].Usage, D3D11_USAGE_STAGING);
  EXPECT_EQ(gpu_.textures[1].BindFlags, 0u);
  EXPECT_EQ(gpu_.textures[1].CPUAccessFlags, static_cast<UINT>(D3D11_CPU_ACCESS_READ));
  EXPECT_EQ(gpu_.device.references(), 2) << "one of the read-back's own";
  const EncoderSurface surface = read_back->render_surface();
  EXPECT_EQ(fake_com::Object::of(surface.texture).name(), "texture 1");
  EXPECT_EQ(surface.subresource, 0u);
}

TEST_F(D3d11EncoderDeviceTest, MapCopiesAndGivesThePixelsWithTheirPitch) {
  gpu_.mapped_pixels.assign(1024 * 540, 9);
  gpu_.mapped_pitch = 1024;
  const auto read_back = device_->make_read_back(640, 360, &error_);
  ASSERT_NE(read_back, nullptr);
  gpu_.stage.take_calls();
  const std::uint8_t* pixels = nullptr;
  int pitch = 0;
  ASSERT_TRUE(read_back->map(&pixels, &pitch, &error_));
  EXPECT_EQ(pixels, gpu_.mapped_pixels.data());
  EXPECT_EQ(pitch, 1024);
  read_back->unmap();
  EXPECT_THAT(gpu_.copies, ElementsAre(Pair("texture 2", "texture 1")));
  EXPECT_THAT(gpu_.stage.take_calls(),
              ElementsAre("ID3D11DeviceContext::CopyResource", "ID3D11DeviceContext::Map",
                          "ID3D11DeviceContext::Unmap"));
}

TEST_F(D3d11EncoderDeviceTest, MapThatFailsGivesItsCode) {
  const auto read_back = device_->make_read_back(640, 360, &error_);
  ASSERT_NE(read_back, nullptr);
  gpu_.stage.fail<&ID3D11DeviceContext::Map>(DXGI_ERROR_DEVICE_REMOVED);
  const std::uint8_t* pixels = nullptr;
  int pitch = 0;
  EXPECT_FALSE(read_back->map(&pixels, &pitch, &error_));
  EXPECT_EQ(error_, 0x887A0005u);
}

TEST_F(D3d11EncoderDeviceTest, EitherTextureThatFailsGivesItsCode) {
  gpu_.stage.fail<&ID3D11Device::CreateTexture2D>(E_INVALIDARG);
  EXPECT_EQ(device_->make_read_back(640, 360, &error_), nullptr);
  EXPECT_EQ(error_, 0x80070057u);

  gpu_.device.on<&ID3D11Device::CreateTexture2D>([this](const D3D11_TEXTURE2D_DESC* description,
                                                        const D3D11_SUBRESOURCE_DATA*,
                                                        ID3D11Texture2D** out) -> HRESULT {
    if (description->Usage == D3D11_USAGE_STAGING) return E_OUTOFMEMORY;
    return gpu_.make_texture("render", *description).give(out);
  });
  EXPECT_EQ(device_->make_read_back(640, 360, &error_), nullptr);
  EXPECT_EQ(error_, 0x8007000Eu);
}

}  // namespace
