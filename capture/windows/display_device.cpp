#include "capture/windows/display_device.h"

#include <d3d10.h>

#include <iterator>

#include "control/log.h"
#include "control/windows/wide_text.h"

namespace {

constexpr INT HIGHEST_GPU_PRIORITY = 7;
constexpr D3D_FEATURE_LEVEL FEATURE_LEVELS[] = {D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0};
// BGRA is what the desktop is composed in; the video processor makes the encoder's NV12 of it.
constexpr UINT DEVICE_FLAGS = D3D11_CREATE_DEVICE_BGRA_SUPPORT | D3D11_CREATE_DEVICE_VIDEO_SUPPORT;

bool shows(IDXGIAdapter1* adapter, const DisplayInfo& display) {
  DXGI_ADAPTER_DESC description;
  return SUCCEEDED(adapter->GetDesc(&description)) &&
         description.AdapterLuid.LowPart == display.adapter_luid_low &&
         description.AdapterLuid.HighPart == display.adapter_luid_high;
}

ComPtr<IDXGIAdapter1> adapter_of(IDXGIFactory1* factory, const DisplayInfo& display) {
  ComPtr<IDXGIAdapter1> adapter;
  for (UINT i = 0; SUCCEEDED(factory->EnumAdapters1(i, adapter.ReleaseAndGetAddressOf())); ++i) {
    if (shows(adapter.Get(), display)) return adapter;
  }
  return nullptr;
}

ComPtr<IDXGIOutput1> output_of(IDXGIAdapter1* adapter, const DisplayInfo& display) {
  const std::wstring device = to_wide(display.device);
  ComPtr<IDXGIOutput> output;
  for (UINT i = 0; SUCCEEDED(adapter->EnumOutputs(i, output.ReleaseAndGetAddressOf())); ++i) {
    DXGI_OUTPUT_DESC description;
    if (FAILED(output->GetDesc(&description)) || device != description.DeviceName) continue;
    ComPtr<IDXGIOutput1> found;
    output.As(&found);
    return found;
  }
  return nullptr;
}

// The encoder's driver has threads of its own that reach for the context.
void protect_from_driver_threads(const DisplayDevice& opened) {
  ComPtr<ID3D10Multithread> multithread;
  if (SUCCEEDED(opened.context.As(&multithread)) || SUCCEEDED(opened.device.As(&multithread)))
    multithread->SetMultithreadProtected(TRUE);
}

// A game that keeps the GPU busy must not starve the stream of it.
void raise_gpu_priority(const DisplayDevice& opened) {
  ComPtr<IDXGIDevice> device;
  if (SUCCEEDED(opened.device.As(&device))) device->SetGPUThreadPriority(HIGHEST_GPU_PRIORITY);
}

}  // namespace

bool open_display_device(const Direct3d& api, const DisplayInfo& display, DisplayDevice* out) {
  ComPtr<IDXGIFactory1> factory;
  if (FAILED(api.create_factory(IID_PPV_ARGS(&factory)))) return false;
  const ComPtr<IDXGIAdapter1> adapter = adapter_of(factory.Get(), display);
  DisplayDevice opened;
  if (adapter) opened.output = output_of(adapter.Get(), display);
  if (!opened.output) {
    hlog("video: no DXGI output for the display");
    return false;
  }
  const HRESULT result =
      api.create_device(adapter.Get(), D3D_DRIVER_TYPE_UNKNOWN, nullptr, DEVICE_FLAGS,
                        FEATURE_LEVELS, static_cast<UINT>(std::size(FEATURE_LEVELS)),
                        D3D11_SDK_VERSION, &opened.device, nullptr, &opened.context);
  if (FAILED(result)) {
    log_video_failure("D3D11CreateDevice", result);
    return false;
  }
  protect_from_driver_threads(opened);
  raise_gpu_priority(opened);
  *out = std::move(opened);
  return true;
}
