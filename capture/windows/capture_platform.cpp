#include "capture/source.h"
#include "capture/windows/display_watch.h"
#include "capture/windows/duplication_source.h"
#include "capture/windows/gdi_source.h"
#include "capture/windows/session_desktop.h"

CapturePlatform native_capture_platform() {
  CapturePlatform platform;
  platform.make_desktop = make_session_desktop;
  platform.make_gpu_source = [] { return make_duplication_source(); };
  platform.make_memory_source = make_gdi_source;
  platform.make_encoder = [] { return std::make_unique<VideoEncoder>(); };
  platform.find_display = [watch = std::make_shared<DisplayWatch>()](const std::string& device,
                                                                     DisplayInfo* out) {
    return watch->find(device, out);
  };
  return platform;
}
