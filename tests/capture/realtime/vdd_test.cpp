// Leases under many hands at once. That nothing deadlocks shows by its end; races, by the thread
// sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "capture/vdd_leases.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_vdd.h"

namespace {

TEST(VirtualDisplayThreads, LeasesStatusAndRestorationsAtOnceEndAsTheyBegan) {
  constexpr int SCREENS = 4;
  constexpr int ROUNDS = 20;
  const CapturedLog log;
  const auto vdd = std::make_shared<FakeVdd>();
  vdd->file() =
      "<monitors><count>4</count></monitors><global><g_refresh_rate>60</g_refresh_rate></global>"
      "<resolutions><resolution><width>800</width><height>600</height></resolution></resolutions>";
  for (int i = 0; i < SCREENS; ++i)
    vdd->add_monitor("MONITOR" + std::to_string(i), {{800, 600, 60}, {640, 480, 60}});
  LeasedVirtualDisplays displays(std::make_unique<FakeVirtualDisplayDriver>(vdd));

  std::atomic<int> leased{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> screens;
  for (int screen = 0; screen < SCREENS; ++screen) {
    screens.emplace_back([&, screen] {
      for (int round = 0; round < ROUNDS; ++round) {
        DisplayInfo out;
        std::string reason;
        const DesktopPoint place = {screen * 640, 0};
        if (displays.acquire(screen, 640, 480, 60, &place, &out, &reason)) ++leased;
        displays.release(screen);
      }
    });
  }
  std::thread watcher([&] {
    while (!stop) {
      EXPECT_TRUE(displays.usable());
      EXPECT_TRUE(displays.status_line().starts_with("Virtual display: "));
      displays.tick();
      displays.restore_now();
    }
  });
  for (std::thread& screen : screens) screen.join();
  stop = true;
  watcher.join();
  displays.restore_now();
  EXPECT_EQ(leased, SCREENS * ROUNDS);
  for (const FakeMonitor& monitor : vdd->monitors)
    EXPECT_EQ(monitor.current.mode, (DisplayMode{800, 600, 60})) << monitor.device;
  EXPECT_EQ(displays.status_line(), "Virtual display: ready, 4 monitors, 0 streamed");
}

}  // namespace
