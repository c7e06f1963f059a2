#include "connection/windows/performance_counter.h"

#include <gtest/gtest.h>

#include "control/windows/handles.h"

namespace {

TEST(PerformanceCounter, OfYearsIsStillExact) {
  LARGE_INTEGER frequency;
  ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
  const auto ticks_per_second = static_cast<std::uint64_t>(frequency.QuadPart);
  constexpr std::uint64_t TEN_YEARS_S = 315'360'000;
  const std::uint64_t ticks = TEN_YEARS_S * ticks_per_second;
  EXPECT_EQ(performance_counter_time(ticks, 1'000'000), TEN_YEARS_S * 1'000'000);
  EXPECT_EQ(performance_counter_time(ticks, 1'000'000'000), TEN_YEARS_S * 1'000'000'000);
}

TEST(PerformanceCounter, PartsOfAUnitAreLeftOut) {
  LARGE_INTEGER frequency;
  ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
  const auto ticks_per_second = static_cast<std::uint64_t>(frequency.QuadPart);
  EXPECT_EQ(performance_counter_time(ticks_per_second - 1, 1), 0u);
  EXPECT_EQ(performance_counter_time(ticks_per_second, 1), 1u);
}

}  // namespace
