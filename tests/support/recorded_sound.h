// What a sound capture delivers, from its first packet on, for the test's thread to wait on and to
// listen to. One audio thread, one test's.
#pragma once

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "connection/clock.h"
#include "streams/audio.h"
#include "tests/support/opus_decoder.h"
#include "tests/support/spectrum.h"

struct SoundPacket {
  std::uint64_t at_us = 0;       // when it was delivered
  std::uint64_t capture_us = 0;  // its own stamp
  std::vector<std::uint8_t> bytes;
};

class RecordedSound {
 public:
  // Outlives the capture, or what it still records.
  void record(AudioCapture& capture) {
    capture.on_packet = [this](const std::uint8_t* data, std::uint64_t size,
                               std::uint64_t capture_us) {
      std::scoped_lock lock(mutex_);
      packets_.push_back({lund_now_us(), capture_us, {data, data + size}});
      more_.notify_all();
    };
  }

  std::vector<SoundPacket> packets(std::size_t from = 0) const {
    std::scoped_lock lock(mutex_);
    return {packets_.begin() + static_cast<std::ptrdiff_t>(from), packets_.end()};
  }
  std::size_t count() const {
    std::scoped_lock lock(mutex_);
    return packets_.size();
  }

  bool wait_for_count(std::size_t count,
                      std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return more_.wait_for(lock, deadline, [&] { return packets_.size() >= count; });
  }

  // Waits for a stretch of this many packets, from packet `from` on, that decodes to what is
  // wanted; gives its first packet, nothing at the deadline.
  std::optional<std::size_t> wait_for_stretch(
      std::size_t packets, const std::function<bool(const SoundDecoder&)>& wanted,
      std::size_t from = 0, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    const auto until = std::chrono::steady_clock::now() + deadline;
    SoundDecoder decoder;
    for (;; from += packets) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          until - std::chrono::steady_clock::now());
      if (!wait_for_count(from + packets, left)) return {};
      decoder.left.clear();
      decoder.right.clear();
      for (const SoundPacket& packet : slice(from, from + packets)) decoder.decode(packet.bytes);
      if (wanted(decoder)) return from;
    }
  }

  // That for a quarter of a second of a pure tone on both sides: where computers are busy, others
  // may have gaps.
  std::optional<std::size_t> wait_for_sine(int hz, double amplitude, std::size_t from = 0) {
    return wait_for_stretch(
        25,
        [=](const SoundDecoder& heard) {
          return is_sine(heard.left, hz, amplitude) && is_sine(heard.right, hz, amplitude);
        },
        from);
  }

  // The same for 100 ms in which a tone is to be heard.
  std::optional<std::size_t> wait_for_tone(
      double hz, std::size_t from = 0,
      std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    constexpr double AUDIBLE = 0.1;  // -20 dB
    return wait_for_stretch(
        10,
        [hz](const SoundDecoder& heard) {
          return tone_amplitude(heard.left, SoundDecoder::RATE, hz) > AUDIBLE;
        },
        from, deadline);
  }

 private:
  static bool is_sine(const std::vector<float>& samples, int hz, double amplitude) {
    return std::abs(tone_amplitude(samples, SoundDecoder::RATE, hz) - amplitude) < 0.02 &&
           loudest_hz(samples, SoundDecoder::RATE, 100, 1'000) == hz;
  }
  std::vector<SoundPacket> slice(std::size_t from, std::size_t end) const {
    std::scoped_lock lock(mutex_);
    return {packets_.begin() + static_cast<std::ptrdiff_t>(from),
            packets_.begin() + static_cast<std::ptrdiff_t>(end)};
  }

  mutable std::mutex mutex_;
  std::condition_variable more_;
  std::vector<SoundPacket> packets_;
};
