#include "connection/clock.h"

#include "connection/windows/file_time.h"
#include "connection/windows/performance_counter.h"

namespace {

constexpr std::uint64_t US_PER_SECOND = 1'000'000;
constexpr std::uint64_t NS_PER_SECOND = 1'000'000'000;

std::uint64_t counter_time(std::uint64_t units_per_second) {
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return performance_counter_time(static_cast<std::uint64_t>(now.QuadPart), units_per_second);
}

}  // namespace

std::uint64_t lund_now_us() {
  return counter_time(US_PER_SECOND);
}

std::uint64_t lund_now_ns() {
  return counter_time(NS_PER_SECOND);
}

std::uint64_t lund_wall_us() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return ticks_of(now) / FILETIME_TICKS_PER_US - FILETIME_TO_UNIX_US;
}
