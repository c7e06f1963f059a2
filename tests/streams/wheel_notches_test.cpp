#include "streams/wheel_notches.h"

#include <gtest/gtest.h>

namespace {

TEST(WheelNotches, ANotchIs120) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(120), 1);
  EXPECT_EQ(wheel.add(-240), -2);
  EXPECT_EQ(wheel.add(0), 0);
}

TEST(WheelNotches, PartsAddUp) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(50), 0);
  EXPECT_EQ(wheel.add(50), 0);
  EXPECT_EQ(wheel.add(50), 1);
  EXPECT_EQ(wheel.add(90), 1);
  EXPECT_EQ(wheel.add(119), 0);
}

TEST(WheelNotches, PartsAddUpBackwardsToo) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(-100), 0);
  EXPECT_EQ(wheel.add(-150), -2);
  EXPECT_EQ(wheel.add(-109), 0);
  EXPECT_EQ(wheel.add(-1), -1);
}

TEST(WheelNotches, TurningBackDropsThePart) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(100), 0);
  EXPECT_EQ(wheel.add(-120), -1);
  EXPECT_EQ(wheel.add(-60), 0);
  EXPECT_EQ(wheel.add(60), 0);
  EXPECT_EQ(wheel.add(60), 1);
}

TEST(WheelNotches, NothingIsNoTurningBack) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(-60), 0);
  EXPECT_EQ(wheel.add(0), 0);
  EXPECT_EQ(wheel.add(-60), -1);
}

TEST(WheelNotches, OneEventTurnsNoMoreThanAWindowsProgramIsTold) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(2'147'483'647), 32'767 / 120);
  EXPECT_EQ(wheel.add(-2'147'483'647 - 1), -32'768 / 120);
}

TEST(WheelNotches, CanForget) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(100), 0);
  wheel.forget();
  EXPECT_EQ(wheel.add(100), 0);
}

}  // namespace
