#include "capture/display.h"

#include <gtest/gtest.h>

namespace {

DisplayInfo output(const std::string& device, int left, int width, bool adapter = true) {
  DisplayInfo display;
  display.device = device;
  display.name = adapter ? "Adapter" : "GDI display";
  display.has_adapter = adapter;
  display.left = left;
  display.right = left + width;
  display.bottom = 1080;
  display.refresh_hz = 60;
  return display;
}

const std::vector<DisplayInfo> TWO = merge_displays(
    {output(R"(\\.\DISPLAY1)", 0, 1920), output(R"(\\.\DISPLAY2)", 1920, 2560)}, {}, {});

TEST(Display, MonitorsAloneAreListedWithoutAnAdapter) {
  const auto list =
      merge_displays({}, {output("A", 0, 640, false), output("B", 640, 640, false)}, {});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_FALSE(list[0].has_adapter);
  EXPECT_EQ(list[1].index, 1);
  EXPECT_EQ(list[1].width, 640);
  EXPECT_EQ(list[1].height, 1080);
}

TEST(Display, OutputOfTwoAdaptersAppearsOnceWithTheFirst) {
  DisplayInfo first = output("A", 0, 1920);
  first.adapter_luid_low = 1;
  DisplayInfo second = output("A", 0, 1920);
  second.adapter_luid_low = 2;
  const auto list = merge_displays({first, second}, {}, {});
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].adapter_luid_low, 1u);
}

TEST(Display, AdapterOutputsOfOneNameInOtherCaseAreTwo) {
  EXPECT_EQ(merge_displays({output("A", 0, 10), output("a", 0, 10)}, {}, {}).size(), 2u);
}

TEST(Display, MonitorThatAnAdapterKnowsIsSkippedWithoutRegardToCase) {
  const auto list =
      merge_displays({output("DISPLAY1", 0, 1920)},
                     {output("display1", 0, 1920, false), output("B", 0, 10, false)}, {});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_TRUE(list[0].has_adapter);
  EXPECT_EQ(list[1].device, "B");
}

TEST(Display, MonitorWithoutAnAreaIsNotListed) {
  EXPECT_TRUE(
      merge_displays({}, {output("A", 5, 0, false), output("B", 5, -1, false)}, {}).empty());
}

TEST(Display, RateOfOneOrLessIsUnknown) {
  DisplayInfo one = output("A", 0, 10);
  one.refresh_hz = 1;
  EXPECT_EQ(merge_displays({one}, {}, {})[0].refresh_hz, 0);
}

TEST(Display, DriversMonitorsAreMarkedWithoutRegardToCase) {
  const auto list = merge_displays({output("DISPLAY1", 0, 10)}, {output("DISPLAY5", 0, 10, false)},
                                   {"display5", "DISPLAY9"});
  EXPECT_FALSE(list[0].is_virtual);
  EXPECT_TRUE(list[1].is_virtual);
}

TEST(Display, MonitorOfADetachedPathIsNeitherListedNorMarked) {
  for (const DisplayInfo& display : merge_displays(TWO, {}, {R"(\\.\DISPLAY3)"})) {
    EXPECT_FALSE(display.is_virtual);
  }
}

TEST(Display, EmptySelectorIsThePrimaryElseTheFirst) {
  DisplayInfo out;
  ASSERT_TRUE(select_display(TWO, "", &out));
  EXPECT_EQ(out.index, 0);
  auto with_primary = TWO;
  with_primary[1].primary = true;
  ASSERT_TRUE(select_display(with_primary, "", &out));
  EXPECT_EQ(out.index, 1);
}

TEST(Display, NumberSelectsByIndex) {
  DisplayInfo out;
  ASSERT_TRUE(select_display(TWO, "1", &out));
  EXPECT_EQ(out.device, R"(\\.\DISPLAY2)");
}

TEST(Display, NumberBeyondTheListIsTriedAsAName) {
  DisplayInfo out;
  EXPECT_FALSE(select_display(TWO, "7", &out));
  EXPECT_FALSE(select_display(TWO, "-1", &out));
  auto named = TWO;
  named[1].device = "7";
  ASSERT_TRUE(select_display(named, "7", &out));
  EXPECT_EQ(out.index, 1);
}

TEST(Display, NumberWithATailIsAName) {
  DisplayInfo out;
  EXPECT_FALSE(select_display(TWO, "1x", &out));
}

TEST(Display, NameSelectsWithoutRegardToCase) {
  DisplayInfo out;
  ASSERT_TRUE(select_display(TWO, R"(\\.\display2)", &out));
  EXPECT_EQ(out.device, R"(\\.\DISPLAY2)");
}

TEST(Display, EmptyListSelectsNothing) {
  DisplayInfo out;
  EXPECT_FALSE(select_display({}, "", &out));
  EXPECT_FALSE(select_display({}, "0", &out));
}

TEST(Display, FindLeavesTheRecordAsItWasWhenTheDisplayIsGone) {
  DisplayInfo out = TWO[0];
  EXPECT_FALSE(find_display(TWO, "elsewhere", &out));
  EXPECT_EQ(out.device, TWO[0].device);
}

TEST(Display, DescriptionTellsEverything) {
  EXPECT_EQ(describe_display(TWO[1]),
            R"(1: \\.\DISPLAY2 2560x1080 @ 60 Hz at (1920,0) on Adapter)");
  DisplayInfo all = TWO[1];
  all.left = -2560;
  all.primary = all.is_virtual = true;
  all.rotation = 2;
  EXPECT_EQ(describe_display(all),
            R"(1: \\.\DISPLAY2 2560x1080 @ 60 Hz at (-2560,0) [primary] [virtual display driver])"
            " on Adapter (rotated: not supported)");
}

TEST(Display, MonitorEntriesKeepOrderNamesRectanglesAndFlags) {
  auto list = TWO;
  list[1].primary = list[1].is_virtual = true;
  const auto entries = to_monitor_entries(list);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].name, list[1].device);
  EXPECT_EQ(entries[1].left, 1920);
  EXPECT_EQ(entries[1].right, 4480);
  EXPECT_EQ(entries[1].bottom, 1080);
  EXPECT_TRUE(entries[1].primary);
  EXPECT_TRUE(entries[1].is_virtual);
  EXPECT_FALSE(entries[0].primary);
}

}  // namespace
