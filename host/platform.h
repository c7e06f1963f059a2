// What a host takes from its platform, as one record: the native one by default, fakes in tests. A
// maker that is empty or gives null means that this computer has no such facility; the host then
// goes without it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture/display.h"
#include "capture/vdd.h"
#include "capture/video.h"
#include "streams/audio.h"
#include "streams/host_clipboard.h"
#include "streams/input_sink.h"
#include "streams/sound_endpoints.h"

struct Platform {
  std::function<std::vector<DisplayInfo>()> list_displays;
  // Why there may be none, in words for a person; an empty text where nothing stands in the way.
  std::function<std::string()> display_obstacle;
  // Where a display lies now; asked twice a second. False when it can't be told.
  std::function<bool(const std::string& device, DesktopRect* bounds)> display_bounds;
  std::function<std::unique_ptr<VideoCapture>()> make_capture;
  std::function<std::unique_ptr<VirtualDisplays>()> make_virtual_displays;
  std::function<std::unique_ptr<InputSink>()> make_input;
  std::function<std::unique_ptr<AudioCapture>()> make_audio;
  std::function<std::unique_ptr<HostClipboard>()> make_clipboard;
  // For whoever runs the host: the host itself doesn't touch the speakers.
  std::function<std::unique_ptr<SoundEndpoints>()> make_sound_endpoints;
};

Platform native_platform();
