// How the driver's monitors are found and changed, on records of the display configuration, and
// with the system's own.
#include "capture/windows/vdd_monitors.h"

#include <gmock/gmock.h>

#include "control/windows/wide_text.h"
#include "tests/support/windows/fake_displays.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using ModeChange = VirtualDisplayDriver::ModeChange;

class VddMonitors : public testing::Test {
 protected:
  VddMonitors() {
    fake.paths.push_back({LR"(\\?\DISPLAY#DEL4321#5&1&0&UID1#{e6f07b5f})", LR"(\\.\DISPLAY1)"});
    fake.add_virtual(LR"(\\.\DISPLAY5)");
    fake.add_virtual(LR"(\\.\DISPLAY6)");
  }

  FakeDisplays fake;
  const DisplayCalls calls = fake.record();
  const std::string device = R"(\\.\DISPLAY5)";
};

// ---- Which there are

TEST_F(VddMonitors, AreTheActivePathsWhoseMonitorBearsTheMarker) {
  EXPECT_THAT(virtual_display_devices(calls), ElementsAre(R"(\\.\DISPLAY5)", R"(\\.\DISPLAY6)"));
  EXPECT_EQ(fake.queries, 1);
}

TEST_F(VddMonitors, TheMarkerHasNoCase) {
  fake.paths[1].monitor_path = LR"(\\?\display#mTt1337#1)";
  fake.paths[2].monitor_path = LR"(\\?\DISPLAY#MTT133#7)";
  EXPECT_THAT(virtual_display_devices(calls), ElementsAre(R"(\\.\DISPLAY5)"));
}

TEST_F(VddMonitors, APathWhoseNamesCannotBeHadIsSkipped) {
  fake.paths[1].target_result = ERROR_GEN_FAILURE;
  EXPECT_THAT(virtual_display_devices(calls), ElementsAre(R"(\\.\DISPLAY6)"));
  fake.paths[1].target_result = ERROR_SUCCESS;
  fake.paths[2].source_result = ERROR_INVALID_PARAMETER;
  EXPECT_THAT(virtual_display_devices(calls), ElementsAre(R"(\\.\DISPLAY5)"));
}

TEST_F(VddMonitors, AConfigurationThatGrowsIsAskedForAgain) {
  fake.query_results = {ERROR_INSUFFICIENT_BUFFER, ERROR_INSUFFICIENT_BUFFER,
                        ERROR_INSUFFICIENT_BUFFER};
  EXPECT_THAT(virtual_display_devices(calls), ElementsAre(R"(\\.\DISPLAY5)", R"(\\.\DISPLAY6)"));
  EXPECT_EQ(fake.size_questions, 4);
  EXPECT_EQ(fake.queries, 4);
}

TEST_F(VddMonitors, FourTimesIsTheMost) {
  fake.query_results.assign(5, ERROR_INSUFFICIENT_BUFFER);
  EXPECT_THAT(virtual_display_devices(calls), IsEmpty());
  EXPECT_EQ(fake.queries, 4);
}

TEST_F(VddMonitors, AnyOtherFailureMeansNoneAtOnce) {
  for (const LONG error :
       {ERROR_INVALID_PARAMETER, ERROR_NOT_SUPPORTED, ERROR_ACCESS_DENIED, ERROR_GEN_FAILURE}) {
    fake.queries = 0;
    fake.query_results = {error};
    EXPECT_THAT(virtual_display_devices(calls), IsEmpty());
    EXPECT_EQ(fake.queries, 1);
  }
  fake.queries = 0;
  fake.sizes_result = ERROR_NOT_SUPPORTED;
  EXPECT_THAT(virtual_display_devices(calls), IsEmpty());
  EXPECT_EQ(fake.queries, 0);
}

// ---- Their modes

TEST_F(VddMonitors, ModesAreOfferedFromTheFirstOn) {
  fake.modes[LR"(\\.\DISPLAY5)"] = {FakeDisplays::mode(800, 600, 60, 16),
                                    FakeDisplays::mode(1920, 1080, 144, 32)};
  const auto modes = offered_modes(calls, device);
  ASSERT_EQ(modes.size(), 2u);
  EXPECT_EQ(modes[0].mode, (DisplayMode{800, 600, 60}));
  EXPECT_EQ(modes[0].bits_per_pixel, 16u);
  EXPECT_EQ(modes[1].mode, (DisplayMode{1920, 1080, 144}));
  EXPECT_EQ(modes[1].bits_per_pixel, 32u);
  EXPECT_THAT(offered_modes(calls, R"(\\.\DISPLAY6)"), IsEmpty());
}

TEST_F(VddMonitors, SettingsAreOfTheWantedKindOrNone) {
  fake.settings[{LR"(\\.\DISPLAY5)", ENUM_REGISTRY_SETTINGS}] =
      FakeDisplays::mode(1280, 720, 60, 32, {-1280, 40});
  const auto stored = monitor_settings(calls, device, ENUM_REGISTRY_SETTINGS);
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, (MonitorSettings{{1280, 720, 60}, {-1280, 40}}));
  EXPECT_FALSE(monitor_settings(calls, device, ENUM_CURRENT_SETTINGS));
}

// ---- Changing them

TEST_F(VddMonitors, SizeAndRateAloneKeepThePosition) {
  EXPECT_EQ(store_monitor_settings(calls, device, {1366, 768, 75}, nullptr), ModeChange::Ok);
  ASSERT_EQ(fake.stored.size(), 1u);
  EXPECT_EQ(fake.stored[0].device, LR"(\\.\DISPLAY5)");
  EXPECT_EQ(fake.stored[0].flags, DWORD{CDS_UPDATEREGISTRY | CDS_NORESET});
  const DEVMODEW& mode = fake.stored[0].mode;
  EXPECT_EQ(mode.dmSize, sizeof(DEVMODEW));
  EXPECT_EQ(mode.dmFields, 0x580000u);
  EXPECT_EQ(mode.dmPelsWidth, 1366u);
  EXPECT_EQ(mode.dmPelsHeight, 768u);
  EXPECT_EQ(mode.dmDisplayFrequency, 75u);
  EXPECT_EQ(fake.applied, 0);
}

TEST_F(VddMonitors, APositionGoesAlong) {
  const DesktopPoint left_of_all = {-1366, 12};
  store_monitor_settings(calls, device, {1366, 768, 75}, &left_of_all);
  ASSERT_EQ(fake.stored.size(), 1u);
  EXPECT_EQ(fake.stored[0].mode.dmFields, 0x580020u);
  EXPECT_EQ(fake.stored[0].mode.dmPosition.x, -1366);
  EXPECT_EQ(fake.stored[0].mode.dmPosition.y, 12);
}

TEST_F(VddMonitors, EachFailureIsTold) {
  for (const auto& [result, change] : {std::pair(LONG{DISP_CHANGE_SUCCESSFUL}, ModeChange::Ok),
                                       {DISP_CHANGE_RESTART, ModeChange::Restart},
                                       {DISP_CHANGE_FAILED, ModeChange::Failed},
                                       {DISP_CHANGE_BADMODE, ModeChange::BadMode},
                                       {DISP_CHANGE_NOTUPDATED, ModeChange::NotUpdated},
                                       {DISP_CHANGE_BADFLAGS, ModeChange::Error},
                                       {DISP_CHANGE_BADPARAM, ModeChange::BadParameter},
                                       {DISP_CHANGE_BADDUALVIEW, ModeChange::Error},
                                       {-99, ModeChange::Error}}) {
    fake.store_result = result;
    fake.apply_result = result;
    EXPECT_EQ(store_monitor_settings(calls, device, {800, 600, 60}, nullptr), change) << result;
    EXPECT_EQ(apply_stored_settings(calls), change) << result;
  }
  EXPECT_EQ(fake.applied, 9);
}

TEST_F(VddMonitors, TheDesktopIsExtendedByTheSystemsOwnLayout) {
  extend_to_all_displays(calls);
  EXPECT_THAT(fake.configured, ElementsAre(0x84u));
}

// ---- The system's own

std::wstring first_device() {
  DISPLAY_DEVICEW device = {};
  device.cb = sizeof(device);
  EXPECT_TRUE(EnumDisplayDevicesW(nullptr, 0, &device, 0));
  return device.DeviceName;
}

TEST(VddMonitorsOfTheSystem, NoneIsTheDriversWhereThereIsNoDriver) {
  EXPECT_THAT(virtual_display_devices(), IsEmpty());
}

TEST(VddMonitorsOfTheSystem, EachDisplaysModesHoldItsCurrentOne) {
  const DisplayCalls calls;
  const std::string device = to_utf8(first_device());
  const auto current = monitor_settings(calls, device, ENUM_CURRENT_SETTINGS);
  ASSERT_TRUE(current);
  EXPECT_EQ(current->mode.width, GetSystemMetrics(SM_CXSCREEN));
  EXPECT_EQ(current->mode.height, GetSystemMetrics(SM_CYSCREEN));
  bool offered = false;
  for (const auto& mode : offered_modes(calls, device)) offered |= mode.mode == current->mode;
  EXPECT_TRUE(offered);
}

TEST(VddMonitorsOfTheSystem, AnUnknownDisplayHasNothing) {
  const DisplayCalls calls;
  const std::string device = R"(\\.\DISPLAY99)";
  EXPECT_THAT(offered_modes(calls, device), IsEmpty());
  EXPECT_FALSE(monitor_settings(calls, device, ENUM_CURRENT_SETTINGS));
  EXPECT_NE(store_monitor_settings(calls, device, {800, 600, 60}, nullptr), ModeChange::Ok);
}

}  // namespace
