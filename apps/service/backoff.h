// The pause before a worker that ended by itself is started again: doubles from end to end, and
// begins anew once a worker has run for a while.
#pragma once

#include <algorithm>
#include <cstdint>

struct BackoffTimes {
  std::uint32_t first_ms = 1'000;
  std::uint32_t longest_ms = 60'000;
  std::uint32_t fresh_after_ms = 60'000;  // of running
};

class Backoff {
 public:
  explicit Backoff(const BackoffTimes& times) : times_(times) {}

  std::uint32_t next_ms(std::uint64_t ran_ms) {
    if (ran_ms >= times_.fresh_after_ms) reset();
    const std::uint32_t pause_ms = next_ms_ == 0 ? times_.first_ms : next_ms_;
    next_ms_ = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(times_.longest_ms, std::uint64_t{pause_ms} * 2));
    return pause_ms;
  }
  void reset() { next_ms_ = 0; }

 private:
  BackoffTimes times_;
  std::uint32_t next_ms_ = 0;  // 0: the first
};
