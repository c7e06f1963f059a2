// The computer's sound as Opus packets of 10 ms. `packet` is called on the audio thread.
#pragma once

#include <cstdint>
#include <functional>

class AudioCapture {
 public:
  virtual ~AudioCapture() = default;
  std::function<void(const std::uint8_t* data, std::uint64_t size, std::uint64_t timestamp_us)>
      packet;
  virtual void start() = 0;
  virtual void stop() = 0;  // joins; idempotent
};
