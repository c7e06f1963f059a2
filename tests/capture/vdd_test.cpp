// A platform without a driver for virtual displays says so.
#include "capture/vdd.h"

#include <gtest/gtest.h>

#include "tests/support/captured_log.h"

namespace {

TEST(NoVirtualDisplays, ReportNotInstalled) {
  const auto displays = make_virtual_displays();
  EXPECT_EQ(displays->status_line(), "Virtual display: not checked yet");
  EXPECT_EQ(displays->probe(), "not installed");
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
  EXPECT_FALSE(displays->usable());
}

TEST(NoVirtualDisplays, SayWhenTheyAreSwitchedOff) {
  const auto displays = make_virtual_displays();
  displays->enabled = 0;
  displays->probe();
  EXPECT_EQ(displays->status_line(), "Virtual display: off (--virtual-display off)");
  EXPECT_FALSE(displays->usable());
}

TEST(NoVirtualDisplays, LeaseFailsWithAReason) {
  const CapturedLog log;
  const auto displays = make_virtual_displays();
  DisplayInfo out;
  std::string reason;
  EXPECT_FALSE(displays->acquire(1, 800, 600, 60, nullptr, &out, &reason));
  EXPECT_EQ(reason, "no virtual display driver installed");
  EXPECT_EQ(log.count("vdd: screen 1: no virtual display driver installed"), 1);
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
  displays->enabled = 0;
  EXPECT_FALSE(displays->acquire(1, 800, 600, 60, nullptr, &out, nullptr));
  EXPECT_EQ(log.count("virtual displays are off (--virtual-display off)"), 1);
  displays->release(1);
  displays->tick();
  displays->restore_now();
}

}  // namespace
