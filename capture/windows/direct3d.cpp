#include "capture/windows/direct3d.h"

#include "control/log.h"

const Direct3d& system_direct3d() {
  static const Direct3d api{CreateDXGIFactory1, D3D11CreateDevice};
  return api;
}

void log_video_failure(const char* operation, HRESULT result) {
  hlog("video: %s failed (0x%08lx)", operation, static_cast<unsigned long>(result));
}
