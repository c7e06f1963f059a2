// The displays of the desktop that the tests run on.
#include "capture/display.h"

#include <gtest/gtest.h>

#include "capture/windows/display_bounds.h"
#include "capture/windows/display_lists.h"
#include "capture/windows/display_watch.h"
#include "tests/support/windows/display_mode.h"

namespace {

DisplayInfo primary() {
  DisplayInfo display;
  EXPECT_TRUE(select_display("", &display));
  return display;
}

TEST(WindowsDisplays, AreListedWithDeviceAdapterAndRate) {
  const auto displays = list_displays();
  ASSERT_EQ(displays.size(), 1u);
  const DisplayInfo& display = displays[0];
  EXPECT_EQ(display.index, 0);
  EXPECT_EQ(display.device, R"(\\.\DISPLAY1)");
  EXPECT_TRUE(display.has_adapter);
  EXPECT_FALSE(display.name.empty());
  EXPECT_TRUE(display.adapter_luid_low != 0 || display.adapter_luid_high != 0);
  EXPECT_EQ(display.left, 0);
  EXPECT_EQ(display.top, 0);
  EXPECT_EQ(display.width, GetSystemMetrics(SM_CXSCREEN));
  EXPECT_EQ(display.height, GetSystemMetrics(SM_CYSCREEN));
  EXPECT_EQ(display.refresh_hz, 60);
  EXPECT_EQ(display.rotation, 1);
  EXPECT_TRUE(display.primary);
  EXPECT_FALSE(display.is_virtual);
  EXPECT_EQ(display_obstacle(), "");
}

TEST(WindowsDisplays, WithoutDxgiTheMonitorsOfGdiAreLeft) {
  EXPECT_TRUE(adapter_outputs(nullptr).empty());
  const auto displays = merge_displays(adapter_outputs(nullptr), desktop_monitors(), {});
  ASSERT_EQ(displays.size(), 1u);
  const DisplayInfo known = primary();
  EXPECT_EQ(displays[0].device, known.device);
  EXPECT_EQ(displays[0].name, "GDI display");
  EXPECT_FALSE(displays[0].has_adapter);
  EXPECT_EQ(displays[0].adapter_luid_low, 0u);
  EXPECT_EQ(displays[0].width, known.width);
  EXPECT_EQ(displays[0].height, known.height);
  EXPECT_EQ(displays[0].refresh_hz, known.refresh_hz);
  EXPECT_EQ(displays[0].rotation, 1);
  EXPECT_TRUE(displays[0].primary);
}

TEST(WindowsDisplays, DeviceIsFoundWithoutRegardToCase) {
  DisplayInfo display;
  ASSERT_TRUE(find_display(R"(\\.\display1)", &display));
  EXPECT_EQ(display.device, R"(\\.\DISPLAY1)");
  EXPECT_FALSE(find_display(R"(\\.\DISPLAY9)", &display));
  EXPECT_EQ(display.device, R"(\\.\DISPLAY1)");
}

TEST(WindowsDisplays, VirtualDesktopHoldsThemAll) {
  const DisplayInfo display = primary();
  EXPECT_EQ(virtual_desktop_rect(), (DesktopRect{0, 0, display.width, display.height}));
}

TEST(WindowsDisplays, BoundsAreThoseOfTheEnumeration) {
  const DisplayInfo display = primary();
  DesktopRect bounds;
  ASSERT_TRUE(display_bounds(display.device, &bounds));
  EXPECT_EQ(bounds, (DesktopRect{display.left, display.top, display.right, display.bottom}));
  EXPECT_FALSE(display_bounds(R"(\\.\DISPLAY9)", &bounds));
}

TEST(WindowsDisplays, ChangedModeIsSeenByEveryQuery) {
  const DisplayInfo before = primary();
  DisplayWatch watch;
  DisplayInfo watched;
  ASSERT_TRUE(watch.find(before.device, &watched));
  EXPECT_EQ(watched, before);
  {
    const DisplayModeChange change(800, 600);
    ASSERT_TRUE(change.changed());
    DisplayInfo display = before;
    ASSERT_TRUE(refresh_display(&display));
    EXPECT_EQ(display.width, 800);
    EXPECT_EQ(display.height, 600);
    EXPECT_TRUE(display.has_adapter);
    ASSERT_TRUE(watch.find(before.device, &watched));
    EXPECT_EQ(watched, display);
    DesktopRect bounds;
    ASSERT_TRUE(display_bounds(before.device, &bounds));
    EXPECT_EQ(bounds, (DesktopRect{0, 0, 800, 600}));
    EXPECT_EQ(virtual_desktop_rect(), bounds);
  }
  EXPECT_EQ(primary(), before);
  ASSERT_TRUE(watch.find(before.device, &watched));
  EXPECT_EQ(watched, before);
}

}  // namespace
