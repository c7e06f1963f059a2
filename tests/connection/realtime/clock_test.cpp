#include "connection/clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {
template <class Clock>
std::uint64_t now_us() {
  using std::chrono::duration_cast, std::chrono::microseconds;
  return static_cast<std::uint64_t>(
      duration_cast<microseconds>(Clock::now().time_since_epoch()).count());
}
}  // namespace

TEST(Clock, MonotonicTimeNeverGoesBack) {
  std::uint64_t last = lund_now_us();
  for (int i = 0; i < 100'000; ++i) {
    const std::uint64_t now = lund_now_us();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Clock, MonotonicTimeAdvancesInMicroseconds) {
  const std::uint64_t before = lund_now_us();
  const std::uint64_t start = now_us<std::chrono::steady_clock>();
  while (now_us<std::chrono::steady_clock>() - start < 20'000) {
  }
  const std::uint64_t inner = now_us<std::chrono::steady_clock>() - start;
  const std::uint64_t outer = lund_now_us() - before;
  EXPECT_GE(outer + 1, inner);
  // What lies between the two readings of either clock is a scheduling delay at most.
  EXPECT_LT(outer, inner + 10'000'000);
}

TEST(Clock, WallTimeIsUtcSince1970InMicroseconds) {
  const std::uint64_t before = now_us<std::chrono::system_clock>();
  const std::uint64_t wall = lund_wall_us();
  const std::uint64_t after = now_us<std::chrono::system_clock>();
  // Windows hands out its wall clock in steps of up to 16 ms.
  EXPECT_GE(wall + 16'000, before);
  EXPECT_LE(wall, after);
}
