// The screen saver of a real X server, held off and let go.
#include "worker/linux/display_awake.h"

#include <gtest/gtest.h>

#include "tests/support/linux/environment.h"
#include "tests/support/linux/screen_saver.h"
#include "tests/support/xvfb.h"

TEST(DisplayAwake, TheScreenSaverStaysAwayUntilItIsLetGo) {
  const Xvfb server(320, 240);
  ASSERT_TRUE(server.running());
  DisplayAwake awake;
  EXPECT_TRUE(awake.set(true));
  ScreenSaver saver;
  EXPECT_TRUE(saver.is_held_off());
  EXPECT_TRUE(awake.set(false));
  EXPECT_TRUE(saver.comes());
}

TEST(DisplayAwake, ItEndsWithItsOwner) {
  const Xvfb server(320, 240);
  ASSERT_TRUE(server.running());
  ScreenSaver saver;
  {
    DisplayAwake awake;
    EXPECT_TRUE(awake.set(true));
  }
  EXPECT_TRUE(saver.comes());
}

TEST(DisplayAwake, WithoutAnXServerItCannotBeHadAndLettingGoStillSucceeds) {
  const Variable display("DISPLAY", ":64999");
  DisplayAwake awake;
  EXPECT_FALSE(awake.set(true));
  EXPECT_TRUE(awake.set(false));
}

TEST(DisplayAwake, AServerThatEndsMeanwhileDoesNotEndItsClient) {
  Xvfb server(320, 240);
  ASSERT_TRUE(server.running());
  DisplayAwake awake;
  EXPECT_TRUE(awake.set(true));
  server.kill();
  EXPECT_TRUE(awake.set(false));
  EXPECT_FALSE(awake.set(true));
}
