// The virtual clock's own WakeEvent, on which tests of timed logic rest.
#include <gtest/gtest.h>

#include "connection/clock.h"
#include "control/wake_event.h"
#include "tests/support/virtual_time.h"

namespace {

TEST(VirtualWakeEvent, AnUnsignalledWaitAdvancesTheClockByItsTimeOut) {
  virtual_time::reset();
  WakeEvent event(WakeEvent::Reset::Auto);
  EXPECT_FALSE(event.wait(250));
  EXPECT_EQ(lund_now_us(), virtual_time::START_US + 250'000);
}

TEST(VirtualWakeEvent, ASignalledWaitTakesNoTimeAndOnlyAutoResetClearsIt) {
  virtual_time::reset();
  WakeEvent automatic(WakeEvent::Reset::Auto);
  WakeEvent manual(WakeEvent::Reset::Manual);
  automatic.set();
  manual.set();
  EXPECT_TRUE(automatic.wait(100));
  EXPECT_TRUE(manual.wait(100));
  EXPECT_TRUE(manual.wait(100));
  EXPECT_EQ(lund_now_us(), virtual_time::START_US);
  EXPECT_FALSE(automatic.wait(1));
  manual.reset();
  EXPECT_FALSE(manual.wait(1));
}

}  // namespace
