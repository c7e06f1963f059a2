#include "capture/windows/d3d11_encoder_device.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/hwcontext_d3d11va.h>
}

namespace {

class TextureReadBack final : public SurfaceReadBack {
 public:
  explicit TextureReadBack(ID3D11Device* device) : device_(device) {}

  HRESULT create(DXGI_FORMAT format, UINT width, UINT height);
  EncoderSurface render_surface() override { return {render_.Get(), 0}; }
  bool map(const std::uint8_t** pixels, int* row_pitch, std::uint32_t* error) override;
  void unmap() override { context_->Unmap(staging_.Get(), 0); }

 private:
  ComPtr<ID3D11Device> device_;
  ComPtr<ID3D11DeviceContext> context_;
  ComPtr<ID3D11Texture2D> render_;
  ComPtr<ID3D11Texture2D> staging_;
};

HRESULT TextureReadBack::create(DXGI_FORMAT format, UINT width, UINT height) {
  D3D11_TEXTURE2D_DESC description{};
  description.Width = width;
  description.Height = height;
  description.MipLevels = 1;
  description.ArraySize = 1;
  description.Format = format;
  description.SampleDesc.Count = 1;
  description.Usage = D3D11_USAGE_DEFAULT;
  description.BindFlags = D3D11_BIND_RENDER_TARGET;
  HRESULT result = device_->CreateTexture2D(&description, nullptr, &render_);
  if (FAILED(result)) return result;
  description.Usage = D3D11_USAGE_STAGING;
  description.BindFlags = 0;
  description.CPUAccessFlags = D3D11_CPU_ACCESS_READ;
  result = device_->CreateTexture2D(&description, nullptr, &staging_);
  if (SUCCEEDED(result)) device_->GetImmediateContext(&context_);
  return result;
}

bool TextureReadBack::map(const std::uint8_t** pixels, int* row_pitch, std::uint32_t* error) {
  context_->CopyResource(staging_.Get(), render_.Get());
  D3D11_MAPPED_SUBRESOURCE mapped{};
  const HRESULT result = context_->Map(staging_.Get(), 0, D3D11_MAP_READ, 0, &mapped);
  if (FAILED(result)) {
    *error = static_cast<std::uint32_t>(result);
    return false;
  }
  *pixels = static_cast<const std::uint8_t*>(mapped.pData);
  *row_pitch = static_cast<int>(mapped.RowPitch);
  return true;
}

}  // namespace

std::unique_ptr<SurfaceReadBack> make_texture_read_back(ID3D11Device* device, DXGI_FORMAT format,
                                                        int width, int height,
                                                        std::uint32_t* error) {
  auto read_back = std::make_unique<TextureReadBack>(device);
  const HRESULT result =
      read_back->create(format, static_cast<UINT>(width), static_cast<UINT>(height));
  if (SUCCEEDED(result)) return read_back;
  *error = static_cast<std::uint32_t>(result);
  return nullptr;
}

// FFmpeg gives the reference back with its context.
void D3d11EncoderDevice::fill(AVHWDeviceContext* context) {
  auto* d3d11 = static_cast<AVD3D11VADeviceContext*>(context->hwctx);
  device_.CopyTo(&d3d11->device);
}

// The video processor draws into the surfaces.
void D3d11EncoderDevice::fill(AVHWFramesContext* context) {
  auto* d3d11 = static_cast<AVD3D11VAFramesContext*>(context->hwctx);
  d3d11->BindFlags = D3D11_BIND_RENDER_TARGET;
}

std::unique_ptr<SurfaceReadBack> D3d11EncoderDevice::make_read_back(int width, int height,
                                                                    std::uint32_t* error) {
  return make_texture_read_back(device_.Get(), DXGI_FORMAT_NV12, width, height, error);
}
