#include "connection/clock.h"

#include <windows.h>

#include "connection/windows/performance_counter.h"

namespace {

constexpr std::uint64_t US_PER_SECOND = 1'000'000;
constexpr std::uint64_t NS_PER_SECOND = 1'000'000'000;
constexpr std::uint64_t FILETIME_TICKS_PER_US = 10;
// From 1601, where FILETIME starts, to 1970.
constexpr std::uint64_t FILETIME_TO_UNIX_US = 11'644'473'600ull * US_PER_SECOND;

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
  const std::uint64_t ticks = std::uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime;
  return ticks / FILETIME_TICKS_PER_US - FILETIME_TO_UNIX_US;
}
