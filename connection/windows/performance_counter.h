// The counter behind lund_now_us, in which other parts of the system give times too.
#pragma once

#include <cstdint>

// `ticks` of the counter in units of 1 / units_per_second seconds.
std::uint64_t performance_counter_time(std::uint64_t ticks, std::uint64_t units_per_second);
