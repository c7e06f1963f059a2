#include "apps/client/view/view_inbox.h"

#include <gtest/gtest.h>

namespace {

struct Inbox {
  int woken = 0;
  std::size_t heard = 0;
  ViewInbox inbox{2, [this](const SoundBlock& block) { heard += block.frames; },
                  [this] { ++woken; }};
};

TEST(ViewInbox, WakesOnceHoweverMuchComesAndAgainAfterItWasAwake) {
  Inbox i;
  i.inbox.pointer(0, {1, 2, true, 3});
  i.inbox.pointer(1, {4, 5, true, 3});
  i.inbox.state(SessionState::Streaming, "");
  EXPECT_EQ(i.woken, 1);
  i.inbox.awake();
  i.inbox.pointer(0, {6, 7, true, 3});
  EXPECT_EQ(i.woken, 2);
}

TEST(ViewInbox, OfPositionsTheNewestCountsAndImagesAllArrive) {
  Inbox i;
  i.inbox.pointer(1, {1, 2, true, 3});
  i.inbox.pointer(1, {4, 5, false, 9});
  i.inbox.pointer_image(1, {3, {}});
  i.inbox.pointer_image(1, {9, {}});
  const ScreenNews news = i.inbox.take_screen(1);
  ASSERT_TRUE(news.pointer);
  EXPECT_EQ(news.pointer->x, 4);
  EXPECT_FALSE(news.pointer->visible);
  ASSERT_EQ(news.images.size(), 2U);
  EXPECT_EQ(news.images[1].id, 9U);
  EXPECT_FALSE(i.inbox.take_screen(1).pointer) << "taken once";
  EXPECT_FALSE(i.inbox.take_screen(0).pointer) << "each screen its own";
}

TEST(ViewInbox, StatesStandUntilTheyChange) {
  Inbox i;
  i.inbox.state(SessionState::BrokenOff, "the host has fallen silent");
  i.inbox.screen_state(1, ScreenState::Ended, "no such screen");
  for (int look = 0; look < 2; ++look) {
    EXPECT_EQ(i.inbox.take_session().state, SessionState::BrokenOff);
    EXPECT_EQ(i.inbox.take_session().text, "the host has fallen silent");
    EXPECT_EQ(i.inbox.take_screen(1).state, ScreenState::Ended);
    EXPECT_EQ(i.inbox.take_screen(0).state, ScreenState::Waiting);
  }
}

TEST(ViewInbox, NoticesAreTakenOnceAndThePathStays) {
  Inbox i;
  i.inbox.path("LAN 192.168.1.5:9876");
  i.inbox.notice("path: LAN 192.168.1.5:9876 (rtt 0.4 ms)");
  i.inbox.notice("back after 3.0 s");
  const SessionNews news = i.inbox.take_session();
  EXPECT_EQ(news.path, "LAN 192.168.1.5:9876");
  EXPECT_EQ(news.notices.size(), 2U);
  EXPECT_EQ(i.inbox.take_session().notices.size(), 0U);
  EXPECT_EQ(i.inbox.take_session().path, "LAN 192.168.1.5:9876");
}

TEST(ViewInbox, SoundGoesItsOwnWay) {
  Inbox i;
  i.inbox.sound({nullptr, 480, 0, false});
  EXPECT_EQ(i.heard, 480U);
  EXPECT_EQ(i.woken, 0) << "no window need hear of it";
}

}  // namespace
