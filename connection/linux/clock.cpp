#include "connection/clock.h"

#include <ctime>

namespace {
std::uint64_t read_us(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000;
}
}  // namespace

std::uint64_t lund_now_us() {
  return read_us(CLOCK_MONOTONIC);
}
std::uint64_t lund_wall_us() {
  return read_us(CLOCK_REALTIME);
}
