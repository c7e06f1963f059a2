// What is left until a time of lund_now_us, as ppoll takes it; zero once it has passed.
#pragma once

#include <cstdint>
#include <ctime>

#include "connection/clock.h"

inline constexpr std::uint64_t NO_DEADLINE = UINT64_MAX;

inline timespec time_left(std::uint64_t deadline_us) {
  const std::uint64_t now_us = lund_now_us();
  const std::uint64_t us = deadline_us > now_us ? deadline_us - now_us : 0;
  timespec left{};
  left.tv_sec = static_cast<time_t>(us / 1'000'000);
  left.tv_nsec = static_cast<long>(us % 1'000'000 * 1'000);
  return left;
}
