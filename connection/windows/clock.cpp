#include "connection/clock.h"

#include "connection/windows/file_time.h"

namespace {

constexpr std::uint64_t US_PER_SECOND = 1'000'000;
constexpr std::uint64_t NS_PER_SECOND = 1'000'000'000;

std::uint64_t counter_frequency() {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return static_cast<std::uint64_t>(frequency.QuadPart);
}

// Whole seconds and the rest apart: the counter times a million overflows 64 bits after days.
std::uint64_t counter_time(std::uint64_t units_per_second) {
  static const std::uint64_t frequency = counter_frequency();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  const auto ticks = static_cast<std::uint64_t>(now.QuadPart);
  return ticks / frequency * units_per_second + ticks % frequency * units_per_second / frequency;
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
