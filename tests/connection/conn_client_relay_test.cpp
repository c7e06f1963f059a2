// The relay allocation: binding it, the path it becomes, what happens when it is gone, and the use
// of it by a client that connects again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/allocation_counter.h"
#include "tests/support/server_rig.h"
#include "tests/support/virtual_time.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;
const lund_rv_endpoint RELAY = ServerRig::SERVERS[0].address;

// Found and bound by the first server, with the handshake under way.
struct BoundRig : ServerRig {
  explicit BoundRig(std::uint32_t path_mode = LUND_PATHS_ALL)
      : ServerRig([path_mode](lund_client_config& config) { config.path_mode = path_mode; }) {
    find();
    say(bound());
  }
  // The host answers the newest handshake that went to the relay.
  void host_answers(lund_session* session) {
    const auto inits = take(LUND_PKT_HS_INIT);
    ASSERT_FALSE(inits.empty());
    ASSERT_TRUE(lund_rv_endpoint_equal(inits.back().to, RELAY));
    receive(RELAY, answer(inits.back().bytes, session));
  }
};

}  // namespace

TEST(ClientRelay, BindsEachSecondUntilItIsBoundAndThenEvery15) {
  ServerRig rig;
  rig.find();
  const auto first = rig.asked(LUND_RV_BIND);
  ASSERT_THAT(first, SizeIs(1));
  EXPECT_EQ(first[0].side, 1);
  EXPECT_EQ(first[0].allocation, rig.state().allocation);
  EXPECT_EQ(std::memcmp(first[0].token, rig.state().token, 16), 0);
  EXPECT_THAT(rig.times_of(LUND_RV_BIND, 3'500), ElementsAre(1'000, 2'000, 3'000));
  rig.say(rig.bound());
  EXPECT_THAT(rig.times_of(LUND_RV_BIND, 50'000), ElementsAre(15'000, 30'000, 45'000));
  rig.say(rig.bound());  // each answer starts the 15 s afresh
  EXPECT_THAT(rig.times_of(LUND_RV_BIND, 16'000), ElementsAre(15'000));
}

TEST(ClientRelay, GoesOnBindingWhileASessionIsUpOnAnotherPath) {
  BoundRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  rig.tick_for_ms(250);
  lund_session host;
  rig.receive(LAN, rig.answer(rig.take(LUND_PKT_HS_INIT).back().bytes, &host));
  ASSERT_EQ(rig.status().path, LUND_PATH_LAN);
  rig.asked(LUND_RV_BIND);
  EXPECT_THAT(rig.times_of(LUND_RV_BIND, 31'000), ElementsAre(14'750, 29'750));
}

TEST(ClientRelay, WaitsNoLongerThanToTheNextBind) {
  BoundRig rig;
  lund_session host;
  rig.host_answers(&host);
  rig.tick_for_ms(12'000);  // past the fast phase, and the other server's look-ups
  rig.client->paths[0].last_rx = lund_now_us();
  rig.client->paths[0].next_probe = lund_now_us() + 1'000'000;
  rig.state().next_bind = lund_now_us() + 123'000;
  EXPECT_EQ(rig.tick(), 123'000u);
}

TEST(ClientRelay, BoundMakesTheServerAPathAndKicksIt) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  rig.say(rig.result(5, 1), 1);
  rig.sent.clear();
  rig.say(rig.bound(0, 1), 1);
  EXPECT_EQ(rig.state(1).relay_added, 1u);
  ASSERT_EQ(rig.status().path_count, 1);
  const lund_client_path_status path = rig.status().paths[0];
  EXPECT_EQ(path.path_class, LUND_PATH_RELAY);
  EXPECT_EQ(path.server, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(path.addr, ServerRig::SERVERS[1].address));
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(inits, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[0].to, ServerRig::SERVERS[1].address));

  rig.say(rig.bound(0, 1), 1);  // no news any more
  EXPECT_EQ(rig.status().path_count, 1);
  EXPECT_THAT(rig.sent, IsEmpty());

  lund_session host;
  rig.receive(ServerRig::SERVERS[1].address, rig.answer(inits[0].bytes, &host));
  const lund_client_status status = rig.status();
  EXPECT_EQ(status.path, LUND_PATH_RELAY);
  EXPECT_EQ(status.max_datagram, 1200);
  EXPECT_EQ(status.paths[0].alive, 1u);
  const auto events = rig.events();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].path, LUND_PATH_RELAY);
  EXPECT_EQ(events[0].server, 1);
}

TEST(ClientRelay, BoundForAnotherAllocationIsNothing) {
  ServerRig rig;
  rig.find();
  rig.sent.clear();
  for (const std::uint8_t status : {std::uint8_t{0}, std::uint8_t{1}}) {
    lund_rv_message other = rig.bound(status);
    ++other.allocation;
    rig.say(other);
  }
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_FOUND);
  EXPECT_EQ(rig.state().relay_added, 0u);
  EXPECT_EQ(rig.status().path_count, 0);
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientRelay, AFullTableOfPathsTakesTheRelayNoEarlierThanThereIsRoom) {
  ServerRig rig;
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    lund_rv_endpoint address = LAN;
    address.port = static_cast<std::uint16_t>(100 + i);
    lund_client_add_candidate(rig.client, &address, 0);
  }
  rig.find();
  rig.say(rig.bound());
  EXPECT_EQ(rig.state().relay_added, 0u);
  rig.client->paths[3] = {};
  rig.say(rig.bound());
  EXPECT_EQ(rig.state().relay_added, 1u);
  EXPECT_EQ(rig.client->paths[3].path_class, LUND_PATH_RELAY);
}

TEST(ClientRelay, AnAllocationThatIsGoneStartsTheLookupOver) {
  BoundRig rig;
  rig.say(rig.failure(1));  // told, and tried again late
  rig.tick_for_ms(100);
  const std::uint32_t nonce = rig.state().nonce;
  const lund_rv_message stale = rig.result();
  rig.asked(LUND_RV_LOOKUP);
  rig.say(rig.bound(1));
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_IDLE);
  EXPECT_EQ(rig.state().tries, 0);
  EXPECT_EQ(rig.state().reported, 0u);
  EXPECT_NE(rig.state().nonce, nonce);
  // An answer to what was asked before names the allocation that is gone.
  rig.say(stale);
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_IDLE);

  rig.tick();
  ASSERT_THAT(rig.asked(LUND_RV_LOOKUP), SizeIs(1));
  rig.sent.clear();
  rig.say(rig.result(0xB));
  EXPECT_THAT(rig.asked(LUND_RV_BIND), SizeIs(1));
  rig.say(rig.bound());
  EXPECT_EQ(rig.state().relay_added, 1u);
  EXPECT_EQ(rig.status().path_count, 1);
  // The path is an old one, and yet gets the handshake at once: the host may be there only now.
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), SizeIs(1));
}

TEST(ClientRelay, DirectModeBindsNothing) {
  ServerRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_DIRECT; });
  rig.find();
  EXPECT_THAT(rig.times_of(LUND_RV_BIND, 20'000), IsEmpty());
}

TEST(ClientRelay, RelayModeHandshakesThroughTheRelayAlone) {
  BoundRig rig(LUND_PATHS_RELAY);
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_add_candidate(rig.client, &WAN, 0);
  rig.tick_for_ms(1'000);
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  EXPECT_THAT(inits, SizeIs(5));  // the kick, and one each 250 ms
  for (const ClientRig::Sent& init : inits) EXPECT_TRUE(lund_rv_endpoint_equal(init.to, RELAY));
}

TEST(ClientRelay, ClosingEverythingStopsTheBinding) {
  BoundRig rig;
  lund_client_session_close(rig.client, 0);
  rig.sent.clear();
  rig.tick_for_ms(20'000);
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientRelay, AReconnectThroughTheAllocationThatStillStands) {
  BoundRig rig;
  lund_session host;
  rig.host_answers(&host);
  lund_client_session_close(rig.client, 0);
  rig.tick_for_ms(20'000);
  rig.sent.clear();
  ASSERT_EQ(lund_client_connect(rig.client), 0);
  rig.tick();
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_FOUND);
  EXPECT_THAT(rig.asked(LUND_RV_BIND), SizeIs(1));  // overdue, and so at once
  rig.say(rig.bound());
  rig.host_answers(&host);
  EXPECT_EQ(rig.status().connected, 1u);
  EXPECT_EQ(rig.status().path, LUND_PATH_RELAY);
}

TEST(ClientRelay, AReconnectRecoversFromAnAllocationThatIsGone) {
  BoundRig rig;
  lund_session host;
  rig.host_answers(&host);
  lund_client_session_close(rig.client, 0);
  rig.tick_for_ms(60'000);
  rig.sent.clear();
  ASSERT_EQ(lund_client_connect(rig.client), 0);
  rig.tick();
  ASSERT_THAT(rig.asked(LUND_RV_BIND), SizeIs(1));
  rig.asked(LUND_RV_LOOKUP);
  rig.say(rig.bound(1));
  rig.tick();
  ASSERT_THAT(rig.asked(LUND_RV_LOOKUP), SizeIs(1));
  rig.say(rig.result(0xB));
  rig.say(rig.bound());
  rig.host_answers(&host);
  EXPECT_EQ(rig.status().connected, 1u);
  EXPECT_EQ(rig.status().path, LUND_PATH_RELAY);
}

// Without a relay nothing says that the host has moved, so it must be asked for again however often
// the client has connected before.
TEST(ClientRelay, AReconnectInDirectModeAsksForTheHostAgain) {
  ServerRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_DIRECT; });
  rig.find();
  rig.tick_for_ms(30'000);
  ASSERT_EQ(rig.state().tries, 12);
  lund_client_session_close(rig.client, 0);
  lund_client_connect(rig.client);
  rig.asked(LUND_RV_LOOKUP);
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_FOUND);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 60'000), SizeIs(12));
  lund_rv_message moved = rig.result(0xB);
  moved.peer = endpoint("198.51.100.99:9876");
  rig.say(moved);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.take(LUND_RV_PUNCH).back().to, moved.peer));
}

TEST(ClientRelay, PairsByCodeThroughTheRelayAndGoesOnToASession) {
  ServerRig rig([](lund_client_config& config) {
    config.has_host_key = 0;
    config.host_code = "0000-0000";
    config.path_mode = LUND_PATHS_RELAY;
  });
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, rig.host_keypair.public_key);
  std::memcpy(rig.client->code, id, sizeof rig.client->code);
  lund_pair exchange;
  lund_pair_host_init(&exchange, &rig.host_keypair, "the host", "123456", 10);

  ASSERT_EQ(lund_client_pair(rig.client, "123456", 0), 0);
  rig.tick();
  rig.say(rig.result());
  EXPECT_THAT(rig.take(LUND_PKT_HOST_INFO_REQUEST), IsEmpty());
  rig.say(rig.bound());
  ASSERT_THAT(rig.take(LUND_PKT_HOST_INFO_REQUEST), SizeIs(1));
  rig.receive(RELAY, rig.host_info(rig.client->pairing.info_nonce, LUND_HOST_PIN_OPEN));
  const auto answer = [&](const ClientRig::Sent& sent) {
    EXPECT_TRUE(lund_rv_endpoint_equal(sent.to, RELAY));
    Bytes bytes(LUND_PAIR_MESSAGE_MAX);
    std::size_t size = 0;
    lund_pair_handle(&exchange, sent.bytes.data(), sent.bytes.size(), bytes.data(), bytes.size(),
                     &size);
    bytes.resize(size);
    return bytes;
  };
  const auto inits = rig.take(LUND_PKT_PAIR_INIT);
  ASSERT_THAT(inits, SizeIs(1));
  rig.receive(RELAY, answer(inits[0]));
  const auto confirms = rig.take(LUND_PKT_PAIR_CONFIRM);
  ASSERT_THAT(confirms, SizeIs(1));
  rig.receive(RELAY, answer(confirms[0]));
  ASSERT_EQ(rig.client->has_host_key, 1u);
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_FOUND);  // what pairing has found serves on

  rig.tick();
  const auto handshakes = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(handshakes, SizeIs(1));
  lund_session host;
  rig.receive(RELAY, rig.answer(handshakes[0].bytes, &host));
  EXPECT_EQ(rig.status().path, LUND_PATH_RELAY);
}

TEST(ClientRelay, UsesNoHeap) {
  virtual_time::reset();
  const server_peer& server = ServerRig::SERVERS[0];
  static std::size_t sent;
  sent = 0;
  lund_client_config config;
  lund_keypair_generate(&config.identity);
  config.has_host_key = 1;
  std::memcpy(config.host_key, config.identity.public_key, LUND_KEY_SIZE);
  config.relays = peer::relays_of({server});
  config.send = [](void*, const lund_rv_endpoint*, const std::uint8_t*, std::size_t) { ++sent; };
  config.log = [](void*, const char*) {};
  lund_client* client = lund_client_create(&config);
  const auto say = [&](const lund_rv_message& message) {
    std::uint8_t datagram[LUND_RV_MESSAGE_MAX], out[2048];
    const std::size_t size = lund_rv_encode(datagram, sizeof datagram, server.net_key, &message);
    lund_client_receive(client, datagram, size, server.address, out, sizeof out, nullptr, nullptr);
  };

  const AllocationCount allocations;
  lund_client_connect(client);
  lund_client_tick(client);
  lund_rv_message result = server_peer::of_type(LUND_RV_LOOKUP_RESULT);
  result.nonce = client->servers[0].nonce;
  result.peer = WAN;
  result.allocation = 1;
  std::memcpy(result.key, config.host_key, LUND_KEY_SIZE);
  say(result);
  lund_rv_message bound = server_peer::of_type(LUND_RV_BOUND);
  bound.allocation = 1;
  say(bound);
  for (int i = 0; i < 400; ++i) {
    virtual_time::advance_ms(50);
    lund_client_tick(client);
  }
  bound.status = 1;
  say(bound);
  lund_client_tick(client);
  EXPECT_EQ(allocations.count(), 0U);
  EXPECT_GT(sent, 100U);  // look-ups, 50 punches, binds, handshakes
  lund_client_destroy(client);
}
