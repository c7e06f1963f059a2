// The two clocks and the system's random source. Link-time seam: one file a platform defines them,
// and tests of timed logic link tests/support/virtual_time.cpp instead. Re-entrant.
#pragma once

#include <cstdint>

// Monotonic time in microseconds from an arbitrary start; all timers use it.
std::uint64_t lund_now_us();

// The same clock in nanoseconds, to measure spans too short for microseconds.
std::uint64_t lund_now_ns();

// Wall clock: microseconds of UTC since 1970.
std::uint64_t lund_wall_us();
