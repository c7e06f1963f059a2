#include "tests/support/fake_platform.h"

#include "connection/clock.h"

namespace {

template <typename... Parts>
std::string words(const char* verb, const Parts&... parts) {
  std::string text = verb;
  ((text += ' ', text += std::to_string(parts)), ...);
  return text;
}

class Capture final : public VideoCapture {
 public:
  explicit Capture(std::shared_ptr<FakeCapture> record) : record_(std::move(record)) {
    record_->object = this;
  }
  ~Capture() override { record_->object = nullptr; }

  bool init(const VideoSettings& settings) override {
    record_->settings = settings;
    if (record_->during_init) record_->during_init();
    return record_->init_succeeds;
  }
  void start() override { ++record_->starts; }
  void stop() override {
    if (record_->starts <= record_->stops) return;
    ++record_->stops;
    if (record_->during_stop) record_->during_stop();
  }
  void request_keyframe() override { ++record_->keyframe_requests; }
  void set_bitrate(int kbps) override { record_->bitrates.push_back(kbps); }
  bool encoder_is_hevc() const override { return record_->hevc; }
  std::string encoder_name() const override { return record_->encoder; }
  std::string capture_backend() const override { return "X11 CPU"; }

 private:
  std::shared_ptr<FakeCapture> record_;
};

class Audio final : public AudioCapture {
 public:
  explicit Audio(std::shared_ptr<FakeAudio> record) : record_(std::move(record)) {
    record_->object = this;
  }
  ~Audio() override { record_->object = nullptr; }
  void start() override {
    record_->running = true;
    ++record_->starts;
  }
  void stop() override { record_->running = false; }

 private:
  std::shared_ptr<FakeAudio> record_;
};

class Clipboard final : public HostClipboard {
 public:
  explicit Clipboard(std::shared_ptr<FakeClipboard> record) : record_(std::move(record)) {}
  void session_start(std::uint32_t, int payload, Send send) override {
    if (record_->on_start) record_->on_start();
    record_->calls.push_back(words("start", payload));
    record_->send = std::move(send);
  }
  void session_end(std::uint32_t) override { record_->calls.push_back("end"); }
  void resize(std::uint32_t, int payload) override {
    record_->calls.push_back(words("resize", payload));
  }
  void receive(const std::uint8_t*, std::uint64_t size) override {
    record_->calls.push_back(words("receive", size));
  }
  void set_enabled(bool enabled) override { record_->enabled = enabled; }
  bool enabled() override { return record_->enabled; }

 private:
  std::shared_ptr<FakeClipboard> record_;
};

class Displays final : public VirtualDisplays {
 public:
  explicit Displays(std::shared_ptr<FakeVirtualDisplays> record) : record_(std::move(record)) {}
  VddState probe() override { return {}; }
  bool usable() override { return record_->usable; }
  bool acquire(int screen, int width, int height, int fps, const DesktopPoint* position,
               DisplayInfo* out, std::string* reason) override {
    std::string call = words("acquire", screen, width, height, fps);
    if (position) call += " at " + std::to_string(position->x) + "," + std::to_string(position->y);
    record_->calls.push_back(call);
    *out = record_->display;
    if (!record_->acquire_succeeds) *reason = record_->reason;
    record_->leases += record_->acquire_succeeds ? 1 : 0;
    return record_->acquire_succeeds;
  }
  void release(int screen) override {
    record_->calls.push_back(words("release", screen));
    --record_->leases;
  }
  void tick() override {}
  void restore_now() override { record_->calls.push_back("restore"); }
  std::string status_line() override { return "Virtual display: fake"; }

 private:
  std::shared_ptr<FakeVirtualDisplays> record_;
};

}  // namespace

void FakeCapture::frame(bool keyframe, std::uint64_t size, std::uint64_t capture_time_us) {
  static const std::vector<std::uint8_t> bytes(1 << 20, 0x5A);
  EncodedVideoFrame frame;
  frame.data = bytes.data();
  frame.size = size;
  frame.keyframe = keyframe;
  frame.capture_time_us = capture_time_us != 0 ? capture_time_us : lund_now_us();
  frame.encode_time_us = 3'000;
  frame.submit_to_packet_us = 2'000;
  object->frame_sink(frame);
}

FakePlatform::FakePlatform()
    : input(std::make_shared<InputRecord>()),
      clipboard(std::make_shared<FakeClipboard>()),
      virtual_displays(std::make_shared<FakeVirtualDisplays>()) {}

DisplayInfo& FakePlatform::add_display(const std::string& device, int left, int width, int height) {
  DisplayInfo display;
  display.index = static_cast<int>(displays.size());
  display.device = device;
  display.name = "Fake display";
  display.left = left;
  display.right = left + width;
  display.bottom = height;
  display.width = width;
  display.height = height;
  display.refresh_hz = 60;
  display.primary = displays.empty();
  displays.push_back(display);
  return displays.back();
}

Platform FakePlatform::record() {
  Platform platform;
  platform.list_displays = [this] {
    if (auto callback = on_list_displays) callback();
    return displays;
  };
  platform.display_obstacle = [this] { return obstacle; };
  platform.display_bounds = [this](const std::string& device, DesktopRect* bounds) {
    for (const DisplayInfo& display : displays) {
      if (display.device != device) continue;
      *bounds = {display.left, display.top, display.right, display.bottom};
      return true;
    }
    return false;
  };
  platform.make_capture = [this] {
    captures.push_back(std::make_shared<FakeCapture>());
    if (prepare_capture) prepare_capture(*captures.back());
    return std::make_unique<Capture>(captures.back());
  };
  platform.make_virtual_displays = make_virtual_displays;
  if (!make_virtual_displays)
    platform.make_virtual_displays = [this] {
      return std::make_unique<Displays>(virtual_displays);
    };
  if (has_clipboard)
    platform.make_clipboard = [this] { return std::make_unique<Clipboard>(clipboard); };
  if (has_input) platform.make_input = [this] { return std::make_unique<FakeInputSink>(input); };
  if (has_audio)
    platform.make_audio = [this] {
      audios.push_back(std::make_shared<FakeAudio>());
      return std::make_unique<Audio>(audios.back());
    };
  return platform;
}
