#include "connection/clock.h"

#include <ctime>

namespace {
std::uint64_t read_ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}
}  // namespace

std::uint64_t lund_now_us() {
  return read_ns(CLOCK_MONOTONIC) / 1'000;
}
std::uint64_t lund_now_ns() {
  return read_ns(CLOCK_MONOTONIC);
}
std::uint64_t lund_wall_us() {
  return read_ns(CLOCK_REALTIME) / 1'000;
}
