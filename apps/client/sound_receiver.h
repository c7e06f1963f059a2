// The host's sound: puts its packets in order, decodes them, and bridges what is missing.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int SOUND_RATE = 48'000;
inline constexpr int SOUND_CHANNELS = 2;

// A stretch of sound; the samples are valid during the call that hands them over.
struct SoundBlock {
  const float* samples = nullptr;  // interleaved, -1 to 1
  std::size_t frames = 0;          // of SOUND_CHANNELS samples each; 480 in 10 ms
  std::uint64_t capture_us = 0;    // when the first was played at the host, in this computer's time
  bool concealed = false;          // made up for a lost packet
};
