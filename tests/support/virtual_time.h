// A clock that stands still until a test moves it. Linking the object library test_virtual_time
// puts it in place of the platform's clock. Atomic: threads of the code under test may read it.
#pragma once

#include <cstdint>

namespace virtual_time {

// 1,000 s after the clock's start, 2023-11-14 22:13:20 UTC: what each test begins with after
// reset().
inline constexpr std::uint64_t START_US = 1'000'000'000;
inline constexpr std::uint64_t START_WALL_US = 1'700'000'000'000'000;

void reset();
void advance_us(std::uint64_t us);
inline void advance_ms(std::uint64_t ms) {
  advance_us(ms * 1000);
}
void set_wall_us(std::uint64_t us);  // moves the wall clock alone

}  // namespace virtual_time
