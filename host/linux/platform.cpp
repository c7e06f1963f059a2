#include "host/platform.h"

#include "capture/source.h"

Platform native_platform() {
  Platform platform;
  platform.list_displays = list_displays;
  platform.display_obstacle = display_obstacle;
  platform.display_bounds = [](const std::string& device, DesktopRect* bounds) {
    DisplayInfo display;
    if (!find_display(device, &display)) return false;
    *bounds = {display.left, display.top, display.right, display.bottom};
    return true;
  };
  platform.make_capture = [] {
    return std::make_unique<CapturePipeline>(native_capture_platform());
  };
  platform.make_virtual_displays = make_virtual_displays;
  platform.make_sound_endpoints = make_sound_endpoints;
  return platform;
}
