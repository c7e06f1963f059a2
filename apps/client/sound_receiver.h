// The host's sound: puts its packets in order, decodes them, and bridges what is missing. A packet
// that was overtaken is waited for until the second one behind it has come; then it is made up for,
// up to CONCEAL_MAX in a row, and a longer hole is left for the listener to fill. One thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "apps/client/opus_decoder.h"

inline constexpr int SOUND_RATE = 48'000;
inline constexpr int SOUND_CHANNELS = 2;

// A stretch of sound; the samples are valid during the call that hands them over.
struct SoundBlock {
  const float* samples = nullptr;  // interleaved, -1 to 1
  std::size_t frames = 0;          // of SOUND_CHANNELS samples each; 480 in 10 ms
  std::uint64_t capture_us = 0;    // when the first was played at the host, in this computer's time
  bool concealed = false;          // made up for a lost packet
};

class SoundReceiver {
 public:
  using Sink = std::function<void(const SoundBlock& block)>;
  explicit SoundReceiver(Sink sink) : sink_(std::move(sink)) {}

  // A new session, whose packets are numbered from 1 on; they may begin anywhere.
  void begin();
  // AUDIO. `clock_offset_us`: the host's clock less this computer's.
  void take(const std::uint8_t* packet, std::size_t size, std::int64_t clock_offset_us);

  struct Counts {
    std::uint64_t packets = 0;      // played
    std::uint64_t lost = 0;         // never came, or too late
    std::uint64_t late = 0;         // of these, those that came
    std::uint64_t concealed = 0;    // of the lost
    std::uint64_t undecodable = 0;  // came and weren't Opus; counted among the played
  };
  const Counts& counts() const { return counts_; }

  static constexpr std::uint32_t CONCEAL_MAX = 5;  // 50 ms; what is made up fades out by then

 private:
  static constexpr std::uint32_t WINDOW = 2;  // packets ahead of the one awaited that give it up
  static constexpr std::size_t PACKET_MAX = 1500;
  struct Held {
    bool full = false;
    std::uint64_t capture_us = 0;
    std::size_t size = 0;
    std::array<std::uint8_t, PACKET_MAX> opus;
  };

  Held& held(std::uint32_t seq) { return held_[seq % WINDOW]; }
  void step_over();
  void play(const std::uint8_t* opus, std::size_t size, std::uint64_t capture_us);
  void conceal();

  const Sink sink_;
  OpusSoundDecoder decoder_;
  bool open_ = false;
  bool begun_ = false;
  std::uint32_t next_ = 0;             // the number awaited
  std::uint64_t next_capture_us_ = 0;  // its time, if it follows the last one
  std::uint32_t missing_ = 0;          // in a row
  std::array<Held, WINDOW> held_;
  Counts counts_;
};
