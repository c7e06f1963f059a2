// A computer without hardware: displays that are a list, captures that send what a test gives them,
// and input, sound, clipboard and virtual displays that write down what they were asked. The
// records outlive the objects that a host makes. A capture may be used by one thread beside the
// test's.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/platform.h"
#include "tests/support/fake_input_sink.h"

struct FakeCapture {
  VideoSettings settings;
  VideoCapture* object = nullptr;  // null once the host has dropped it
  bool init_succeeds = true;
  bool hevc = false;
  std::string encoder = "libopenh264";
  std::function<void()> during_init;
  std::function<void()> during_stop;  // of a started one
  std::atomic<int> starts{0};
  std::atomic<int> stops{0};  // of a started one
  std::atomic<int> keyframe_requests{0};
  std::vector<int> bitrates;

  void frame(bool keyframe, std::uint64_t size = 1'000, std::uint64_t capture_time_us = 0);
};

struct FakeAudio {
  AudioCapture* object = nullptr;
  bool running = false;
  int starts = 0;
};

struct FakeClipboard {
  std::vector<std::string> calls;
  std::function<void()> on_start;  // before it is written down
  HostClipboard::Send send;
  bool enabled = true;
};

struct FakeVirtualDisplays {
  bool usable = false;
  bool acquire_succeeds = true;
  std::string reason;
  DisplayInfo display;
  std::vector<std::string> calls;
  int leases = 0;
};

class FakePlatform {
 public:
  FakePlatform();

  DisplayInfo& add_display(const std::string& device, int left, int width = 1920,
                           int height = 1080);
  Platform record();  // for one host

  std::vector<DisplayInfo> displays;
  std::string obstacle;
  std::function<void()> on_list_displays;
  std::function<void(FakeCapture&)> prepare_capture;  // sees each before the host has it
  std::vector<std::shared_ptr<FakeCapture>> captures;
  std::vector<std::shared_ptr<FakeAudio>> audios;
  std::shared_ptr<InputRecord> input;
  std::shared_ptr<FakeClipboard> clipboard;
  std::shared_ptr<FakeVirtualDisplays> virtual_displays;
  std::function<std::unique_ptr<VirtualDisplays>()>
      make_virtual_displays;  // instead of that record
  bool has_audio = true;
  bool has_input = true;
  bool has_clipboard = true;
};
