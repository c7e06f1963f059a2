#include "control/wake_event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "connection/clock.h"

namespace {

// Long enough that only a wait that isn't woken reaches it.
constexpr std::uint32_t FOREVER_MS = 60'000;

TEST(WakeEvent, AnUnsignalledWaitLastsItsTimeOut) {
  WakeEvent event(WakeEvent::Reset::Manual);
  const std::uint64_t begin_us = lund_now_us();
  EXPECT_FALSE(event.wait(30));
  EXPECT_GE(lund_now_us() - begin_us, 30'000u);
}

TEST(WakeEvent, AWaitOfZeroOnlyAsks) {
  WakeEvent event(WakeEvent::Reset::Auto);
  EXPECT_FALSE(event.wait(0));
  event.set();
  EXPECT_TRUE(event.wait(0));
}

TEST(WakeEvent, ManualResetStaysSignalledUntilReset) {
  WakeEvent event(WakeEvent::Reset::Manual);
  event.set();
  EXPECT_TRUE(event.wait(0));
  EXPECT_TRUE(event.wait(0));
  event.reset();
  EXPECT_FALSE(event.wait(0));
}

TEST(WakeEvent, AutoResetIsClearedByTheWaitAndSetsDoNotAddUp) {
  WakeEvent event(WakeEvent::Reset::Auto);
  event.set();
  event.set();
  EXPECT_TRUE(event.wait(0));
  EXPECT_FALSE(event.wait(0));
}

TEST(WakeEvent, ASetFromAnotherThreadEndsALongWait) {
  WakeEvent event(WakeEvent::Reset::Manual);
  std::thread setter([&] { event.set(); });
  EXPECT_TRUE(event.wait(FOREVER_MS));
  setter.join();
}

TEST(WakeEvent, OneSetOfAnAutoResetEventWakesExactlyOneOfManyWaiters) {
  WakeEvent event(WakeEvent::Reset::Auto);
  WakeEvent woken(WakeEvent::Reset::Auto);
  std::atomic<int> count{0};
  std::vector<std::thread> waiters;
  waiters.reserve(4);
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      ASSERT_TRUE(event.wait(FOREVER_MS));
      ++count;
      woken.set();
    });
  }
  for (int i = 1; i <= 4; ++i) {
    event.set();
    ASSERT_TRUE(woken.wait(FOREVER_MS));
    EXPECT_EQ(count, i);
  }
  for (std::thread& waiter : waiters) waiter.join();
}

TEST(WakeEvent, AManualResetEventWakesAllWaiters) {
  WakeEvent event(WakeEvent::Reset::Manual);
  std::vector<std::thread> waiters;
  waiters.reserve(4);
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] { EXPECT_TRUE(event.wait(FOREVER_MS)); });
  }
  event.set();
  for (std::thread& waiter : waiters) waiter.join();
}

}  // namespace
