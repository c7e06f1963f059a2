// The screen saver of a real X server, held off and let go.
#include "worker/linux/display_awake.h"

#include <gtest/gtest.h>
#include <xcb/screensaver.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tests/support/xvfb.h"

namespace {

constexpr std::uint32_t TIMEOUT_S = 1;
constexpr std::uint32_t PAST_IT_MS = 1'500;  // the server's timer has run by then
constexpr auto PATIENCE = std::chrono::seconds(20);

struct Saver {
  bool on = false;
  std::uint32_t idle_ms = 0;  // since a key or the mouse was used
};

class Observer {
 public:
  Observer() { xcb_set_screen_saver(connection_, TIMEOUT_S, 0, 0, 0); }

  Saver look() {
    const auto info = x11::own(xcb_screensaver_query_info_reply(
        connection_, xcb_screensaver_query_info(connection_, connection_.screen()->root), nullptr));
    if (!info) return {};
    return {info->state == XCB_SCREENSAVER_STATE_ON, info->ms_since_user_input};
  }
  template <typename Condition>
  bool comes_true(Condition condition) {
    const auto until = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition(look())) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

 private:
  x11::Connection connection_;
};

}  // namespace

TEST(DisplayAwake, TheScreenSaverStaysAwayUntilItIsLetGo) {
  const Xvfb server(320, 240);
  ASSERT_TRUE(server.running());
  DisplayAwake awake;
  EXPECT_TRUE(awake.set(true));
  Observer observer;
  EXPECT_TRUE(observer.comes_true([](const Saver& saver) { return saver.idle_ms > PAST_IT_MS; }));
  EXPECT_FALSE(observer.look().on);
  EXPECT_TRUE(awake.set(false));
  EXPECT_TRUE(observer.comes_true([](const Saver& saver) { return saver.on; }));
}

TEST(DisplayAwake, ItEndsWithItsOwner) {
  const Xvfb server(320, 240);
  ASSERT_TRUE(server.running());
  Observer observer;
  {
    DisplayAwake awake;
    EXPECT_TRUE(awake.set(true));
  }
  EXPECT_TRUE(observer.comes_true([](const Saver& saver) { return saver.on; }));
}

TEST(DisplayAwake, WithoutAnXServerItCannotBeHadAndLettingGoStillSucceeds) {
  setenv("DISPLAY", ":64999", 1);
  DisplayAwake awake;
  EXPECT_FALSE(awake.set(true));
  EXPECT_TRUE(awake.set(false));
  unsetenv("DISPLAY");
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
