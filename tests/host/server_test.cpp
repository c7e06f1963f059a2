// The host's core: datagrams, engine events, discovery, start and end.
#include "host/server.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "connection/byte_order.h"
#include "control/keystore.h"
#include "tests/support/host_world.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* SOMEBODY = "192.168.1.77:40000";

peer::bytes discover(std::uint32_t nonce) {
  peer::bytes body(4);
  store_le(body.data(), nonce);
  return peer::packet(LUND_PKT_DISCOVER, 0, body);
}

class HostServerTest : public HostWorld {
 protected:
  // The reply to a DISCOVER that is made now, if there is one.
  std::optional<lund_discover_reply> ask(std::uint32_t nonce, const char* from = SOMEBODY) {
    const std::size_t before = fake_udp().sent.size();
    deliver(discover(nonce), from);
    if (fake_udp().sent.size() == before) return std::nullopt;
    const peer::bytes& bytes = fake_udp().sent.back().bytes;
    lund_discover_reply reply;
    EXPECT_EQ(lund_decode_discover_reply(bytes.data(), bytes.size(), &reply), 0);
    return reply;
  }

  // A pairing by PIN, up to the event.
  void pair(engine_peer& device, const char* from = SOMEBODY) {
    host().pairing_open(0);
    const std::string pin = host().pairing_status().pin;
    deliver(device.pair_init(pin.c_str(), LUND_KIND_PIN, "Phone"), from);
    const peer::bytes confirm = device.pair_take(fake_udp().sent.back().bytes);
    deliver(confirm, from);
  }
};

}  // namespace

TEST_F(HostServerTest, AClientComesInStreamsAndLeaves) {
  TestLink laptop = stream();
  platform.captures[0]->frame(true, 5'000);
  EXPECT_FALSE(laptop.receive(LUND_PKT_VIDEO_SHARD).empty());
  laptop.bye();
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_EQ(platform.captures[0]->stops, 1);
}

TEST_F(HostServerTest, TheStartTellsWhoTheHostIs) {
  options.virtual_display = "off";
  start_host();
  const std::vector<std::string> lines = log();
  EXPECT_THAT(lines,
              Contains(HasSubstr("identity " + host().key_code() +
                                 "; 2 paired devices; pairing password not set; pairing closed; 0 "
                                 "rendezvous servers (none set: LAN / direct only); LAN ")));
  EXPECT_THAT(lines, Contains("virtual display driver: not installed (not used: "
                              "--virtual-display off)"));
}

TEST_F(HostServerTest, AHostWithNobodyStartsWithPairingOpenUnlessItIsTheMachines) {
  for (const bool machine : {false, true}) {
    options.machine_mode = machine;
    HostServer server(options, {}, platform.record());
    ASSERT_TRUE(server.open(nullptr));
    EXPECT_EQ(server.pairing_status().open, machine ? 0u : 1u);
    EXPECT_THAT(
        log(),
        Contains(HasSubstr(machine ? "; 0 paired devices; pairing password not set; pairing closed;"
                                   : "pairing open (no paired device yet);")));
  }
}

TEST_F(HostServerTest, APortThatIsTakenEndsTheStartWithTheSocketsWords) {
  fake_udp().open_fails = true;
  HostServer server(options, {}, platform.record());
  std::string error;
  EXPECT_FALSE(server.start(&error));
  EXPECT_EQ(error, "bind failed (errno 98)");
  EXPECT_FALSE(server.start(nullptr));
  EXPECT_THAT(server.paired_devices(), IsEmpty());
}

// ---- Discovery

TEST_F(HostServerTest, ADiscoverIsAnsweredWithWhatTheHostIs) {
  initial_display = platform.displays[0];
  const auto reply = ask(0x01020304);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->nonce, 0x01020304u);
  EXPECT_NE(reply->lan_id, 0u);
  EXPECT_EQ(reply->port, 9876);
  EXPECT_EQ(reply->width, 1920);
  EXPECT_EQ(reply->height, 1080);
  EXPECT_EQ(reply->busy, 0);
  EXPECT_NE(std::string(reply->name), "");
  EXPECT_THAT(log(), Contains(testing::StartsWith(
                         "DISCOVER from 192.168.1.77:40000 (to 0.0.0.0), replied from ")));
}

TEST_F(HostServerTest, ARepeatedDiscoverWithin500MsGetsNoReplyAndDoesNotCount) {
  ASSERT_TRUE(ask(1));
  virtual_time::advance_us(499'999);
  for (int i = 0; i < 30; ++i) EXPECT_FALSE(ask(1));
  virtual_time::advance_us(1);
  EXPECT_TRUE(ask(1));  // the second of its window
  EXPECT_TRUE(ask(1, "192.168.1.77:40001"));
  EXPECT_TRUE(ask(2, "192.168.1.77:40001"));
}

TEST_F(HostServerTest, The21stDiscoverOfASecondGetsNoReply) {
  for (std::uint32_t nonce = 1; nonce <= 20; ++nonce) EXPECT_TRUE(ask(nonce)) << nonce;
  EXPECT_FALSE(ask(21));
  virtual_time::advance_us(1'000'000);  // the window's last moment
  EXPECT_FALSE(ask(22));
  virtual_time::advance_us(1);
  EXPECT_TRUE(ask(23));
}

TEST_F(HostServerTest, OnlyTheFirstDiscoverOfAWindowIsLogged) {
  for (std::uint32_t nonce = 1; nonce <= 5; ++nonce) ask(nonce);
  EXPECT_EQ(std::ranges::count_if(
                log(), [](const std::string& line) { return line.starts_with("DISCOVER"); }),
            1);
}

TEST_F(HostServerTest, AHostWithNoDisplayAnswersDiscoverWith1920By1080) {
  platform.displays.clear();
  const auto reply = ask(1);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->width, 1920);
  EXPECT_EQ(reply->height, 1080);
}

TEST_F(HostServerTest, DiscoverTellsThatASessionRunsAndWhatScreen0Shows) {
  platform.displays[0].width = 70'000;
  stream();
  const auto reply = ask(1);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->busy, 1);
  EXPECT_EQ(reply->width, 65'535);
}

TEST_F(HostServerTest, AShortDiscoverIsDropped) {
  const std::size_t before = (start_host(), fake_udp().sent.size());
  deliver(peer::packet(LUND_PKT_DISCOVER, 0, {1, 2, 3}), SOMEBODY);
  EXPECT_EQ(fake_udp().sent.size(), before);
}

// ---- Dispatch

TEST_F(HostServerTest, DatagramsThatAreNoPacketsAreDropped) {
  start_host();
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  const std::size_t before = fake_udp().sent.size();
  deliver({}, SOMEBODY);
  deliver(peer::bytes(7, 'P'), SOMEBODY);
  peer::bytes wrong_magic = discover(1);
  wrong_magic[0] = 'Q';
  deliver(wrong_magic, SOMEBODY);
  deliver(discover(1), "");  // a sender without an address
  EXPECT_EQ(fake_udp().sent.size(), before);
}

TEST_F(HostServerTest, BeforeAHelloOnlyHelloAndPairBackAreHeard) {
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  laptop.ping();
  EXPECT_THAT(laptop.receive(), IsEmpty());
  laptop.send(peer::packet(LUND_PKT_PAIR_BACK, 0, {1, 0, 0, 0}));
  EXPECT_EQ(laptop.receive(LUND_PKT_PAIR_BACK_ACK).size(), 1u);
  laptop.hello();
  setup();
  EXPECT_TRUE(laptop.hello_ack());
  laptop.ping();
  EXPECT_EQ(laptop.receive(LUND_PKT_PONG).size(), 1u);
}

TEST_F(HostServerTest, APacketTooLargeIsNotEvenSealed) {
  TestLink laptop = stream();
  peer::bytes packet = peer::packet(LUND_PKT_AUDIO, 0, peer::bytes(1464));
  ASSERT_EQ(packet.size(), 1472u);
  EXPECT_TRUE(host().send_sealed(laptop.id(), packet.data(), packet.size(), nullptr));
  packet.push_back(0);
  std::uint64_t seal_ns = 77;
  EXPECT_FALSE(host().send_sealed(laptop.id(), packet.data(), packet.size(), &seal_ns));
  EXPECT_EQ(seal_ns, 77u);
  EXPECT_EQ(laptop.receive(LUND_PKT_AUDIO).size(), 1u);
}

TEST_F(HostServerTest, NothingIsSealedForAnUnknownSession) {
  TestLink laptop = stream();
  const peer::bytes packet = peer::packet(LUND_PKT_BYE);
  EXPECT_FALSE(host().send_sealed(laptop.id() + 1, packet.data(), packet.size(), nullptr));
}

// ---- Engine events

TEST_F(HostServerTest, APairedDeviceIsSavedAndLogged) {
  start_host();
  engine_peer phone(21, host_key);
  std::vector<std::uint32_t> events;
  int changes = 0;
  host().on_event = [&](const lund_conn_event& event) { events.push_back(event.type); };
  host().on_status_change = [&] { ++changes; };
  pair(phone);
  EXPECT_THAT(events, testing::IsSupersetOf({LUND_EV_PAIR_ATTEMPT, LUND_EV_PAIRED}));
  EXPECT_EQ(changes, 2);  // the window's opening and the pairing
  EXPECT_EQ(keystore::load_clients().count, 3);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, phone.key());
  EXPECT_TRUE(logged("paired with \"Phone\" (" + std::string(code) + ") using the PIN; saved"));
}

TEST_F(HostServerTest, APairingThatCannotBeSavedIsSaidAndStands) {
  start_host();
  engine_peer phone(21, host_key);
  int paired = 0;
  host().on_event = [&](const lund_conn_event& event) { paired += event.type == LUND_EV_PAIRED; };
  store().break_store();
  pair(phone);
  EXPECT_TRUE(logged("paired device persistence failed; authorization was not saved"));
  EXPECT_EQ(paired, 1);
  EXPECT_EQ(host().paired_devices().size(), 3u);
}

TEST_F(HostServerTest, OnTheMachineAPairingThatCannotBeSavedIsToldToNobody) {
  start_host();
  engine_peer phone(21, host_key);
  int paired = 0, changes = 0;
  host().on_event = [&](const lund_conn_event& event) { paired += event.type == LUND_EV_PAIRED; };
  store().break_machine_store();
  host().pairing_open(0);
  host().on_status_change = [&] { ++changes; };
  const std::string pin = host().pairing_status().pin;
  deliver(phone.pair_init(pin.c_str(), LUND_KIND_PIN, "Phone"), SOMEBODY);
  deliver(phone.pair_take(fake_udp().sent.back().bytes), SOMEBODY);
  EXPECT_TRUE(logged("paired device persistence failed; authorization was not saved"));
  EXPECT_EQ(paired, 0);
  EXPECT_EQ(changes, 0);
}

TEST_F(HostServerTest, APairingWithTheHostsOwnKeyIsUndoneAndNotSaved) {
  start_host();
  engine_peer self(1, host_key);
  self.keys = keystore::load_or_create_identity(nullptr);
  pair(self);
  EXPECT_EQ(host().paired_devices().size(), 2u);
  EXPECT_EQ(keystore::load_clients().count, 2);
  EXPECT_TRUE(logged("refused pairing with this PC's own key (" + host().key_code() +
                     "): connect to another computer"));
}

TEST_F(HostServerTest, EventsComeWithTheConnectionStepToo) {
  start_host();
  int closed = 0;
  host().on_event = [&](const lund_conn_event& event) {
    closed += event.type == LUND_EV_PAIRING_CLOSED;
  };
  host().pairing_open(2);
  host().conn_step();
  EXPECT_EQ(closed, 0);
  virtual_time::advance_ms(2'000);
  host().conn_step();
  EXPECT_EQ(closed, 1);
}

TEST_F(HostServerTest, TheConnectionStepAsksFor1To50Ms) {
  start_host();
  for (int i = 0; i < 100; ++i) {
    const std::uint32_t wait_ms = host().conn_step();
    EXPECT_GE(wait_ms, 1u);
    EXPECT_LE(wait_ms, 50u);
    virtual_time::advance_ms(wait_ms);
  }
}

TEST_F(HostServerTest, OnlyPairingsSessionsAndPathsChangeTheStatus) {
  start_host();
  TestLink laptop = link();
  int changes = 0;
  std::vector<std::uint32_t> events;
  host().on_status_change = [&] { ++changes; };
  host().on_event = [&](const lund_conn_event& event) { events.push_back(event.type); };
  ASSERT_TRUE(laptop.connect());
  laptop.ping();
  EXPECT_THAT(events, ElementsAre(LUND_EV_SESSION_UP));
  EXPECT_EQ(changes, 1);
  host().pairing_open(1);
  changes = 0;
  virtual_time::advance_ms(1'000);
  host().conn_step();
  EXPECT_THAT(events, ElementsAre(LUND_EV_SESSION_UP, LUND_EV_PAIRING_CLOSED));
  EXPECT_EQ(changes, 0);
}

// ---- Paths

TEST_F(HostServerTest, APathThatGetsWorseLowersTheDatagramsFromTheNextKeyframe) {
  TestLink laptop = stream();
  FakeCapture& capture = *platform.captures[0];
  capture.frame(true, 20'000);
  EXPECT_GT(laptop.largest_datagram(), 1'300u);
  log();
  laptop.send_from("8.8.8.8:5000", peer::packet(LUND_PKT_KEYFRAME_REQUEST));
  EXPECT_TRUE(
      logged("path is now Direct: datagrams 1200 bytes (payload 1176) from the next keyframe"));
  EXPECT_GE(capture.keyframe_requests, 1);
  capture.frame(false, 20'000);
  EXPECT_GT(laptop.largest_datagram(), 1'300u);
  capture.frame(true, 20'000);
  EXPECT_LE(laptop.largest_datagram(), 1'200u);
  capture.frame(false, 20'000);
  EXPECT_LE(laptop.largest_datagram(), 1'200u);
  EXPECT_THAT(platform.clipboard->calls, ElementsAre("start 1376", "resize 1176"));
}

TEST_F(HostServerTest, APathThatGetsBetterLeavesTheDatagramsAlone) {
  TestLink laptop = stream({}, LAPTOP, "8.8.8.8:5000");
  FakeCapture& capture = *platform.captures[0];
  log();
  laptop.send_from(LAPTOP_ADDRESS, peer::packet(LUND_PKT_PING));
  EXPECT_THAT(log(), Contains(HasSubstr("path -> LAN")));  // the engine's own line
  EXPECT_EQ(capture.keyframe_requests, 0);
  capture.frame(true, 20'000);
  EXPECT_LE(laptop.largest_datagram(), 1'200u);
}

TEST_F(HostServerTest, TheMarkFollowsThePeerOfTheMarkedSession) {
  TestLink laptop = stream();
  ASSERT_TRUE(fake_udp().marked);
  EXPECT_TRUE(lund_rv_endpoint_equal(*fake_udp().marked, peer::at(LAPTOP_ADDRESS)));
  laptop.send_from("192.168.1.21:5000", peer::packet(LUND_PKT_PING));
  EXPECT_TRUE(lund_rv_endpoint_equal(*fake_udp().marked, peer::at("192.168.1.21:5000")));
  EXPECT_EQ(fake_udp().marks, 2);
}

// ---- LAN addresses

TEST_F(HostServerTest, ChangedLanAddressesAreSaidAndTheirOrderCounts) {
  start_host();
  const lund_rv_endpoint a = peer::at("192.168.1.5:9876"), b = peer::at("10.0.0.5:9876");
  const lund_rv_endpoint ab[] = {a, b}, ba[] = {b, a};
  host().set_lan_endpoints(ab, 2);
  log();
  host().set_lan_endpoints(ab, 2);
  EXPECT_THAT(log(), IsEmpty());
  host().set_lan_endpoints(ba, 2);
  EXPECT_THAT(log(), ElementsAre("LAN addresses changed: 10.0.0.5:9876, 192.168.1.5:9876"));
  host().set_lan_endpoints(ba, 1);
  EXPECT_THAT(log(), ElementsAre("LAN addresses changed: 10.0.0.5:9876"));
  host().set_lan_endpoints(nullptr, 0);
  EXPECT_THAT(log(), ElementsAre("LAN addresses changed: none"));
}

// ---- The engine's log

TEST_F(HostServerTest, InMachineModeALineThatHoldsPinInAnyWordIsLost) {
  options.machine_mode = true;
  start_host();
  ASSERT_TRUE(host().authorize_client(peer::keypair_of(40).public_key, "Shopping cart"));
  log();
  host().pairing_open(120);
  engine_peer phone(21, host_key);
  deliver(phone.pair_init(host().pairing_status().pin, LUND_KIND_PIN), SOMEBODY);
  EXPECT_THAT(log(), Not(Contains(HasSubstr("PIN"))));
  for (const std::uint8_t seed : {std::uint8_t{40}, LAPTOP}) {
    TestLink device = link(seed);
    ASSERT_TRUE(device.connect());
    device.ping();
    EXPECT_EQ(
        std::ranges::count_if(
            log(), [](const std::string& line) { return line.find("connected") != line.npos; }),
        seed == LAPTOP ? 1 : 0);
    device.bye();
    virtual_time::advance_ms(4'000);  // for the engine the device is gone
  }
}

TEST_F(HostServerTest, ByHandTheEnginesLinesAreAllThere) {
  start_host();
  log();
  engine_peer phone(21, host_key);
  host().pairing_open(120);
  deliver(phone.pair_init(host().pairing_status().pin, LUND_KIND_PIN), SOMEBODY);
  EXPECT_TRUE(logged("conn: pairing attempt 1/10 (PIN) from 192.168.1.77:40000"));
}

// ---- Liveness

TEST_F(HostServerTest, AClientThatSendsOnlyKeepAlivesFor3SecondsLosesItsSession) {
  TestLink laptop = stream();
  laptop.ping();
  for (int i = 0; i < 30; ++i) {
    laptop.send(peer::probe(1, static_cast<std::uint32_t>(i)));
    run_ms(100);
  }
  EXPECT_EQ(host().sessions().size(), 1u);  // 3 s to the microsecond
  laptop.receive();
  laptop.send(peer::probe(1, 99));
  log();
  run_ms(100);
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_THAT(log(), Contains(HasSubstr(" ended (client silent for 3 s): \"Laptop\"")));
  EXPECT_EQ(laptop.receive(LUND_PKT_BYE).size(), 1u);
}

TEST_F(HostServerTest, AnyPacketOfTheClientKeepsItsSession) {
  TestLink laptop = stream();
  for (int i = 0; i < 10; ++i) {
    run_ms(2'900);
    laptop.send(peer::packet(99));  // even one of no known type
  }
  EXPECT_EQ(host().sessions().size(), 1u);
}

TEST_F(HostServerTest, ACaptureThatGivesUpEndsTheSessionAtTheNextTick) {
  TestLink laptop = stream();
  log();
  platform.captures[0]->object->fatal_sink("the display is gone");
  EXPECT_TRUE(logged("screen 0: video stopped: the display is gone"));
  EXPECT_EQ(host().sessions().size(), 1u);
  run_ms(100);
  EXPECT_THAT(host().sessions(), IsEmpty());
  EXPECT_THAT(
      log(),
      Contains(HasSubstr(" ended (capture/encoder incompatible; fresh session required): ")));
  EXPECT_EQ(laptop.receive(LUND_PKT_BYE).size(), 1u);
  laptop.ping();  // the link is gone too
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

// ---- Shutdown

TEST_F(HostServerTest, ShutdownEndsTheSideScreensFirstAndSaysByeToEach) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  log();
  host().shutdown();
  std::vector<std::string> ended = log();
  std::erase_if(ended, [](const std::string& line) { return !line.find("conn: "); });
  ASSERT_EQ(ended.size(), 2u);
  EXPECT_THAT(ended[0], AllOf(testing::StartsWith("screen 1: session "),
                              HasSubstr(" ended (host shutting down): \"Laptop\" (")));
  EXPECT_THAT(ended[1],
              AllOf(testing::StartsWith("session "), HasSubstr(" ended (host shutting down): ")));
  EXPECT_EQ(main.receive(LUND_PKT_BYE).size(), 1u);
  EXPECT_EQ(side.receive(LUND_PKT_BYE).size(), 1u);
  EXPECT_FALSE(fake_udp().is_open);
  EXPECT_EQ(platform.virtual_displays->calls.back(), "restore");
  EXPECT_THAT(host().paired_devices(), IsEmpty());  // the engine is gone
}

TEST_F(HostServerTest, ASecondShutdownDoesNothing) {
  start_host();
  host().shutdown();
  log();
  const auto calls = platform.virtual_displays->calls;
  host().shutdown();
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_EQ(platform.virtual_displays->calls, calls);
}

TEST_F(HostServerTest, ShutdownCancelsWaitingSetups) {
  TestLink laptop = link();
  ASSERT_TRUE(laptop.connect());
  laptop.hello();
  EXPECT_EQ(host().status().pending, 1u);
  host().shutdown();
  EXPECT_EQ(host().status().pending, 0u);
  EXPECT_FALSE(host().setup_step());
  EXPECT_THAT(platform.captures, IsEmpty());
}

TEST_F(HostServerTest, WithoutAPlatformsFacilitiesTheHostStillAnswers) {
  HostServer server(options, {}, Platform{});
  ASSERT_TRUE(server.open(nullptr));
  EXPECT_EQ(server.status().virtual_display_line, "Virtual display: driver not installed");
  server.tick_step();
  server.shutdown();
}
