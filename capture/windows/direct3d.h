// Where capturing on the GPU gets its root objects from. All other objects come from these, so that
// a test that stands in for both functions stands in for the whole of DXGI and Direct3D.
#pragma once

#include <functional>

#include "control/windows/com.h"
// After what com.h includes.
#include <d3d11_1.h>
#include <dxgi1_5.h>

struct Direct3d {
  std::function<HRESULT(REFIID, void**)> create_factory;  // CreateDXGIFactory1
  std::function<HRESULT(IDXGIAdapter*, D3D_DRIVER_TYPE, HMODULE, UINT flags,
                        const D3D_FEATURE_LEVEL*, UINT levels, UINT sdk_version, ID3D11Device**,
                        D3D_FEATURE_LEVEL*, ID3D11DeviceContext**)>
      create_device;  // D3D11CreateDevice
};

const Direct3d& system_direct3d();

// Says an operation's failure as all of the capture does: "video: %s failed (0x%08lx)".
void log_video_failure(const char* operation, HRESULT result);
