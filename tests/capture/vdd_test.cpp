// What is seen of the driver, what is said about it, and how leases end.
#include "capture/vdd.h"

#include <future>
#include <thread>

#include "capture/no_vdd_driver.h"
#include "tests/capture/vdd_fixture.h"
#include "tests/support/latch.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Result = VirtualDisplayDriver::Result;
using VirtualDisplayState = VddFixture;
using VirtualDisplayLeases = VddFixture;

constexpr unsigned long DISABLED = 22;

// ---- Words

TEST(VddStateWords, WithoutADeviceItIsNotInstalled) {
  EXPECT_EQ(VddState().describe(), "not installed");
}

TEST(VddStateWords, ARunningDriver) {
  VddState state = {true, true, true, true, "ROOT\\1", "C:\\x.xml", 2, 1};
  EXPECT_EQ(state.describe(),
            "enabled, 1 monitor active, settings C:\\x.xml (count 2), pipe up, ROOT\\1");
  state.active_monitors = 0;
  EXPECT_EQ(state.describe(),
            "enabled, 0 monitors active, settings C:\\x.xml (count 2), pipe up, ROOT\\1");
}

TEST(VddStateWords, ADisabledDriver) {
  const VddState state = {true, false, false, false, "ROOT\\1", "", -1, 2};
  EXPECT_EQ(state.describe(),
            "DISABLED in Device Manager but not started, 2 monitors active, settings ? (count -1), "
            "pipe absent, ROOT\\1");
}

// ---- probe()

TEST_F(VirtualDisplayState, IsWhatTheDriverIs) {
  monitor();
  vdd->pipe = {true, 0};
  const VddState state = displays->probe();
  EXPECT_TRUE(state.installed);
  EXPECT_TRUE(state.enabled);
  EXPECT_TRUE(state.started);
  EXPECT_TRUE(state.pipe_up);
  EXPECT_EQ(state.device_id, FakeVdd::DEVICE_ID);
  EXPECT_EQ(state.settings_path, FakeVdd::PATH);
  EXPECT_EQ(state.settings_count, 1);
  EXPECT_EQ(state.active_monitors, 1);
}

TEST_F(VirtualDisplayState, ADeviceIsTheDriversByAHardwareIdOrItsDescription) {
  for (const VirtualDisplayDriver::Adapter& adapter :
       {VirtualDisplayDriver::Adapter{"1", {"PCI\\1", R"(root\mttvdd)"}, "x"},
        {"1", {R"(ROOT\MTTVDD)"}, "x"},
        {"1", {}, "Virtual Display Driver"},
        {"1", {"x"}, "IddSampleDriver Device HDR"}}) {
    vdd->adapters = {{"0", {"PCI\\1", R"(root\mttvdd2)"}, "virtual display driver"},
                     adapter,
                     {"2", {R"(root\mttvdd)"}, "x"}};
    EXPECT_EQ(displays->probe().device_id, "1");
  }
}

TEST_F(VirtualDisplayState, WithoutADeviceNothingButFileAndMonitorsIsLookedAt) {
  vdd->adapters = {{"0", {"PCI\\1"}, "A display"}};
  vdd->pipe = {true, 0};
  const VddState state = displays->probe();
  EXPECT_FALSE(state.installed);
  EXPECT_FALSE(state.pipe_up);
  EXPECT_EQ(state.device_id, "");
  EXPECT_EQ(state.settings_count, 1);
  EXPECT_THAT(calls(), IsEmpty());  // nobody waited for the pipe
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
}

TEST_F(VirtualDisplayState, IsDisabledByOneProblemAlone) {
  vdd->status = {true, DISABLED, false};
  EXPECT_FALSE(displays->probe().enabled);
  EXPECT_EQ(displays->status_line(), "Virtual display: driver disabled in Device Manager");
  vdd->status = {false, DISABLED, true};  // no problem at all
  EXPECT_TRUE(displays->probe().enabled);
  vdd->status = {true, 10, false};  // can't start
  EXPECT_TRUE(displays->probe().enabled);
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not running");
}

TEST_F(VirtualDisplayState, AStatusThatCannotBeReadIsNeitherEnabledNorStarted) {
  vdd->status.reset();
  const VddState state = displays->probe();
  EXPECT_TRUE(state.installed);
  EXPECT_FALSE(state.enabled);
  EXPECT_FALSE(state.started);
}

TEST_F(VirtualDisplayState, TheSettingsLieWhereTheDriverSays) {
  vdd->registered_folder = R"(D:\vdd)";
  vdd->files = {{R"(D:\vdd\vdd_settings.xml)", settings(3)}};
  const VddState state = displays->probe();
  EXPECT_EQ(state.settings_path, R"(D:\vdd\vdd_settings.xml)");
  EXPECT_EQ(state.settings_count, 3);
  vdd->files.clear();
  EXPECT_EQ(displays->probe().settings_count, -1);
}

TEST_F(VirtualDisplayState, ABusyPipeIsUp) {
  vdd->pipe = {false, 121};
  EXPECT_TRUE(displays->probe().pipe_up);
  vdd->pipe = {false, 2};
  EXPECT_FALSE(displays->probe().pipe_up);
  EXPECT_THAT(calls(), ElementsAre("pipe 1", "pipe 1"));
}

TEST_F(VirtualDisplayState, IsInALine) {
  EXPECT_EQ(displays->status_line(), "Virtual display: not checked yet");
  displays->probe();
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 0 monitors, 0 streamed");
  monitor();
  ASSERT_TRUE(acquire(0));
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 1 monitor, 1 streamed");
  displays->enabled = 0;
  displays->probe();
  EXPECT_EQ(displays->status_line(), "Virtual display: off (--virtual-display off)");
}

// ---- usable()

TEST_F(VirtualDisplayState, IsUsableWhereEnabledOrWhereItCanBeEnabled) {
  vdd->elevated = false;
  EXPECT_TRUE(displays->usable());
  vdd->status = {true, DISABLED, false};
  displays->probe();
  EXPECT_FALSE(displays->usable());
  vdd->elevated = true;
  EXPECT_TRUE(displays->usable());
  displays->enabled = 0;
  EXPECT_FALSE(displays->usable());
}

TEST_F(VirtualDisplayState, UsableLooksAgainOnlyForADriverThatWasNotThere) {
  int looks = 0;
  vdd->on_call = [&](const char* call) { looks += std::string("display_adapters") == call; };
  const auto adapters = std::exchange(vdd->adapters, {});
  EXPECT_FALSE(displays->usable());
  EXPECT_FALSE(displays->usable());
  EXPECT_EQ(looks, 2);
  vdd->adapters = adapters;
  EXPECT_TRUE(displays->usable());
  EXPECT_TRUE(displays->usable());
  EXPECT_EQ(looks, 3);
  displays->enabled = 0;
  EXPECT_FALSE(displays->usable());
  EXPECT_EQ(looks, 3);
}

// ---- Locks

// Every driver call of a lease with all that can be in it, of its end, and of the driver's being
// put right: status_line(), which takes state_mutex, must come through.
TEST_F(VirtualDisplayLeases, NoDriverCallIsMadeUnderTheStatesLock) {
  std::vector<std::thread> others;
  int calls_seen = 0;
  vdd->on_call = [&](const char* call) {
    ++calls_seen;
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> came_through = done->get_future();
    others.emplace_back([this, done] {
      static_cast<void>(displays->status_line());
      done->set_value();
    });
    EXPECT_EQ(came_through.wait_for(std::chrono::seconds(20)), std::future_status::ready) << call;
  };
  vdd->status = {true, DISABLED, false};
  vdd->detached = true;
  vdd->changes[VirtualDisplayDriver::AdapterChange::Restart] = {false, 5};
  vdd->pipe = {true, 0};
  const DesktopPoint place = {1920, 0};
  EXPECT_TRUE(displays->usable());
  EXPECT_TRUE(acquire(0, 640, 480, 30, &place)) << reason;
  displays->release(0);
  tick_after_ms(5'000);
  vdd->files.clear();  // the count alone can be changed
  vdd->monitors.clear();
  EXPECT_FALSE(acquire(1));
  displays->restore_now();
  EXPECT_GT(calls_seen, 100);
  for (std::thread& other : others) other.join();
}

TEST_F(VirtualDisplayLeases, TickDoesNotWaitForALeaseInTheMaking) {
  monitor();
  monitor(R"(\\.\DISPLAY6)");
  monitor(R"(\\.\DISPLAY7)");
  ASSERT_TRUE(acquire(0, 1280, 720));
  ASSERT_TRUE(acquire(1));
  Latch in_driver(1), go_on(1);
  vdd->on_call = [&, first = true](const char*) mutable {
    if (!std::exchange(first, false)) return;
    in_driver.count_down();
    go_on.wait();
  };
  bool got = false;
  std::thread setup([&] { got = acquire(2, 1280, 720); });
  in_driver.wait();
  // The last lease ends meanwhile, and its restoration falls due.
  displays->release(0);
  displays->release(1);
  lines();
  tick_after_ms(5'000);
  EXPECT_EQ(displays->status_line(), "Virtual display: ready, 3 monitors, 2 streamed");
  EXPECT_TRUE(displays->usable());
  EXPECT_THAT(lines(), IsEmpty());
  go_on.count_down();
  setup.join();
  EXPECT_TRUE(got);
  // By now there is a lease, so that nothing is restored.
  lines();
  displays->tick();
  EXPECT_THAT(lines(), IsEmpty());
  displays->release(2);
  tick_after_ms(5'000);
  EXPECT_THAT(lines(), ElementsAre(R"(vdd: \\.\DISPLAY5 back to 1920x1080@60: ok)"));
}

// ---- A computer without the driver

TEST(NoVirtualDisplays, ReportNotInstalled) {
  const auto displays = make_virtual_displays();
  EXPECT_EQ(displays->status_line(), "Virtual display: not checked yet");
  EXPECT_EQ(displays->probe().describe(), "not installed");
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
  EXPECT_EQ(reason, "no virtual display driver installed (tray > Install virtual display driver)");
  EXPECT_EQ(log.count("vdd: screen 1: " + reason), 1);
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
  displays->release(1);
  displays->tick();
  displays->restore_now();
}

}  // namespace
