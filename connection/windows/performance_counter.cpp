#include "connection/windows/performance_counter.h"

#include <windows.h>

namespace {

std::uint64_t counter_frequency() {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return static_cast<std::uint64_t>(frequency.QuadPart);
}

}  // namespace

// Whole seconds and the rest apart: the counter times a million overflows 64 bits after days.
std::uint64_t performance_counter_time(std::uint64_t ticks, std::uint64_t units_per_second) {
  static const std::uint64_t frequency = counter_frequency();
  return ticks / frequency * units_per_second + ticks % frequency * units_per_second / frequency;
}
