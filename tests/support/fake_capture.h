// A platform to capture on that does what a test tells it: displays, desktop, sources and encoder
// are fields of one record, in virtual time. What the loop did to them is counted there too.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture/source.h"
#include "connection/clock.h"
#include "tests/support/fake_pointer.h"
#include "tests/support/virtual_time.h"

namespace fake_capture {

inline const std::vector<std::uint8_t> KEYFRAME = {0, 0,    0,    1, 0x67, 0x42, 0,    0,   0,
                                                   1, 0x68, 0xCE, 0, 0,    1,    0x65, 0x88};
inline const std::vector<std::uint8_t> BARE_KEYFRAME = {0, 0, 0, 1, 0x65, 0x88};
inline const std::vector<std::uint8_t> DELTA = {0, 0, 0, 1, 0x41, 0x9A};

inline constexpr SourceTraits GPU_NOTIFYING{"DDA GPU", true, true};
inline constexpr SourceTraits MEMORY_NOTIFYING{"X11 CPU", true, false};
inline constexpr SourceTraits MEMORY_POLLED{"GDI CPU", false, false};

// Something that the source reports at a time of its own.
struct Event {
  std::uint64_t at_us = 0;
  AcquireResult result = AcquireResult::Picture;
  std::uint64_t present_us = 0;
  int width = 0;  // 0: the display's
};

struct Encoded {
  bool ok = true;
  std::vector<std::uint8_t> bytes;
  bool keyframe = false;
};

struct World {
  World() {
    virtual_time::reset();
    display.device = "SCREEN";
    display.right = display.width = 1280;
    display.bottom = display.height = 720;
    display.has_adapter = true;
  }

  DisplayInfo display;
  bool display_present = true;

  std::string input_desktop = "Default";
  bool desktop_reachable = true;
  bool can_enter = true;

  // Empty `gpu` or `memory` makers are set by the test's fixture.
  bool gpu_opens = true;
  bool memory_opens = true;
  bool converter_ready = true;
  bool draws = true;  // filling the encoder's frame works
  bool device_alive = true;
  bool subscribes = true;
  SubscribeFailure subscribe_failure{7, "Subscribe failed (7)", false};
  std::deque<Event> events;
  std::function<void()> on_acquire;
  FakePointer pointer;
  std::function<void()> on_subscribe;

  std::string gpu_encoder = "h264_nvenc";
  std::string cpu_encoder = "libopenh264";
  bool encoder_opens = true;
  bool rate_in_place = false;
  EncoderSurface surface;       // what begin_frame gives
  std::uint64_t encode_us = 0;  // how long an encode takes
  // What an encode gives; by default a keyframe where one is forced.
  std::function<Encoded(bool force)> encoded = [](bool force) {
    return Encoded{true, force ? KEYFRAME : DELTA, force};
  };

  // Seen.
  int gpu_made = 0;
  int memory_made = 0;
  int subscriptions = 0;
  int subscribe_tries = 0;
  int desktops_entered = 0;
  int forgotten_surfaces = 0;
  int live_sources = 0;
  std::vector<std::uint32_t> waits_ms;
  DesktopPoint followed_to;  // the display's corner, as its source was last told
  std::vector<EncoderSettings> encoder_opened;
  std::vector<bool> encoder_had_device;
  std::vector<bool> forced;  // one an encode
  std::vector<std::uint64_t> encode_times_us;
};

class FakeDevice final : public EncoderDevice {
 public:
  void fill(AVHWDeviceContext*) override {}
  void fill(AVHWFramesContext*) override {}
  std::unique_ptr<SurfaceReadBack> make_read_back(int, int, std::uint32_t*) override {
    return nullptr;
  }
};

class FakeSource final : public CaptureSource {
 public:
  FakeSource(World& world, const SourceTraits& traits) : world_(world), traits_(traits) {
    ++(traits.gpu ? world.gpu_made : world.memory_made);
    ++world.live_sources;
  }
  ~FakeSource() override { --world_.live_sources; }

  const SourceTraits& traits() const override { return traits_; }
  bool open(const CaptureTarget&) override {
    return traits_.gpu ? world_.gpu_opens : world_.memory_opens;
  }
  bool subscribe(DisplayInfo*, SubscribeFailure* failure) override {
    ++world_.subscribe_tries;
    if (world_.on_subscribe) world_.on_subscribe();
    if (!world_.subscribes) {
      *failure = world_.subscribe_failure;
      return false;
    }
    ++world_.subscriptions;
    return subscribed_ = true;
  }
  bool subscribed() const override { return subscribed_; }
  void unsubscribe() override { subscribed_ = false; }
  void follow(const DisplayInfo& display) override {
    world_.followed_to = {display.left, display.top};
  }

  AcquireResult acquire(std::uint32_t wait_ms, WakeEvent&, AcquiredPicture* out) override {
    if (world_.on_acquire) world_.on_acquire();
    world_.waits_ms.push_back(wait_ms);
    *out = {0, world_.display.width, world_.display.height};
    if (first_) {
      first_ = false;
      if (world_.events.empty() || world_.events.front().at_us != 0) return AcquireResult::Picture;
    }
    if (!traits_.notifying && world_.events.empty()) return AcquireResult::Picture;
    const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{wait_ms} * 1000;
    if (world_.events.empty() || world_.events.front().at_us > deadline_us) {
      virtual_time::advance_us(deadline_us - lund_now_us());
      return AcquireResult::TimeOut;
    }
    const Event event = world_.events.front();
    world_.events.pop_front();
    if (event.at_us > lund_now_us()) virtual_time::advance_us(event.at_us - lund_now_us());
    out->present_us = event.present_us;
    if (event.width) out->width = event.width;
    return event.result;
  }
  bool hold() override { return held_ = true; }
  bool has_picture() const override { return held_; }
  bool converter_ready() const override { return world_.converter_ready || !traits_.gpu; }
  PointerSource* pointer() override { return &world_.pointer; }
  bool alive() override { return world_.device_alive; }
  bool picture(MemoryPicture* out) override {
    static const std::uint8_t pixel[4] = {};
    *out = {pixel, sizeof pixel, 1, 1, 4};
    return world_.draws;
  }
  EncoderDevice* device() override { return traits_.gpu ? &device_ : nullptr; }
  bool draw(const EncoderSurface&) override { return world_.draws; }
  void forget_surfaces() override { ++world_.forgotten_surfaces; }

 private:
  World& world_;
  SourceTraits traits_;
  FakeDevice device_;
  bool subscribed_ = false;
  bool first_ = true;
  bool held_ = false;
};

class FakeEncoder final : public PictureEncoder {
 public:
  explicit FakeEncoder(World& world) : world_(world) {}

  bool open(EncoderDevice* device, const EncoderSettings& settings) override {
    close();
    settings_ = settings;
    world_.encoder_opened.push_back(settings);
    world_.encoder_had_device.push_back(device != nullptr);
    const std::string offered = device ? world_.gpu_encoder : world_.cpu_encoder;
    if (!world_.encoder_opens || offered.empty()) return false;
    if (!settings.required.empty() && settings.required != offered) return false;
    name_ = offered;
    return true;
  }
  void close() override { name_.clear(); }
  bool is_open() const override { return !name_.empty(); }
  bool begin_frame(EncoderSurface* surface) override {
    *surface = world_.surface;
    return is_open();
  }
  bool prepare_cpu_frame(const std::uint8_t*, std::uint64_t, int, int, int) override {
    return is_open();
  }
  bool end_frame(bool force, std::vector<std::uint8_t>* out, bool* is_keyframe) override {
    world_.forced.push_back(force);
    world_.encode_times_us.push_back(lund_now_us());
    virtual_time::advance_us(world_.encode_us);
    const Encoded encoded = world_.encoded(force);
    *out = encoded.bytes;
    *is_keyframe = encoded.keyframe;
    return encoded.ok;
  }
  bool set_bitrate(int kbps) override {
    settings_.bitrate_kbps = kbps;
    return world_.rate_in_place;
  }
  const EncoderSettings& settings() const override { return settings_; }
  const std::string& name() const override { return name_; }
  bool is_hevc() const override { return name_.find("hevc") != std::string::npos; }

 private:
  World& world_;
  EncoderSettings settings_;
  std::string name_;
};

class FakeDesktop final : public InputDesktop {
 public:
  explicit FakeDesktop(World& world) : world_(world) {}

  Look look() override {
    if (!world_.desktop_reachable) return Look::Unreachable;
    return name_ == world_.input_desktop ? Look::Same : Look::Other;
  }
  bool enter() override {
    if (!world_.can_enter) return false;
    ++world_.desktops_entered;
    name_ = world_.input_desktop;
    return true;
  }
  bool matches() override { return world_.desktop_reachable && name_ == world_.input_desktop; }
  std::string name() const override { return name_; }
  void leave() override { name_.clear(); }

 private:
  World& world_;
  std::string name_;
};

// `gpu` null: a platform without such a source.
inline CapturePlatform platform(World& world, const SourceTraits* gpu, const SourceTraits& memory) {
  CapturePlatform result;
  result.make_desktop = [&world] { return std::make_unique<FakeDesktop>(world); };
  if (gpu) {
    result.make_gpu_source = [&world, gpu] { return std::make_unique<FakeSource>(world, *gpu); };
  }
  result.make_memory_source = [&world, &memory] {
    return std::make_unique<FakeSource>(world, memory);
  };
  result.make_encoder = [&world] { return std::make_unique<FakeEncoder>(world); };
  result.find_display = [&world](const std::string& device, DisplayInfo* out) {
    if (!world.display_present || device != world.display.device) return false;
    *out = world.display;
    return true;
  };
  return result;
}

}  // namespace fake_capture
