// A source of sound that does what a test tells it, in virtual time. A wait advances the clock to
// what is due next, or by its whole length.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "connection/clock.h"
#include "streams/audio_source.h"
#include "tests/support/virtual_time.h"

namespace fake_audio {

// Something that the device delivers at a time of its own.
struct Delivery {
  std::uint64_t at_us = 0;
  std::vector<std::uint8_t> bytes = {};
  std::uint32_t frames = 0;
  bool silent = false;
  bool null = false;  // frames without data
  std::uint64_t device_us = 0;
  std::uint32_t error = 0;  // in place of all that
};

// What the source finds, and what was asked of it. Outlives it.
struct Device {
  std::string id = "speakers";  // of the default output
  MixFormat mix{.tag = 3, .rate = 48'000, .channels = 2, .bits = 32, .block_align = 8};
  std::uint32_t open_error = 0;
  std::uint32_t converted_error = 0;
  std::uint32_t as_mixed_error = 0;
  std::uint32_t start_error = 0;
  std::function<void()> during_open;
  std::deque<Delivery> deliveries;  // by time

  int opens = 0;
  int closes = 0;  // of an opened one
  std::vector<AudioSource::Form> prepared;
};

class Source final : public AudioSource {
 public:
  explicit Source(Device& device) : device_(device) {}

  const char* name() const override { return "FakeAudio"; }

  std::uint32_t open(const std::atomic<bool>&, std::string* id, MixFormat* mix) override {
    ++device_.opens;
    open_ = true;
    if (device_.during_open) device_.during_open();
    *id = device_.id;
    *mix = device_.mix;
    return device_.open_error;
  }
  std::uint32_t prepare(const std::atomic<bool>&, Form form) override {
    device_.prepared.push_back(form);
    return form == Form::Converted ? device_.converted_error : device_.as_mixed_error;
  }
  std::uint32_t start() override { return device_.start_error; }
  void wait(std::uint32_t wait_ms) override {
    const std::uint64_t now_us = lund_now_us();
    std::uint64_t until_us = now_us + wait_ms * std::uint64_t{1'000};
    if (!device_.deliveries.empty())
      until_us = std::clamp(device_.deliveries.front().at_us, now_us, until_us);
    virtual_time::advance_us(until_us - now_us);
  }
  std::uint32_t next_buffer(AudioBuffer* out) override {
    *out = {};
    if (device_.deliveries.empty() || device_.deliveries.front().at_us > lund_now_us()) return 0;
    const Delivery& next = device_.deliveries.front();
    if (next.error != 0) {
      const std::uint32_t error = next.error;
      device_.deliveries.pop_front();
      return error;
    }
    *out = {next.null ? nullptr : next.bytes.data(), next.frames, next.silent, next.device_us};
    return 0;
  }
  void release_buffer() override { device_.deliveries.pop_front(); }
  std::string default_device() override { return device_.id; }
  void close() override { device_.closes += std::exchange(open_, false); }

 private:
  Device& device_;
  bool open_ = false;
};

// Samples as a device's bytes.
template <typename Sample>
std::vector<std::uint8_t> as_bytes(const std::vector<Sample>& samples) {
  std::vector<std::uint8_t> bytes(samples.size() * sizeof(Sample));
  if (!bytes.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
}

// The same value in each of `frames` stereo float frames.
inline Delivery level(std::uint64_t at_us, std::uint32_t frames, float value = 0.25F) {
  return {.at_us = at_us,
          .bytes = as_bytes(std::vector<float>(std::size_t{frames} * 2, value)),
          .frames = frames};
}

}  // namespace fake_audio
