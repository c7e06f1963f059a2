// The Direct3D device on the very adapter that shows a display: only there can the display be
// duplicated, and only an encoder of the same adapter takes its surfaces without a copy.
#pragma once

#include "capture/display.h"
#include "capture/windows/direct3d.h"

// In the order in which they depend on each other, so that they are given back from the last.
struct DisplayDevice {
  ComPtr<ID3D11Device> device;
  ComPtr<ID3D11DeviceContext> context;  // immediate
  ComPtr<IDXGIOutput1> output;
};

// False with a line in the log, but for a factory that fails. `out` is then as it was.
bool open_display_device(const Direct3d& api, const DisplayInfo& display, DisplayDevice* out);
