// What a host takes from its platform, as one record: the native one by default, fakes in tests. A
// maker that is empty or gives null means that this computer has no such facility; the host then
// goes without it.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "capture/display.h"
#include "capture/vdd.h"
#include "capture/video.h"
#include "streams/audio.h"
#include "streams/host_clipboard.h"
#include "streams/input.h"

struct Platform {
  std::function<std::vector<DisplayInfo>()> list_displays;
  std::function<std::unique_ptr<VideoCapture>()> make_capture;
  std::function<std::unique_ptr<VirtualDisplays>()> make_virtual_displays;
  std::function<std::unique_ptr<InputInjector>()> make_input;
  std::function<std::unique_ptr<AudioCapture>()> make_audio;
  std::function<std::unique_ptr<HostClipboard>()> make_clipboard;
};

Platform native_platform();
