// The two views that Windows has of its displays, ahead of being one list. Stateless, any thread.
#pragma once

#include <vector>

#include "capture/display.h"
#include "capture/windows/direct3d.h"

ComPtr<IDXGIFactory1> display_factory(const Direct3d& api);  // null where there is no DXGI

// DXGI's: the outputs of all adapters that show a part of the desktop, one on two adapters twice.
// Null: none.
std::vector<DisplayInfo> adapter_outputs(IDXGIFactory1* factory);

std::vector<DisplayInfo> desktop_monitors();  // GDI's
