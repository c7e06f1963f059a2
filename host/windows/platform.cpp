#include "host/platform.h"

#include "capture/source.h"
#include "capture/windows/display_bounds.h"
#include "streams/audio_source.h"
#include "streams/host_clipboard_sync.h"
#include "streams/windows/send_input_sink.h"

Platform native_platform() {
  Platform platform;
  platform.list_displays = list_displays;
  platform.display_obstacle = display_obstacle;
  platform.display_bounds = display_bounds;
  platform.make_capture = [] {
    return std::make_unique<CapturePipeline>(native_capture_platform());
  };
  platform.make_virtual_displays = make_virtual_displays;
  platform.make_audio = [] { return std::make_unique<OpusAudioCapture>(make_native_audio_source); };
  platform.make_clipboard = [] { return std::make_unique<HostClipboardSync>(); };
  platform.make_input = make_send_input_sink;
  platform.make_sound_endpoints = make_sound_endpoints;
  return platform;
}
