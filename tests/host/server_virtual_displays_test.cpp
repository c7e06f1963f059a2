// A whole host over a virtual display driver made of records: from HELLOs to leased monitors, and
// back to the driver as it was.
#include <gmock/gmock.h>

#include "capture/vdd_leases.h"
#include "tests/support/fake_vdd.h"
#include "tests/support/host_world.h"

using testing::Contains;
using testing::HasSubstr;

namespace {

constexpr const char* SETTINGS =
    "<monitors><count>1</count></monitors>\n<global><g_refresh_rate>60</g_refresh_rate></global>\n"
    "<resolutions>\n  <resolution><width>1920</width><height>1080</height></resolution>\n"
    "</resolutions>\n";

class HostVirtualDisplaysTest : public HostWorld {
 protected:
  HostVirtualDisplaysTest() {
    options.virtual_display = "always";
    vdd->file() = SETTINGS;
    vdd->add_monitor(R"(\\.\DISPLAY5)", {{1920, 1080, 60}});
    platform.make_virtual_displays = [this] {
      return std::make_unique<LeasedVirtualDisplays>(
          std::make_unique<FakeVirtualDisplayDriver>(vdd));
    };
  }

  static lund_hello wants(int screen, std::uint16_t width, std::uint16_t height) {
    lund_hello hello = wants_virtual(screen);
    hello.width = width;
    hello.height = height;
    return hello;
  }
  const DisplayInfo& captured(std::size_t index) const {
    return platform.captures.at(index)->settings.display;
  }
  std::string status_line() { return host().status().virtual_display_line; }

  const std::shared_ptr<FakeVdd> vdd = std::make_shared<FakeVdd>();
};

}  // namespace

TEST_F(HostVirtualDisplaysTest, TheStartTellsOfTheDriver) {
  start_host();
  EXPECT_TRUE(logged(
      "virtual display driver: enabled, 1 monitor active, settings "
      R"(C:\VirtualDisplayDriver\vdd_settings.xml (count 1), pipe absent, ROOT\DISPLAY\0000)"));
  EXPECT_EQ(status_line(), "Virtual display: ready, 1 monitor, 0 streamed");
}

TEST_F(HostVirtualDisplaysTest, TwoScreensOfAClientLeaseTwoMonitorsSideBySide) {
  stream(wants(0, 1920, 1080));
  stream(wants(1, 1280, 800));
  ASSERT_EQ(platform.captures.size(), 2u);
  EXPECT_EQ(captured(0).device, R"(\\.\DISPLAY5)");
  EXPECT_EQ(captured(0).width, 1920);
  EXPECT_EQ(captured(1).device, R"(\\.\DISPLAY6)");
  EXPECT_EQ(captured(1).width, 1280);
  EXPECT_EQ(captured(1).height, 800);
  EXPECT_TRUE(captured(1).is_virtual);
  // Right of the physical monitor and of the first virtual one, as high as the main display.
  EXPECT_EQ(captured(1).left, 1920);
  EXPECT_EQ(captured(1).top, 0);
  EXPECT_EQ(platform.captures[1]->settings.width, 1280);
  EXPECT_EQ(status_line(), "Virtual display: ready, 2 monitors, 2 streamed");
  EXPECT_EQ(vdd_xml_monitor_count(vdd->file()), 2);
}

TEST_F(HostVirtualDisplaysTest, TheMonitorGetsTheModeThatTheClientAsksFor) {
  lund_hello hello = wants(0, 2560, 1600);
  hello.fps = 120;
  TestLink laptop = connected();
  const auto ack = answer(laptop, hello);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_ACCEPTED);
  EXPECT_EQ(ack->width, 2560);
  EXPECT_EQ(ack->height, 1600);
  EXPECT_EQ(ack->fps, 120);
  EXPECT_TRUE(captured(0).is_virtual);
  ASSERT_EQ(vdd->monitors.size(), 1u);
  EXPECT_EQ(vdd->monitors[0].current.mode, (DisplayMode{2560, 1600, 120}));
}

TEST_F(HostVirtualDisplaysTest, ShutdownPutsTheDriverBack) {
  stream(wants(0, 1920, 1080));
  stream(wants(1, 1280, 800));
  ASSERT_EQ(vdd->monitors.size(), 2u);
  log();
  vdd->polls_until_ready = 0;
  host().shutdown();
  EXPECT_EQ(vdd->file(), SETTINGS);
  EXPECT_EQ(vdd->monitors.size(), 1u);
  EXPECT_THAT(log(), Contains("vdd: vdd_settings.xml restored (monitors 1)"));
  EXPECT_EQ(vdd->monitors[0].current.mode, (DisplayMode{1920, 1080, 60}));
}

TEST_F(HostVirtualDisplaysTest, AReconnectWithinFiveSecondsFindsItsMonitors) {
  TestLink main = stream(wants(0, 1920, 1080));
  stream(wants(1, 1280, 800));
  main.bye();
  ASSERT_EQ(host().sessions().size(), 0u);
  run_ms(4'500);
  EXPECT_EQ(vdd->monitors.size(), 2u);
  vdd->calls.clear();
  stream(wants(0, 1920, 1080));
  stream(wants(1, 1280, 800));
  ASSERT_EQ(platform.captures.size(), 4u);
  EXPECT_EQ(captured(2).device, R"(\\.\DISPLAY5)");
  EXPECT_EQ(captured(3).device, R"(\\.\DISPLAY6)");
  EXPECT_THAT(vdd->calls, testing::Each("pipe 1"));
}

TEST_F(HostVirtualDisplaysTest, FiveSecondsAfterTheLastScreenTheDriverIsAsItWas) {
  TestLink main = stream(wants(0, 1920, 1080));
  stream(wants(1, 1280, 800));
  main.bye();
  vdd->polls_until_ready = 0;
  run_ms(4'900);
  EXPECT_EQ(vdd->monitors.size(), 2u);
  run_ms(200);
  EXPECT_EQ(vdd->monitors.size(), 1u);
  EXPECT_EQ(vdd->file(), SETTINGS);
}

TEST_F(HostVirtualDisplaysTest, WithoutAFreeMonitorAPhysicalOneIsStreamedAndTheLogSaysWhy) {
  vdd->monitors.clear();
  vdd->elevated = false;
  TestLink main = stream(wants(0, 1920, 1080));
  EXPECT_EQ(captured(0).device, "DP-1");
  EXPECT_THAT(log(),
              Contains("screen 0: virtual display unavailable (the virtual display driver has no "
                       "free monitor (raise <count> in vdd_settings.xml, or run Lunderhaze as "
                       "administrator once so it can restart the driver)); streaming a physical "
                       "monitor"));
}

TEST_F(HostVirtualDisplaysTest, WithoutAnyMonitorTheClientIsRefused) {
  platform.displays.clear();
  vdd->monitors.clear();
  vdd->elevated = false;
  TestLink laptop = connected();
  const auto ack = answer(laptop, wants(0, 1920, 1080));
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_REFUSED);
  EXPECT_THAT(log(), Contains(HasSubstr("the virtual display driver has no free monitor")));
}
