#include "apps/client/clock_offset.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t NOW = 5'000'000;

TEST(ClockOffset, IsUnknownBeforeTheFirstAnswerOfAnotherComputer) {
  EXPECT_EQ(ClockOffset().us(), std::nullopt);
  EXPECT_EQ(ClockOffset(true).us(), 0);
}

TEST(ClockOffset, IsTakenFromTheMiddleOfTheQuickestAnswersWay) {
  ClockOffset clock;
  clock.measured(NOW, NOW + 70'000, 40'000);
  EXPECT_EQ(clock.us(), 50'000);
  clock.measured(NOW, NOW + 51'000, 4'000);
  EXPECT_EQ(clock.us(), 49'000);
  clock.measured(NOW, NOW + 90'000, 4'000);
  EXPECT_EQ(clock.us(), 49'000);
  clock.measured(NOW, 1'000, 0);
  EXPECT_EQ(clock.us(), 1'000 - static_cast<std::int64_t>(NOW));
}

TEST(ClockOffset, OfOneComputerIsNothingAsFarAsTheAnswersAllow) {
  ClockOffset clock(true);
  clock.measured(NOW, NOW, 8'000);  // answered at once, long on its way back
  EXPECT_EQ(clock.us(), 0);
  clock.measured(NOW, NOW + 7'000, 7'000);
  EXPECT_EQ(clock.us(), 0);
}

TEST(ClockOffset, OfOneComputerIsMeasuredWhereTheHostHasAClockOfItsOwn) {
  ClockOffset clock(true);
  clock.measured(NOW, NOW - 260'000, 8'000);
  EXPECT_EQ(clock.us(), -264'000);
  clock.measured(NOW, NOW - 262'000, 2'000);
  EXPECT_EQ(clock.us(), -263'000);
}

}  // namespace
