// What an encoder that takes Direct3D 11 surfaces is given: the capture's own device, so that
// pictures never leave the GPU, or a surface that is read back. Used on the capture thread alone.
#pragma once

#include "capture/encoder_surfaces.h"
#include "capture/windows/display_device.h"

class D3d11EncoderDevice final : public EncoderDevice {
 public:
  explicit D3d11EncoderDevice(ComPtr<ID3D11Device> device) : device_(std::move(device)) {}

  void fill(AVHWDeviceContext* context) override;
  void fill(AVHWFramesContext* context) override;
  std::unique_ptr<SurfaceReadBack> make_read_back(int width, int height,
                                                  std::uint32_t* error) override;

 private:
  ComPtr<ID3D11Device> device_;
};

// The texture that is drawn into and the staging texture that it is copied to and mapped from. The
// encoder's is of NV12.
std::unique_ptr<SurfaceReadBack> make_texture_read_back(ID3D11Device* device, DXGI_FORMAT format,
                                                        int width, int height,
                                                        std::uint32_t* error);
