// HELLOs on the receive thread: what each decision does to running sessions and queued setups.
#include <gmock/gmock.h>

#include "host/server.h"
#include "tests/support/host_world.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {
class HelloTest : public HostWorld {};
}  // namespace

TEST_F(HelloTest, AnotherClientIsBusyAlsoForABadScreenAndItIsLoggedEvery5Seconds) {
  TestLink tablet = connected(TABLET, "192.168.1.30:5000");  // while the host is still free
  stream();
  log();
  for (int i = 0; i < 3; ++i) {
    const auto ack = answer(tablet, hello_for(9));
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->status, LUND_HELLO_BUSY);
  }
  const std::string line =
      "HELLO from \"Tablet\" (" + tablet.code() + "): busy (another device is connected)";
  EXPECT_THAT(log(), Contains(line).Times(1));
  virtual_time::advance_us(5'000'000);
  tablet.hello();
  EXPECT_THAT(log(), Not(Contains(line)));
  virtual_time::advance_us(1);
  tablet.hello();
  EXPECT_THAT(log(), Contains(line));
}

TEST_F(HelloTest, ABadScreenIsRefusedAndLoggedEvery5SecondsAScreen) {
  TestLink laptop = connected();
  log();
  const auto ack = answer(laptop, hello_for(4));
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_REFUSED);
  const std::string line = "HELLO for screen 4 from \"Laptop\" (" + laptop.code() +
                           ") rejected (status 4, no such screen): screens are 0..3";
  EXPECT_THAT(log(), Contains(line));
  laptop.hello(hello_for(5));  // shares the time stamp
  EXPECT_THAT(log(), IsEmpty());
  virtual_time::advance_us(4'999'999);
  laptop.hello(hello_for(4));
  EXPECT_THAT(log(), IsEmpty());
  virtual_time::advance_us(1);
  laptop.hello(hello_for(4));
  EXPECT_THAT(log(), ElementsAre(line));
}

TEST_F(HelloTest, TheSameHelloBeforeAnythingElseGetsTheSameAckAndAKeyframe) {
  platform.displays[0].width = 2560;
  TestLink laptop = connected();
  const auto first = answer(laptop);
  ASSERT_TRUE(first);
  EXPECT_EQ(platform.captures[0]->keyframe_requests, 0);
  const auto second = answer(laptop);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->width, first->width);
  EXPECT_EQ(second->max_datagram, first->max_datagram);
  EXPECT_EQ(second->bitrate_kbps, first->bitrate_kbps);
  EXPECT_EQ(platform.captures[0]->keyframe_requests, 1);
  EXPECT_EQ(platform.captures.size(), 1u);
}

TEST_F(HelloTest, TheSameHelloAfterOtherPacketsRebuildsTheSession) {
  TestLink laptop = stream();
  laptop.ping();
  log();
  const auto ack = answer(laptop);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_ACCEPTED);
  EXPECT_EQ(platform.captures.size(), 2u);
  EXPECT_EQ(platform.captures[0]->stops, 1);
  EXPECT_EQ(host().sessions().size(), 1u);
  EXPECT_THAT(
      log(),
      Contains(HasSubstr(" ended (replaced by a new HELLO from the same client): \"Laptop\"")));
}

TEST_F(HelloTest, AReplacementOnAnotherEngineSessionClosesTheOldOneWithoutABye) {
  TestLink old = stream();
  TestLink fresh = connected();
  ASSERT_TRUE(answer(fresh));
  EXPECT_EQ(host().sessions().size(), 1u);
  EXPECT_TRUE(session(fresh));
  EXPECT_THAT(old.receive(LUND_PKT_BYE), IsEmpty());
  old.hello();  // nobody knows the old link any more
  setup();
  EXPECT_FALSE(old.hello_ack());
}

TEST_F(HelloTest, ARepeatedHelloDuringTheSetupIsIgnored) {
  TestLink laptop = connected();
  laptop.hello();
  laptop.hello();
  EXPECT_EQ(host().status().pending, 1u);
  setup();
  EXPECT_TRUE(laptop.hello_ack());
  EXPECT_EQ(platform.captures.size(), 1u);
}

TEST_F(HelloTest, AnotherHelloDuringTheSetupCancelsItAndQueuesANewOne) {
  TestLink laptop = connected();
  lund_hello other;
  other.width = 800;
  other.height = 600;
  bool again = true;
  platform.prepare_capture = [&](FakeCapture& capture) {
    capture.during_init = [&] {
      if (again) laptop.hello(other);
      again = false;
    };
  };
  laptop.hello();
  setup();
  const auto ack = laptop.hello_ack();  // one only
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->width, 800);
  EXPECT_EQ(platform.captures.size(), 2u);
  EXPECT_EQ(platform.captures[0]->starts, 0);
  EXPECT_EQ(host().status().pending, 0u);
}

TEST_F(HelloTest, AScreenNeedsAnEngineSessionOfItsOwn) {
  platform.add_display("DP-2", 1920);
  platform.add_display("DP-3", 3840);
  TestLink main = stream();
  stream(hello_for(1));
  main.hello(hello_for(2));
  setup();
  EXPECT_FALSE(main.hello_ack());
  EXPECT_EQ(host().sessions().size(), 2u);
  stream(hello_for(2));
  EXPECT_EQ(host().sessions().size(), 3u);
}

TEST_F(HelloTest, AHelloThatDoesNotDecodeGetsNoAnswer) {
  TestLink laptop = connected();
  laptop.send(peer::packet(LUND_PKT_HELLO, 0, peer::bytes(30)));
  setup();
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(HelloTest, AHelloWithoutTheLastTwoBytesIsForScreen0) {
  TestLink laptop = connected();
  laptop.send(peer::packet(LUND_PKT_HELLO, 0, peer::bytes(31)));
  setup();
  EXPECT_TRUE(laptop.hello_ack());
  EXPECT_EQ(session(laptop)->setup.screen, 0);
}

// ---- Races

// The moment between the end of the old session and the queueing of the new one is the only one in
// which another client's HELLO finds the host free.
TEST_F(HelloTest, AClientThatLostTheRaceIsBusyAndLeavesNoLease) {
  TestLink tablet = connected(TABLET, "192.168.1.30:5000");
  TestLink laptop = stream();
  laptop.ping();
  laptop.receive();
  platform.captures[0]->during_stop = [&] { tablet.hello(); };
  laptop.hello();
  EXPECT_EQ(host().status().pending, 2u);
  ASSERT_TRUE(host().setup_step());
  EXPECT_TRUE(session(tablet));
  platform.displays.clear();
  platform.virtual_displays->usable = true;
  ASSERT_TRUE(host().setup_step());
  const auto ack = laptop.hello_ack();
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->status, LUND_HELLO_BUSY);
  EXPECT_EQ(host().sessions().size(), 1u);
  EXPECT_THAT(platform.virtual_displays->calls, ElementsAre("acquire 0 1920 1080 60", "release 0"));
  EXPECT_EQ(platform.captures.back()->object, nullptr);
}

TEST_F(HelloTest, ASetupCancelledWhileItLooksForADisplayReleasesItAndSaysNothing) {
  platform.displays.clear();
  platform.virtual_displays->usable = true;
  TestLink laptop = connected();
  platform.on_list_displays = [&] {
    platform.on_list_displays = nullptr;
    laptop.hello(wants_virtual());
  };
  laptop.hello();
  ASSERT_TRUE(host().setup_step());
  EXPECT_THAT(platform.captures, IsEmpty());
  EXPECT_EQ(platform.virtual_displays->leases, 0);
  EXPECT_THAT(laptop.receive(), IsEmpty());
  setup();
  EXPECT_TRUE(laptop.hello_ack());
  EXPECT_EQ(platform.virtual_displays->leases, 1);
}
