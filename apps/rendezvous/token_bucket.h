// A rate limit with a burst, for any unit: requests, bytes, notifications.
#pragma once

#include <algorithm>
#include <cstdint>

struct Rate {
  std::uint64_t per_second;
  std::uint64_t burst;
};

// A new one is full.
class TokenBucket {
 public:
  bool take(const Rate& rate, std::uint64_t now_us, std::uint64_t cost = 1) {
    const std::uint64_t full = rate.burst * UNIT;
    const std::uint64_t passed_us = std::min(now_us - filled_at_us_, REFILL_MAX_US);
    level_ = filled_at_us_ == 0 ? full : std::min(full, level_ + passed_us * rate.per_second);
    filled_at_us_ = now_us;
    if (level_ < cost * UNIT) return false;
    level_ -= cost * UNIT;
    return true;
  }

 private:
  // In millionths, so that each microsecond adds the rate itself and nothing is lost to rounding.
  static constexpr std::uint64_t UNIT = 1'000'000;
  static constexpr std::uint64_t REFILL_MAX_US = 100'000'000;  // no overflow below 10^11 a second

  std::uint64_t level_ = 0;
  std::uint64_t filled_at_us_ = 0;  // 0: never used
};
