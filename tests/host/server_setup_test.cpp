// From a HELLO to a running session, every refusal on the way, and the end.
#include <gmock/gmock.h>

#include "host/server.h"
#include "tests/support/host_world.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

std::string id_text(const TestLink& link) {
  char text[9];
  std::snprintf(text, sizeof text, "%08x", link.id());
  return text;
}

class SessionSetupTest : public HostWorld {
 protected:
  // A HELLO that no display serves.
  std::string refusal(const lund_hello& hello) {
    TestLink laptop = connected();
    log();
    const auto ack = answer(laptop, hello);
    EXPECT_TRUE(ack);
    if (ack) {
      EXPECT_EQ(ack->status, LUND_HELLO_REFUSED);
      EXPECT_EQ(ack->codec, 0);
      EXPECT_EQ(ack->width, 0);
      EXPECT_EQ(ack->max_datagram, 0);
    }
    EXPECT_THAT(host().sessions(), IsEmpty());
    EXPECT_EQ(platform.virtual_displays->leases, 0);
    const std::string start = "HELLO for screen " + std::to_string(hello.screen) +
                              " from \"Laptop\" (" + laptop.code() +
                              ") rejected (status 4, no such screen): ";
    for (const std::string& line : log())
      if (line.starts_with(start)) return line.substr(start.size());
    return "(no line)";
  }
};

}  // namespace

// ---- A session comes up

TEST_F(SessionSetupTest, TheHelloAckTellsWhatWillStream) {
  platform.displays[0].width = 2560;
  platform.displays[0].height = 1440;
  platform.prepare_capture = [](FakeCapture& capture) { capture.hevc = true; };
  TestLink laptop = connected();
  lund_hello hello;
  hello.width = 1920;
  hello.height = 1200;
  hello.fps = 144;
  hello.bitrate_kbps = 15'000;
  hello.codec = 2;
  const auto ack = answer(laptop, hello);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_ACCEPTED);
  EXPECT_EQ(ack->codec, 1);  // of the encoder that is really open
  EXPECT_EQ(ack->width, 1920);
  EXPECT_EQ(ack->height, 1080);
  EXPECT_EQ(ack->fps, 60);
  EXPECT_EQ(ack->bitrate_kbps, 15'000u);
  EXPECT_EQ(ack->max_datagram, 1376);  // the payload
  const VideoSettings& settings = platform.captures[0]->settings;
  EXPECT_EQ(settings.display.device, "DP-1");
  EXPECT_EQ(settings.width, 1920);
  EXPECT_EQ(settings.height, 1080);
  EXPECT_EQ(settings.fps, 60);
  EXPECT_EQ(settings.bitrate_kbps, 15'000);
  EXPECT_FALSE(settings.prefer_hevc);
  EXPECT_EQ(platform.captures[0]->starts, 1);
}

TEST_F(SessionSetupTest, TheStartLineTellsAll) {
  options.encoder = "libx";
  TestLink laptop = connected();
  log();
  lund_hello hello;
  hello.width = 1280;
  hello.height = 800;
  hello.fps = 30;
  hello.audio = 1;
  platform.prepare_capture = [](FakeCapture& capture) {
    capture.during_init = [] { virtual_time::advance_ms(250); };
  };
  ASSERT_TRUE(answer(laptop, hello));
  EXPECT_EQ(platform.captures[0]->settings.encoder, "libx");
  EXPECT_TRUE(logged("session " + id_text(laptop) + " started: \"Laptop\" (" + laptop.code() +
                     ") via LAN 192.168.1.20:5000, H.264 1280x720@30 20000 kbps, datagram 1400 "
                     "(payload 1376), FEC 15%, audio on, encoder libopenh264 (display DP-1 "
                     "1920x1080@60Hz, client max 1280x800@30 mode 0, setup 250 ms)"));
}

TEST_F(SessionSetupTest, ASideScreensStartLineNamesItAndItsVirtualDisplay) {
  platform.virtual_displays->usable = true;
  platform.virtual_displays->display.device = "VIRTUAL-1";
  platform.virtual_displays->display.width = 800;
  platform.virtual_displays->display.height = 600;
  platform.virtual_displays->display.refresh_hz = 50;
  stream();
  log();
  lund_hello hello = wants_virtual(2);
  hello.fec_percent = 30;
  TestLink side = stream(hello);
  EXPECT_TRUE(logged("screen 2: session " + id_text(side) + " started: \"Laptop\" (" + side.code() +
                     ") via LAN 192.168.1.20:5000, H.264 800x600@50 20000 kbps, datagram 1400 "
                     "(payload 1376), FEC 30%, audio off, encoder libopenh264 (virtual display "
                     "VIRTUAL-1 800x600@50Hz, client max 0x0@0 mode 1, setup 0 ms)"));
}

TEST_F(SessionSetupTest, Screen0DecidesWhatTheHostShows) {
  platform.add_display("DP-2", 1920);
  options.display = "dp-2";
  EXPECT_EQ(host().display().device, "");
  stream();
  EXPECT_EQ(host().display().device, "DP-2");
  stream(hello_for(1));
  EXPECT_EQ(host().display().device, "DP-2");
  EXPECT_EQ(platform.captures[1]->settings.display.device, "DP-1");
}

TEST_F(SessionSetupTest, TheDisplayGivenAtTheStartIsWantedByItsDeviceName) {
  platform.add_display("DP-2", 1920);
  options.display = "1";  // an index that has been resolved
  initial_display = platform.displays[1];
  stream();
  EXPECT_EQ(platform.captures[0]->settings.display.device, "DP-2");
}

TEST_F(SessionSetupTest, OverAnotherPathDatagramsAreSmaller) {
  TestLink laptop = link(LAPTOP, "8.8.8.8:5000");
  ASSERT_TRUE(laptop.connect());
  const auto ack = answer(laptop);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->max_datagram, 1176);
}

TEST_F(SessionSetupTest, ThePathIsThatOfTheMomentNotOfTheHello) {
  TestLink laptop = connected();
  laptop.hello();
  laptop.send_from("8.8.8.8:5000", peer::packet(LUND_PKT_PING));
  setup();
  const auto ack = laptop.hello_ack();
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->max_datagram, 1176);
}

TEST_F(SessionSetupTest, ASlowSetupDoesNotCountAsSilence) {
  platform.prepare_capture = [](FakeCapture& capture) {
    capture.during_init = [] { virtual_time::advance_ms(10'000); };
  };
  stream();
  run_ms(3'000);
  EXPECT_EQ(host().sessions().size(), 1u);
}

TEST_F(SessionSetupTest, TheClipboardBelongsToScreen0) {
  platform.add_display("DP-2", 1920);
  TestLink laptop = stream();
  TestLink side = stream(hello_for(1));
  EXPECT_THAT(platform.clipboard->calls, ElementsAre("start 1376"));
  const peer::bytes chunk = peer::packet(LUND_PKT_CLIPBOARD, 0, peer::bytes(20));
  EXPECT_TRUE(platform.clipboard->send(chunk.data(), chunk.size()));
  EXPECT_EQ(laptop.receive(LUND_PKT_CLIPBOARD).size(), 1u);
  side.bye();
  EXPECT_EQ(platform.clipboard->calls.size(), 1u);
  laptop.bye();
  EXPECT_EQ(platform.clipboard->calls.back(), "end");
}

TEST_F(SessionSetupTest, AClientThatSaysByeAtItsHelloAckStartsNoCapture) {
  TestLink laptop = connected();
  platform.clipboard->on_start = [&] { laptop.bye(); };  // between the HELLO_ACK and the start
  laptop.hello();
  setup();
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_EQ(platform.captures[0]->starts, 0);
  EXPECT_EQ(platform.captures[0]->object, nullptr);
  EXPECT_EQ(platform.clipboard->calls.back(), "end");
}

// ---- No display

TEST_F(SessionSetupTest, WithNoMonitorAndNoDriverScreen0IsRefused) {
  platform.displays.clear();
  EXPECT_EQ(refusal({}), "no monitor is on and no virtual display driver is usable");
}

TEST_F(SessionSetupTest, AVirtualDisplayThatFailsIsRefusedWithItsOwnReason) {
  platform.displays.clear();
  platform.virtual_displays->usable = true;
  platform.virtual_displays->acquire_succeeds = false;
  platform.virtual_displays->reason = "the driver sleeps";
  EXPECT_EQ(refusal({}), "the driver sleeps");
  platform.virtual_displays->reason = "";
  EXPECT_EQ(refusal({}), "no monitor is on and the virtual display failed");
}

TEST_F(SessionSetupTest, ASideScreenWithoutAMonitorIsRefusedWithTheCount) {
  const std::string driver = " and no virtual display driver (see README: Virtual displays)";
  EXPECT_EQ(refusal(hello_for(1)), "only 0 other active monitors" + driver);
  platform.add_display("DP-2", 1920);
  EXPECT_EQ(refusal(hello_for(2)), "only 1 other active monitor" + driver);
  platform.displays.clear();
  EXPECT_EQ(refusal(hello_for(1)), "only 0 other active monitors" + driver);
}

TEST_F(SessionSetupTest, WithVirtualDisplaysOffTheRefusalSaysSo) {
  options.virtual_display = "off";
  platform.virtual_displays->usable = true;
  EXPECT_EQ(refusal(hello_for(1)), "only 0 other active monitors and --virtual-display off");
  EXPECT_THAT(platform.virtual_displays->calls, IsEmpty());
}

TEST_F(SessionSetupTest, ARefusalForWantOfADisplayIsLoggedEveryTime) {
  platform.displays.clear();
  EXPECT_NE(refusal({}), "(no line)");
  EXPECT_NE(refusal({}), "(no line)");
}

TEST_F(SessionSetupTest, WhatStandsInTheWayOfAllDisplaysIsSaid) {
  platform.displays.clear();
  platform.obstacle = "this is a Wayland session";
  TestLink laptop = connected();
  log();
  answer(laptop);
  EXPECT_TRUE(logged("screen 0: this is a Wayland session"));
}

// ---- Virtual displays

TEST_F(SessionSetupTest, WithoutAMonitorAVirtualDisplayStandsIn) {
  platform.displays.clear();
  platform.virtual_displays->usable = true;
  platform.virtual_displays->display.device = "VIRTUAL-1";
  lund_hello hello;
  hello.width = 1600;
  hello.height = 900;
  hello.fps = 50;
  TestLink laptop = stream(hello);
  EXPECT_THAT(platform.virtual_displays->calls, ElementsAre("acquire 0 1600 900 50"));
  EXPECT_TRUE(session(laptop)->setup.virtual_lease);
  laptop.bye();
  EXPECT_EQ(platform.virtual_displays->calls.back(), "release 0");
}

TEST_F(SessionSetupTest, VirtualSideScreensLandToTheRightOfEachOther) {
  platform.virtual_displays->usable = true;
  platform.virtual_displays->display.right = 3200;
  stream();
  stream(hello_for(1));
  stream(hello_for(2));
  EXPECT_THAT(platform.virtual_displays->calls,
              ElementsAre("acquire 1 1920 1080 60 at 1920,0", "acquire 2 1920 1080 60 at 3200,0"));
}

TEST_F(SessionSetupTest, UnderAlwaysTheClientThatAsksGetsAVirtualDisplay) {
  options.virtual_display = "always";
  platform.virtual_displays->usable = true;
  stream(wants_virtual());
  EXPECT_THAT(platform.virtual_displays->calls, ElementsAre("acquire 0 1920 1080 60"));
}

TEST_F(SessionSetupTest, AVirtualDisplayThatFailsFallsBackToTheMonitor) {
  options.virtual_display = "always";
  platform.virtual_displays->usable = true;
  platform.virtual_displays->acquire_succeeds = false;
  platform.virtual_displays->reason = "no free monitor";
  start_host();
  log();
  TestLink laptop = stream(wants_virtual());
  EXPECT_FALSE(session(laptop)->setup.virtual_lease);
  const std::vector<std::string> lines = log();
  EXPECT_THAT(lines, Contains("screen 0: virtual display unavailable (no free monitor); streaming "
                              "a physical monitor"));
  EXPECT_THAT(lines, Contains("screen 0: client asked for a virtual display; streaming the "
                              "physical monitor (virtual display failed)"));
}

TEST_F(SessionSetupTest, AClientThatAskedForAVirtualDisplayIsToldInTheLogWhyNot) {
  start_host();
  stream(wants_virtual());
  EXPECT_TRUE(
      logged("screen 0: client asked for a virtual display; streaming the physical "
             "monitor (no usable virtual display driver)"));
  platform.virtual_displays->usable = true;
  platform.add_display("DP-2", 1920);
  stream(wants_virtual(1));
  EXPECT_TRUE(
      logged("screen 1: client asked for a virtual display; streaming the physical "
             "monitor (--virtual-display auto uses it only without a monitor)"));
}

// ---- No capture

TEST_F(SessionSetupTest, WithoutACaptureTheClientGetsAByeAndNoHelloAck) {
  platform.displays.clear();
  platform.virtual_displays->usable = true;
  platform.prepare_capture = [](FakeCapture& capture) { capture.init_succeeds = false; };
  TestLink laptop = connected();
  log();
  laptop.hello();
  setup();
  const std::vector<peer::bytes> packets = laptop.receive();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].size(), LUND_HEADER_SIZE);
  EXPECT_EQ(packets[0][2], LUND_PKT_BYE);
  laptop.hello();  // the link is closed
  EXPECT_EQ(host().status().pending, 0u);
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_EQ(platform.virtual_displays->leases, 0);
  const std::vector<std::string> lines = log();
  EXPECT_THAT(lines,
              Contains("screen 0: capture/encoder initialization failed; rejecting session"));
  EXPECT_THAT(lines, Contains("screen 0: session rejected: no working capture/encoder"));
}

TEST_F(SessionSetupTest, OnAGeForceTheLimitOfItsEncodersIsNamed) {
  platform.displays[0].name = "NVIDIA GeForce RTX 4070";
  platform.prepare_capture = [](FakeCapture& capture) { capture.init_succeeds = false; };
  TestLink laptop = connected();
  laptop.hello();
  setup();
  EXPECT_TRUE(logged(
      "screen 0: no encoder opened. GeForce GPUs allow a limited number of concurrent NVENC "
      "sessions (8 on current drivers, 3-5 on older ones); Parsec, OBS, ShadowPlay and Discord "
      "count too"));
}

TEST_F(SessionSetupTest, TheSecondSessionOfOneHardwareEncoderIsCounted) {
  platform.add_display("DP-2", 1920);
  platform.prepare_capture = [](FakeCapture& capture) { capture.encoder = "hevc_nvenc"; };
  const std::string line =
      "screen 1: 2 concurrent hevc_nvenc sessions now (GeForce limit: 8 on current drivers, 3-5 on "
      "older ones, shared with other apps)";
  stream();
  EXPECT_THAT(log(), Not(Contains(HasSubstr("concurrent"))));
  stream(hello_for(1));
  EXPECT_TRUE(logged(line));
}

TEST_F(SessionSetupTest, ACancelledSetupWhoseCaptureFailsTellsTheClientNothing) {
  TestLink laptop = connected();
  platform.prepare_capture = [&](FakeCapture& capture) {
    capture.init_succeeds = false;
    if (platform.captures.size() == 1) capture.during_init = [&] { laptop.hello(wants_virtual()); };
  };
  laptop.hello();
  ASSERT_TRUE(host().setup_step());
  EXPECT_THAT(laptop.receive(), IsEmpty());
  ASSERT_TRUE(host().setup_step());
  EXPECT_EQ(laptop.receive(LUND_PKT_BYE).size(), 1u);
}

// ---- The end

TEST_F(SessionSetupTest, TheEndLineSumsTheSessionUp) {
  TestLink laptop = stream();
  laptop.input(1, {{LUND_INPUT_KEY, 1, 4, 0, 0}});
  platform.captures[0]->frame(true, 1'500'000 / 2);
  platform.captures[0]->frame(false, 1'500'000 / 2);
  fake_udp().sends_fail = true;
  platform.captures[0]->frame(false, 1);
  fake_udp().sends_fail = false;
  run_ms(1'500);
  log();
  laptop.bye();
  EXPECT_TRUE(logged("session " + id_text(laptop) + " ended (BYE from client): \"Laptop\" (" +
                     laptop.code() + "), 1.5 s, 3 frames, 1.5 MB, 1 keyframes, 3 send errors"));
  EXPECT_EQ(platform.input->calls.back(), "key 4 up");
}

TEST_F(SessionSetupTest, TheClientsByeIsNotAnswered) {
  TestLink laptop = stream();
  laptop.bye();
  EXPECT_THAT(laptop.receive(LUND_PKT_BYE), IsEmpty());
}

TEST_F(SessionSetupTest, EndingScreen0EndsTheClientsOtherScreensAndSetups) {
  for (const char* device : {"DP-2", "DP-3", "DP-4"})
    platform.add_display(device, 1920 * static_cast<int>(platform.displays.size()));
  TestLink main = stream();
  TestLink one = stream(hello_for(1)), two = stream(hello_for(2));
  TestLink three = connected();
  three.hello(hello_for(3));
  log();
  main.bye();
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_EQ(host().status().pending, 0u);
  EXPECT_EQ(one.receive(LUND_PKT_BYE).size(), 1u);
  EXPECT_EQ(two.receive(LUND_PKT_BYE).size(), 1u);
  std::vector<std::string> lines = log();
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("conn: "); });
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[0], HasSubstr(" ended (BYE from client): "));
  EXPECT_THAT(lines[1], AllOf(StartsWith("screen 1: session "), HasSubstr(" (screen 0 ended): ")));
  EXPECT_THAT(lines[2], AllOf(StartsWith("screen 2: session "), HasSubstr(" (screen 0 ended): ")));
  two.hello(hello_for(2));  // the links are closed too
  EXPECT_EQ(host().status().pending, 0u);
}

TEST_F(SessionSetupTest, EndingASideScreenEndsOnlyThat) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  side.bye();
  EXPECT_EQ(host().sessions().size(), 1u);
  EXPECT_TRUE(session(main));
}

TEST_F(SessionSetupTest, EndingASessionThatIsGoneDoesNothing) {
  TestLink laptop = stream();
  const auto ended = session(laptop);
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  host().end_session(ended, "one", false, true, true);
  log();
  host().end_session(ended, "two", true, true, true);
  EXPECT_EQ(changes, 1);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(laptop.receive(LUND_PKT_BYE), IsEmpty());
}

TEST_F(SessionSetupTest, TheMarkIsTheMainScreensAndGoesWithIt) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream({}, LAPTOP, "192.168.1.20:5000");
  TestLink side = stream(hello_for(1), LAPTOP, "192.168.1.20:5001");
  EXPECT_TRUE(lund_rv_endpoint_equal(*fake_udp().marked, peer::at("192.168.1.20:5000")));
  host().end_session(session(main), "test", false, false, true);
  EXPECT_FALSE(fake_udp().marked);  // the other screen doesn't take it over
  TestLink again = stream({}, LAPTOP, "192.168.1.20:5002");
  EXPECT_TRUE(lund_rv_endpoint_equal(*fake_udp().marked, peer::at("192.168.1.20:5002")));
}

TEST_F(SessionSetupTest, ASideScreenAloneIsMarkedToo) {
  platform.add_display("DP-2", 1920);
  stream(hello_for(1));
  EXPECT_TRUE(fake_udp().marked);
}
