#include "capture/linux/x11_source.h"

CapturePlatform native_capture_platform() {
  CapturePlatform platform;
  platform.make_desktop = make_x11_desktop;
  platform.make_memory_source = make_x11_source;
  platform.make_encoder = [] { return std::make_unique<VideoEncoder>(); };
  platform.find_display = [](const std::string& device, DisplayInfo* out) {
    return find_display(device, out);
  };
  return platform;
}
