#include "host/platform.h"

#include <csignal>

#include "capture/source.h"
#include "streams/audio_source.h"
#include "streams/host_clipboard_sync.h"
#include "streams/linux/xtest_sink.h"

Platform native_platform() {
  // An X server that ends while it is written to must not end this process: xcb writes without
  // MSG_NOSIGNAL.
  std::signal(SIGPIPE, SIG_IGN);
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
  platform.make_audio = [] { return std::make_unique<OpusAudioCapture>(make_native_audio_source); };
  platform.make_clipboard = [] { return std::make_unique<HostClipboardSync>(); };
  platform.make_input = make_xtest_sink;
  platform.make_sound_endpoints = make_sound_endpoints;
  return platform;
}
