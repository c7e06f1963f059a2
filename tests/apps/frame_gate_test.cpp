#include "apps/client/frame_gate.h"

#include <gtest/gtest.h>

TEST(FrameGate, NothingPassesBeforeTheFirstKeyframe) {
  FrameGate gate;
  EXPECT_TRUE(gate.needs_keyframe());
  EXPECT_FALSE(gate.pass(false, 0));
  EXPECT_TRUE(gate.pass(true, 0));
  EXPECT_TRUE(gate.pass(false, 0));
  EXPECT_FALSE(gate.needs_keyframe());
}

TEST(FrameGate, FromALostFrameToTheNextKeyframeNothingPasses) {
  FrameGate gate;
  gate.pass(true, 0);
  EXPECT_FALSE(gate.pass(false, 1));
  EXPECT_TRUE(gate.needs_keyframe());
  EXPECT_FALSE(gate.pass(false, 0));
  EXPECT_TRUE(gate.pass(true, 0));
}

TEST(FrameGate, AKeyframeRightBehindAGapPasses) {
  FrameGate gate;
  gate.pass(true, 0);
  EXPECT_TRUE(gate.pass(true, 5));
}

TEST(FrameGate, DamageClosesItToo) {
  FrameGate gate;
  gate.pass(true, 0);
  gate.damaged();
  EXPECT_FALSE(gate.pass(false, 0));
}
