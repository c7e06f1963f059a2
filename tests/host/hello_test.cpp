#include "host/hello.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "connection/netsock.h"

namespace {

const std::string OURS(32, 'a');
const std::string THEIRS(32, 'b');
constexpr std::uint32_t SESSION = 7;
constexpr std::uint32_t OTHER_SESSION = 8;

SessionSlot running(int screen, std::uint32_t session = SESSION) {
  return {OURS, session, screen, false, false, false};
}

HelloDecision decide(const std::vector<SessionSlot>& slots, int screen,
                     std::uint32_t session = SESSION) {
  return decide_hello(slots, OURS, session, screen, SCREENS);
}

// The decision's rules written down a second time, row by row as a table, to hold against the code.
HelloDecision by_table(const std::vector<SessionSlot>& slots, std::uint32_t session, int screen,
                       int screens) {
  const bool bad = screen < 0 || screen >= screens;
  if (slots.empty() && bad) return {HelloAction::BadScreen, -1};
  if (slots.empty()) return {HelloAction::Start, -1};
  for (const SessionSlot& slot : slots)
    if (slot.client != OURS) return {HelloAction::Busy, -1};
  if (bad) return {HelloAction::BadScreen, -1};
  for (std::size_t i = 0; i < slots.size(); ++i)
    if (slots[i].session == session && slots[i].screen != screen)
      return {HelloAction::Ignore, static_cast<int>(i)};
  std::size_t i = 0;
  while (i < slots.size() && slots[i].screen != screen) ++i;
  if (i == slots.size())
    return {screens > static_cast<int>(slots.size()) ? HelloAction::Start : HelloAction::BadScreen,
            -1};
  struct Row {
    bool in_setup;
    bool same_session;
    std::optional<bool> same_hello, started;
    HelloAction result;
  };
  constexpr auto ANY = std::nullopt;
  const Row rows[] = {
      {true, false, ANY, ANY, HelloAction::Replace},
      {true, true, true, ANY, HelloAction::Ignore},
      {true, true, false, ANY, HelloAction::Replace},
      {false, false, ANY, ANY, HelloAction::Replace},
      {false, true, false, ANY, HelloAction::Replace},
      {false, true, true, false, HelloAction::AckAgain},
      {false, true, true, true, HelloAction::Replace},
  };
  const SessionSlot& slot = slots[i];
  for (const Row& row : rows)
    if (row.in_setup == slot.in_setup && row.same_session == (slot.session == session) &&
        row.same_hello.value_or(slot.same_hello) == slot.same_hello &&
        row.started.value_or(slot.started) == slot.started)
      return {row.result, static_cast<int>(i)};
  ADD_FAILURE() << "the table has a gap";
  return {};
}

MonitorEntry monitor(const std::string& name, int left, int top = 0, bool primary = false,
                     bool is_virtual = false) {
  return {name, left, top, left + 1920, top + 1080, primary, is_virtual};
}

DisplayInfo display(int width, int height, int hz = 60) {
  DisplayInfo info;
  info.device = "DP-1";
  info.width = info.right = width;
  info.height = info.bottom = height;
  info.refresh_hz = hz;
  return info;
}

lund_hello hello_of(std::uint16_t width, std::uint16_t height) {
  lund_hello hello;
  hello.width = width;
  hello.height = height;
  return hello;
}

StreamValues stream(const lund_hello& hello, const DisplayInfo& shown = display(1920, 1080),
                    int path = LUND_PATH_LAN, const HostOptions& options = {}) {
  return choose_stream(hello, options, shown, path);
}

}  // namespace

// ---- decide_hello

TEST(DecideHello, WithNothingHeldScreens0To3StartAndOthersAreBad) {
  for (int screen : {0, 1, 2, 3}) EXPECT_EQ(decide({}, screen).action, HelloAction::Start);
  EXPECT_EQ(decide({}, 4), (HelloDecision{HelloAction::BadScreen, -1}));
  EXPECT_EQ(decide({}, -1), (HelloDecision{HelloAction::BadScreen, -1}));
}

TEST(DecideHello, AnotherClientIsBusyEvenWithABadScreen) {
  const auto decision = decide_hello({running(0)}, THEIRS, OTHER_SESSION, 9, SCREENS);
  EXPECT_EQ(decision, (HelloDecision{HelloAction::Busy, -1}));
}

TEST(DecideHello, ASetupKeepsAnotherClientOutToo) {
  SessionSlot job = running(0);
  job.in_setup = true;
  EXPECT_EQ(decide_hello({job}, THEIRS, OTHER_SESSION, 0, SCREENS).action, HelloAction::Busy);
}

TEST(DecideHello, AThirdScreenNeedsAnEngineSessionOfItsOwn) {
  const std::vector<SessionSlot> slots{running(0, 7), running(1, 8)};
  EXPECT_EQ(decide(slots, 2, 9), (HelloDecision{HelloAction::Start, -1}));
  EXPECT_EQ(decide(slots, 2, 7), (HelloDecision{HelloAction::Ignore, 0}));
}

TEST(DecideHello, TheSameBytesAreAcknowledgedAgainUntilTheClientHasSentSomething) {
  SessionSlot slot = running(1);
  slot.same_hello = true;
  EXPECT_EQ(decide({slot}, 1), (HelloDecision{HelloAction::AckAgain, 0}));
  slot.started = true;
  EXPECT_EQ(decide({slot}, 1), (HelloDecision{HelloAction::Replace, 0}));
}

TEST(DecideHello, InSetupTheSameBytesAreIgnoredAndOthersReplace) {
  SessionSlot job = running(1);
  job.in_setup = true;
  job.same_hello = true;
  EXPECT_EQ(decide({job}, 1).action, HelloAction::Ignore);
  job.same_hello = false;
  EXPECT_EQ(decide({job}, 1).action, HelloAction::Replace);
}

TEST(DecideHello, WithNoRoomLeftAFreeScreenIsBad) {
  // Only a smaller screen count than the slots can show it: screens and sessions run out together.
  const std::vector<SessionSlot> slots{running(0, 7), running(0, 8)};
  EXPECT_EQ(decide_hello(slots, OURS, 9, 1, 2), (HelloDecision{HelloAction::BadScreen, -1}));
}

// Up to three slots over every value that the decision looks at.
TEST(DecideHello, AgreesWithTheTableInEveryCase) {
  std::vector<SessionSlot> kinds;
  for (const std::string& client : {OURS, THEIRS})
    for (std::uint32_t session : {SESSION, OTHER_SESSION})
      for (int screen : {0, 1})
        for (int bits = 0; bits < 8; ++bits)
          kinds.push_back(
              {client, session, screen, (bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0});
  long cases = 0;
  const auto check = [&](const std::vector<SessionSlot>& slots) {
    for (int screen : {-1, 0, 1, 2})
      for (int screens : {1, 2, 3}) {
        ++cases;
        ASSERT_EQ(decide_hello(slots, OURS, SESSION, screen, screens),
                  by_table(slots, SESSION, screen, screens));
      }
  };
  check({});
  for (const SessionSlot& a : kinds) {
    check({a});
    for (const SessionSlot& b : kinds) {
      check({a, b});
      for (std::size_t c = 0; c < kinds.size(); c += 5) check({a, b, kinds[c]});
    }
  }
  EXPECT_GT(cases, 600'000);
}

// ---- Monitors

TEST(PickMainMonitor, TakesTheWantedOneWithoutRegardToCase) {
  const std::vector<MonitorEntry> entries{monitor("DP-1", 0, 0, true), monitor("HDMI-2", 1920)};
  EXPECT_EQ(pick_main_monitor(entries, "hdmi-2"), 1);
  EXPECT_EQ(pick_main_monitor(entries, "HDMI"), 0);  // a part of a name is not the name
}

TEST(PickMainMonitor, FoldsOnlyTheLettersAToZ) {
  EXPECT_EQ(pick_main_monitor({monitor("X", 0), monitor("[", 1)}, "{"), 0);
  EXPECT_EQ(pick_main_monitor({monitor("b", 0), monitor("\xC3\x84", 1)}, "\xC3\xA4"), 0);
}

TEST(PickMainMonitor, ElseThePrimaryElseTheLeftmostElseNone) {
  EXPECT_EQ(pick_main_monitor({monitor("A", 0), monitor("B", 1920, 0, true)}, ""), 1);
  EXPECT_EQ(pick_main_monitor({monitor("A", 0), monitor("B", -1920)}, ""), 1);
  EXPECT_EQ(pick_main_monitor({monitor("A", 0, 100), monitor("B", 0, -100)}, ""), 1);
  EXPECT_EQ(pick_main_monitor({monitor("DP-10", 0), monitor("DP-1", 0)}, ""), 1);
  EXPECT_EQ(pick_main_monitor({}, ""), -1);
}

TEST(PickMainMonitor, VirtualOnesDoNotCount) {
  const std::vector<MonitorEntry> entries{monitor("V", -5000, 0, true, true), monitor("A", 0)};
  EXPECT_EQ(pick_main_monitor(entries, "V"), 1);
  EXPECT_EQ(pick_main_monitor({entries[0]}, ""), -1);
}

TEST(MonitorForScreen, OthersComeFromLeftToRight) {
  const std::vector<MonitorEntry> entries{monitor("C", 3840), monitor("A", 0, 0, true),
                                          monitor("V", 10, 0, false, true), monitor("B", 1920)};
  EXPECT_EQ(other_monitors_in_order(entries, 1), (std::vector<int>{3, 0}));
  EXPECT_EQ(monitor_for_screen(entries, "", 0), 1);
  EXPECT_EQ(monitor_for_screen(entries, "", 1), 3);
  EXPECT_EQ(monitor_for_screen(entries, "", 2), 0);
  EXPECT_EQ(monitor_for_screen(entries, "", 3), -1);
  EXPECT_EQ(monitor_for_screen({}, "", 1), -1);
}

// ---- Which display

TEST(PlanDisplay, AutoUsesAVirtualDisplayOnlyWithoutAMonitor) {
  lund_hello asks;
  asks.display_mode = 1;
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_AUTO, true, asks, true), DisplayPlan::Physical);
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_AUTO, true, {}, false), DisplayPlan::Virtual);
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_AUTO, false, asks, false), DisplayPlan::None);
}

TEST(PlanDisplay, AlwaysServesTheClientThatAsks) {
  lund_hello asks;
  asks.display_mode = 1;
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_ALWAYS, true, asks, true), DisplayPlan::Virtual);
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_ALWAYS, true, {}, true), DisplayPlan::Physical);
  EXPECT_EQ(plan_display(VIRTUAL_DISPLAY_ALWAYS, false, asks, true), DisplayPlan::Physical);
}

TEST(VirtualDisplayRequest, TakesTheClientsModeOrTheMainMonitors) {
  HostOptions options;
  options.fps = 75;
  lund_hello wish = hello_of(2560, 1600);
  wish.fps = 120;
  const std::vector<DisplayInfo> displays{display(1280, 720)};
  auto request = virtual_display_request(wish, options, displays, 0, {});
  EXPECT_EQ(request.width, 2560);
  EXPECT_EQ(request.height, 1600);
  EXPECT_EQ(request.fps, 120);
  request = virtual_display_request(hello_of(2560, 0), options, displays, 0, {});
  EXPECT_EQ(request.width, 1280);
  EXPECT_EQ(request.height, 720);
  EXPECT_EQ(request.fps, 75);
  request = virtual_display_request({}, options, {}, -1, {});
  EXPECT_EQ(request.width, 1920);
  EXPECT_EQ(request.height, 1080);
}

TEST(VirtualDisplayRequest, LandsRightOfEverythingAtTheMainMonitorsTop) {
  DisplayInfo left = display(1920, 1080), main = display(1920, 1080), leased = display(800, 600);
  left.left = -1920, left.right = 0;
  main.top = -40;
  leased.is_virtual = true, leased.right = 9000;
  const std::vector<DisplayInfo> displays{left, main, leased};
  auto request = virtual_display_request({}, {}, displays, 1, {});
  EXPECT_EQ(request.place.x, 1920);
  EXPECT_EQ(request.place.y, -40);
  request = virtual_display_request({}, {}, displays, 1, {3840, 2720});
  EXPECT_EQ(request.place.x, 3840);
  request = virtual_display_request({}, {}, {}, -1, {});
  EXPECT_EQ(request.place.x, 0);
  EXPECT_EQ(request.place.y, 0);
  request = virtual_display_request({}, {}, {left}, 0, {});
  EXPECT_EQ(request.place.x, 0);
  left.right = -10;
  EXPECT_EQ(virtual_display_request({}, {}, {left}, 0, {}).place.x, -10);
}

TEST(NoDisplayMessage, SaysForScreen0WhetherTheVirtualDisplayFailed) {
  EXPECT_EQ(no_display_message(0, {}, VIRTUAL_DISPLAY_AUTO, true),
            "no monitor is on and the virtual display failed");
  EXPECT_EQ(no_display_message(0, {monitor("V", 0, 0, false, true)}, VIRTUAL_DISPLAY_OFF, false),
            "no monitor is on and no virtual display driver is usable");
}

TEST(NoDisplayMessage, CountsTheOtherMonitorsForTheRest) {
  const std::string driver = " and no virtual display driver (see README: Virtual displays)";
  const MonitorEntry a = monitor("A", 0), b = monitor("B", 1920), c = monitor("C", 3840),
                     v = monitor("V", 5760, 0, false, true);
  const auto message = [](int screen, const std::vector<MonitorEntry>& entries) {
    return no_display_message(screen, entries, VIRTUAL_DISPLAY_AUTO, false);
  };
  EXPECT_EQ(message(1, {}), "only 0 other active monitors" + driver);
  EXPECT_EQ(message(1, {a}), "only 0 other active monitors" + driver);
  EXPECT_EQ(message(2, {a, b, v}), "only 1 other active monitor" + driver);
  EXPECT_EQ(message(3, {a, b, c}), "only 2 other active monitors" + driver);
  EXPECT_EQ(message(1, {v}), "only 0 other active monitors" + driver);
  EXPECT_EQ(no_display_message(2, {a, b}, VIRTUAL_DISPLAY_OFF, false),
            "only 1 other active monitor and --virtual-display off");
}

TEST(BadScreenMessage, NamesTheLastScreen) {
  EXPECT_EQ(bad_screen_message(), "screens are 0..3");
}

TEST(PhysicalInsteadReason, TellsTheThreeCases) {
  EXPECT_STREQ(physical_instead_reason(VIRTUAL_DISPLAY_ALWAYS, false),
               "no usable virtual display driver");
  EXPECT_STREQ(physical_instead_reason(VIRTUAL_DISPLAY_AUTO, true),
               "--virtual-display auto uses it only without a monitor");
  EXPECT_STREQ(physical_instead_reason(VIRTUAL_DISPLAY_ALWAYS, true), "virtual display failed");
}

TEST(VirtualDisplayModeOf, AnythingButOffAndAlwaysIsAuto) {
  EXPECT_EQ(virtual_display_mode("off"), VIRTUAL_DISPLAY_OFF);
  EXPECT_EQ(virtual_display_mode("always"), VIRTUAL_DISPLAY_ALWAYS);
  EXPECT_EQ(virtual_display_mode("auto"), VIRTUAL_DISPLAY_AUTO);
  EXPECT_EQ(virtual_display_mode(""), VIRTUAL_DISPLAY_AUTO);
}

// ---- Stream values

struct SizeCase {
  int width, height;
  std::uint16_t max_width, max_height;
  int expected_width, expected_height;
};

class StreamSize : public testing::TestWithParam<SizeCase> {};

TEST_P(StreamSize, FitsTheClientKeepsTheAspectAndIsEven) {
  const SizeCase& c = GetParam();
  const StreamValues values =
      stream(hello_of(c.max_width, c.max_height), display(c.width, c.height));
  EXPECT_EQ(values.width, c.expected_width);
  EXPECT_EQ(values.height, c.expected_height);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, StreamSize,
    testing::Values(SizeCase{2560, 1440, 1920, 1200, 1920, 1080},
                    SizeCase{1366, 769, 0, 0, 1366, 768}, SizeCase{3440, 1440, 1824, 0, 1824, 762},
                    SizeCase{1920, 1080, 3840, 2160, 1920, 1080},
                    SizeCase{1920, 1080, 0, 540, 960, 540},
                    SizeCase{1920, 1080, 1919, 1080, 1918, 1078},
                    SizeCase{0, 1080, 800, 600, 64, 64}, SizeCase{1920, -1, 0, 0, 64, 64},
                    SizeCase{1920, 1080, 100, 100, 100, 64}, SizeCase{32, 20, 0, 0, 64, 64},
                    SizeCase{8192, 8192, 8191, 0, 8190, 8190}));

// A limit that is met must be met exactly: a ratio in floating point falls one short of some.
TEST(StreamSizeExact, EveryEvenWidthLimitGivesThatWidth) {
  for (int width : {1366, 1920, 2560, 3440, 3840, 5120})
    for (int limit = 64; limit <= width; limit += 2)
      ASSERT_EQ(stream(hello_of(static_cast<std::uint16_t>(limit), 0), display(width, 1440)).width,
                limit)
          << width;
}

TEST(StreamRate, IsCappedByTheDisplayUnlessItsRateIsUnknown) {
  lund_hello hello;
  hello.fps = 60;
  EXPECT_EQ(stream(hello, display(1920, 1080, 30)).fps, 30);
  EXPECT_EQ(stream(hello, display(1920, 1080, 0)).fps, 60);
  EXPECT_EQ(stream(hello, display(1920, 1080, 144)).fps, 60);
  hello.fps = 1000;
  EXPECT_EQ(stream(hello, display(1920, 1080, 0)).fps, 240);
  HostOptions options;
  options.fps = 48;
  EXPECT_EQ(stream({}, display(1920, 1080), LUND_PATH_LAN, options).fps, 48);
  options.fps = 0;
  EXPECT_EQ(stream({}, display(1920, 1080), LUND_PATH_LAN, options).fps, 1);
}

TEST(StreamBitrate, TheClientsIsClampedAndTheHostsTakenAsItIs) {
  HostOptions options;
  options.bitrate_kbps = 100;
  lund_hello hello;
  EXPECT_EQ(stream(hello, display(1920, 1080), LUND_PATH_LAN, options).bitrate_kbps, 100);
  hello.bitrate_kbps = 1;
  EXPECT_EQ(stream(hello).bitrate_kbps, 500);
  hello.bitrate_kbps = 12'345;
  EXPECT_EQ(stream(hello).bitrate_kbps, 12'345);
  hello.bitrate_kbps = 0xFFFFFFFF;
  EXPECT_EQ(stream(hello).bitrate_kbps, 500'000);
}

TEST(StreamCodec, OneIsHevcTwoIsH264AndTheRestIsTheHostsChoice) {
  HostOptions h264;
  h264.hevc = false;
  lund_hello hello;
  for (const auto& [codec, with_hevc, with_h264] :
       {std::tuple{1, true, true}, {2, false, false}, {0, true, false}, {9, true, false}}) {
    hello.codec = static_cast<std::uint8_t>(codec);
    EXPECT_EQ(stream(hello).hevc, with_hevc) << codec;
    EXPECT_EQ(stream(hello, display(1920, 1080), LUND_PATH_LAN, h264).hevc, with_h264) << codec;
  }
}

TEST(StreamDatagram, IsBoundByPathHostAndClientAndNeverBelow600) {
  const auto datagram = [](std::uint16_t client, int path, int host = 1400) {
    HostOptions options;
    options.max_datagram = host;
    lund_hello hello;
    hello.max_datagram = client;
    const StreamValues values = choose_stream(hello, options, display(1920, 1080), path);
    EXPECT_EQ(values.payload, values.datagram - 24);
    return values.datagram;
  };
  EXPECT_EQ(datagram(0, LUND_PATH_LAN), 1400);
  for (int path : {LUND_PATH_NONE, LUND_PATH_DIRECT, LUND_PATH_P2P, LUND_PATH_RELAY})
    EXPECT_EQ(datagram(0, path), 1200) << path;
  EXPECT_EQ(datagram(100, LUND_PATH_LAN), 600);
  EXPECT_EQ(datagram(1000, LUND_PATH_LAN), 1000);
  EXPECT_EQ(datagram(1472, LUND_PATH_LAN), 1400);
  EXPECT_EQ(datagram(1300, LUND_PATH_LAN, 1100), 1100);  // above the host's: ignored
  EXPECT_EQ(datagram(0, LUND_PATH_LAN, 106), 600);
  EXPECT_EQ(datagram(0, LUND_PATH_LAN, 1472), 1400);
}

TEST(StreamFec, TheClientsOrTheHosts) {
  lund_hello hello;
  EXPECT_EQ(stream(hello).fec_percent, 15);
  hello.fec_percent = 40;
  EXPECT_EQ(stream(hello).fec_percent, 40);
}
