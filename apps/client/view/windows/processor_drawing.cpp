#include "apps/client/view/processor_drawing.h"

#include <SDL_system.h>

#include "control/windows/com.h"
// After what com.h includes.
#include <d3d9.h>

namespace {
constexpr DWORD MICROSOFT = 0x1414;  // as a maker of PCI devices: its adapters are programs
}

bool draws_by_processor(SDL_Renderer* renderer) {
  ComPtr<IDirect3DDevice9> device;
  *device.GetAddressOf() = SDL_RenderGetD3D9Device(renderer);  // with a reference
  if (!device) return false;
  ComPtr<IDirect3D9> system;
  D3DDEVICE_CREATION_PARAMETERS made{};
  D3DADAPTER_IDENTIFIER9 adapter{};
  if (FAILED(device->GetDirect3D(&system)) || FAILED(device->GetCreationParameters(&made)) ||
      FAILED(system->GetAdapterIdentifier(made.AdapterOrdinal, 0, &adapter)))
    return false;
  return adapter.VendorId == MICROSOFT;
}
