// Asking rendezvous servers for the host: when, for what, how often, and what an answer does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/server_rig.h"
#include "tests/support/virtual_time.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;

// Knows the host by its code alone, and so looks it up only to pair.
struct CodeRig : ServerRig {
  CodeRig() : ServerRig(by_code) {
    lund_keypair_generate(&other);
    lund_key_id(id, host_keypair.public_key);
    std::memcpy(client->code, id, sizeof client->code);
  }
  static void by_code(lund_client_config& config) {
    config.has_host_key = 0;
    config.host_code = "0000-0000";
  }
  lund_keypair other;
  std::uint8_t id[LUND_KEY_ID_SIZE];
};

// A third server, whose name has no address yet.
struct NamedServerRig : ServerRig {
  NamedServerRig() : ServerRig(with_name) {}
  static void with_name(lund_client_config& config) {
    lund_relay_server& server = config.relays.servers[config.relays.count++];
    server = third.relay;
    server.endpoint = {};
  }
  static inline const server_peer third{"relay.example", "203.0.113.52:9877", 0xC3};
};

std::vector<lund_conn_event> lookup_failures(ClientRig& rig) {
  auto events = rig.events();
  std::erase_if(events, [](const auto& e) { return e.type != LUND_EV_CLIENT_LOOKUP_FAILED; });
  return events;
}

}  // namespace

TEST(ClientLookup, AsksEveryServerAtOnceForTheHostsKeyIdWithItsOwnAddresses) {
  ServerRig rig([](lund_client_config& config) {
    config.lan_count = 2;
    config.lan_endpoints[0] = endpoint("192.168.1.20:50000");
    config.lan_endpoints[1] = endpoint("[fd00::20]:50000");
  });
  lund_client_connect(rig.client);
  rig.tick();
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, rig.host_keypair.public_key);
  for (const int server : {0, 1}) {
    const auto lookups = rig.asked(LUND_RV_LOOKUP, server);
    ASSERT_THAT(lookups, SizeIs(1));
    EXPECT_EQ(lookups[0].target_size, LUND_KEY_ID_SIZE);
    EXPECT_EQ(std::memcmp(lookups[0].target, id, sizeof id), 0);
    EXPECT_EQ(lookups[0].nonce, rig.state(server).nonce);
    ASSERT_EQ(lookups[0].lan_count, 2);
    EXPECT_TRUE(lund_rv_endpoint_equal(lookups[0].lan[0], endpoint("192.168.1.20:50000")));
    EXPECT_TRUE(lund_rv_endpoint_equal(lookups[0].lan[1], endpoint("[fd00::20]:50000")));
    EXPECT_EQ(rig.state(server).state, LUND_LOOKUP_ASKED);
  }
  EXPECT_NE(rig.state(0).nonce, rig.state(1).nonce);
}

TEST(ClientLookup, AsksByTheCodesFiveBytesWhileTheKeyIsNotKnown) {
  CodeRig rig;
  ASSERT_EQ(lund_client_pair(rig.client, "123456", 0), 0);
  rig.tick();
  const auto lookups = rig.asked(LUND_RV_LOOKUP);
  ASSERT_THAT(lookups, SizeIs(1));
  EXPECT_EQ(lookups[0].target_size, 5);
  std::uint8_t target[16] = {};
  std::memcpy(target, rig.id, 5);
  EXPECT_EQ(std::memcmp(lookups[0].target, target, sizeof target), 0);
}

TEST(ClientLookup, WithNeitherKeyNorCodeNobodyIsAsked) {
  ServerRig rig([](lund_client_config& config) { config.has_host_key = 0; });
  ASSERT_EQ(lund_client_pair(rig.client, "123456", 0), 0);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 5'000), IsEmpty());
}

TEST(ClientLookup, AnIdleClientAsksNobody) {
  ServerRig rig;
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 5'000), IsEmpty());
  lund_client_connect(rig.client);
  rig.tick();
  lund_client_session_close(rig.client, 0);
  rig.sent.clear();
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 5'000), IsEmpty());
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientLookup, RepeatsEachSecondTwelveTimesAndStops) {
  ServerRig rig;
  lund_client_connect(rig.client);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 60'000),
              ElementsAre(0, 1'000, 2'000, 3'000, 4'000, 5'000, 6'000, 7'000, 8'000, 9'000, 10'000,
                          11'000));
}

TEST(ClientLookup, ANewStartAsksTwelveTimesMoreUnderANewNonce) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.times_of(LUND_RV_LOOKUP, 20'000);
  const std::uint32_t nonce = rig.state().nonce;
  lund_client_connect(rig.client);
  EXPECT_NE(rig.state().nonce, nonce);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 60'000), SizeIs(12));
}

TEST(ClientLookup, AFailureIsToldOnceAndTriedAgainAfterThreeSeconds) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  rig.asked(LUND_RV_LOOKUP, 1);
  rig.say(rig.failure(1, 1), 1);
  const auto failures = lookup_failures(rig);
  ASSERT_THAT(failures, SizeIs(1));
  EXPECT_EQ(failures[0].server, 1);
  EXPECT_EQ(failures[0].status, 1);
  EXPECT_EQ(rig.log.back(), "lookup on 203.0.113.51:9877 failed (status 1)");

  const std::size_t lines = rig.log.size();
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 3'500, 1), ElementsAre(3'000));
  rig.say(rig.failure(1, 1), 1);
  EXPECT_THAT(lookup_failures(rig), IsEmpty());
  EXPECT_EQ(rig.log.size(), lines);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 3'000, 1), ElementsAre(3'000));

  lund_client_connect(rig.client);  // a new start tells it anew
  rig.tick();
  rig.say(rig.failure(1, 1), 1);
  EXPECT_THAT(lookup_failures(rig), SizeIs(1));
}

TEST(ClientLookup, AnErrorIsAFailureWithItsCode) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  rig.asked(LUND_RV_LOOKUP);
  lund_rv_message error;
  error.type = LUND_RV_ERROR;
  error.nonce = rig.state().nonce;
  error.status = 4;
  rig.say(error);
  const auto failures = lookup_failures(rig);
  ASSERT_THAT(failures, SizeIs(1));
  EXPECT_EQ(failures[0].server, 0);
  EXPECT_EQ(failures[0].status, 4);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 3'500), ElementsAre(3'000));
}

TEST(ClientLookup, AFailureOnOneServerIsNothingToTheOther) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  rig.say(rig.failure(1));
  rig.say(rig.result(7, 1), 1);
  EXPECT_EQ(rig.state(0).state, LUND_LOOKUP_ASKED);
  EXPECT_EQ(rig.state(1).state, LUND_LOOKUP_FOUND);
}

TEST(ClientLookup, AnAnswerToAnotherNonceIsNone) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  for (lund_rv_message message : {rig.result(), rig.failure(1)}) {
    ++message.nonce;
    rig.say(message);
  }
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_ASKED);
  EXPECT_THAT(lookup_failures(rig), IsEmpty());
}

TEST(ClientLookup, AGoodResultIsLoggedAndKeepsWhatItSays) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  virtual_time::advance_us(12'300);
  lund_rv_message result = rig.result(0xBEEF);
  result.lan_count = 1;
  result.lan[0] = LAN;
  rig.say(result);
  EXPECT_EQ(rig.log.back(),
            "lookup on 203.0.113.50:9877: host at 198.51.100.7:9876 (+1 LAN), allocation 0000beef, "
            "rtt 12.3 ms");
  const lund_client_server& server = rig.state();
  EXPECT_EQ(server.state, LUND_LOOKUP_FOUND);
  EXPECT_EQ(server.allocation, 0xBEEFu);
  EXPECT_EQ(std::memcmp(server.token, result.token, sizeof result.token), 0);
  EXPECT_EQ(std::memcmp(server.punch_token, result.punch_token, sizeof result.punch_token), 0);
  EXPECT_EQ(server.rtt_us, 12'300u);
  EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ClientLookup, CandidatesAreThePeerAndTheLanAddressesWithoutDuplicates) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  lund_rv_message result = rig.result();
  result.lan_count = 4;
  result.lan[0] = LAN;
  result.lan[1] = WAN;
  result.lan[2] = LAN;
  result.lan[3] = endpoint("10.0.0.5:9876");
  rig.say(result);
  ASSERT_EQ(rig.state().candidate_count, 3);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.state().candidates[0], WAN));
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.state().candidates[1], LAN));
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.state().candidates[2], endpoint("10.0.0.5:9876")));
  EXPECT_THAT(rig.log.back(), HasSubstr("(+2 LAN)"));

  result.allocation = 2;  // and all five, if they differ
  for (int i = 0; i < 4; ++i) {
    result.lan[i] = LAN;
    result.lan[i].port = static_cast<std::uint16_t>(100 + i);
  }
  rig.say(result);
  EXPECT_EQ(rig.state().candidate_count, 5);
}

TEST(ClientLookup, AnotherHostsKeyIsIgnored) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  lund_rv_message result = rig.result();
  result.key[31] ^= 1;
  rig.say(result);
  EXPECT_EQ(rig.log.back(), "lookup on 203.0.113.50:9877 returned another host key: ignored");
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_ASKED);
}

TEST(ClientLookup, AKeyThatTheCodeDoesNotNameIsIgnored) {
  CodeRig rig;
  lund_client_pair(rig.client, "123456", 0);
  rig.tick();
  lund_rv_message other = rig.result();
  std::memcpy(other.key, rig.other.public_key, sizeof other.key);
  rig.say(other);
  EXPECT_EQ(rig.log.back(), "lookup on 203.0.113.50:9877 returned another host key: ignored");
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_ASKED);
  rig.say(rig.result());
  EXPECT_EQ(rig.state().state, LUND_LOOKUP_FOUND);
}

TEST(ClientLookup, AResultForTheSameAllocationIsDropped) {
  ServerRig rig;
  rig.find();
  virtual_time::advance_ms(30);
  rig.tick();
  const auto before = bytes_of(rig.state());
  rig.sent.clear();
  lund_rv_message again = rig.result();
  again.peer = LAN;
  again.punch_token[0] ^= 1;
  rig.say(again);
  EXPECT_EQ(bytes_of(rig.state()), before);
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientLookup, AResultForAnotherAllocationReplacesTheFirst) {
  ServerRig rig;
  rig.find();
  rig.say(rig.bound());
  rig.tick_for_ms(5'000);
  ASSERT_EQ(rig.state().relay_added, 1u);
  rig.sent.clear();
  lund_rv_message other = rig.result(0xB);
  other.peer = LAN;
  rig.say(other);
  EXPECT_EQ(rig.state().allocation, 0xBu);
  EXPECT_EQ(rig.state().relay_added, 0u);
  ASSERT_EQ(rig.state().candidate_count, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.state().candidates[0], LAN));
  // Punched and bound without waiting for a tick.
  EXPECT_THAT(rig.take(LUND_RV_PUNCH), SizeIs(1));
  const auto binds = rig.asked(LUND_RV_BIND);
  ASSERT_THAT(binds, SizeIs(1));
  EXPECT_EQ(binds[0].allocation, 0xBu);
}

TEST(ClientLookup, AFoundHostIsAskedForUntilASessionIsUp) {
  ServerRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  rig.find();
  rig.asked(LUND_RV_LOOKUP);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 2'500), ElementsAre(1'000, 2'000));
  lund_session host;
  rig.receive(LAN, rig.answer(rig.take(LUND_PKT_HS_INIT).back().bytes, &host));
  ASSERT_EQ(rig.status().connected, 1u);
  EXPECT_THAT(rig.times_of(LUND_RV_LOOKUP, 10'000), IsEmpty());
  // The other server, which hasn't found it, is asked its twelve times.
  EXPECT_EQ(rig.state(1).tries, 12);
}

TEST(ClientLookup, WaitsNoLongerThanToTheNextLookup) {
  ServerRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  virtual_time::advance_ms(2'000);  // past the fast phase
  rig.tick();
  rig.client->paths[0].next_probe = lund_now_us() + 10'000'000;
  rig.client->paths[0].last_rx = lund_now_us();
  virtual_time::advance_ms(900);
  EXPECT_EQ(rig.tick(), 100'000u);
  for (lund_client_server& server : rig.client->servers) server.tries = 12;
  EXPECT_EQ(rig.tick(), 250'000u);  // what won't be sent is nothing to wake up for
}

TEST(ClientLookup, AServerWithoutAnAddressIsAskedOnceItHasOne) {
  NamedServerRig rig;
  lund_client_connect(rig.client);
  rig.tick_for_ms(1'500);
  rig.sent.clear();
  EXPECT_EQ(rig.state(2).tries, 0);
  lund_client_server_resolved(rig.client, "Relay.Example", LUND_RELAY_PORT, nullptr);
  rig.tick();
  EXPECT_EQ(rig.state(2).tries, 0);

  const lund_rv_endpoint address = endpoint("203.0.113.52:1");
  const std::uint32_t nonce = rig.state(2).nonce;
  lund_client_server_resolved(rig.client, "Relay.Example", LUND_RELAY_PORT, &address);
  EXPECT_EQ(rig.log.back(), "server relay.example:9877 is at 203.0.113.52:9877");
  rig.tick();
  EXPECT_EQ(rig.state(2).tries, 1);
  EXPECT_NE(rig.state(2).nonce, nonce);
  ASSERT_THAT(rig.sent, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[0].to, endpoint("203.0.113.52:9877")));
}

TEST(ClientLookup, AServerThatMovedStartsOverAndTheOthersDoNot) {
  NamedServerRig rig;
  lund_rv_endpoint address = endpoint("203.0.113.52:9877");
  lund_client_server_resolved(rig.client, "relay.example", LUND_RELAY_PORT, &address);
  rig.find();
  rig.receive(address, rig.third.say(rig.result(5, 2)));
  ASSERT_EQ(rig.state(2).state, LUND_LOOKUP_FOUND);
  const auto first = bytes_of(rig.state(0)), third = bytes_of(rig.state(2));
  const std::uint32_t nonce = rig.state(2).nonce;

  lund_client_server_resolved(rig.client, "relay.example", LUND_RELAY_PORT, &address);
  lund_client_server_resolved(rig.client, "relay.example", LUND_RELAY_PORT, nullptr);
  lund_client_server_resolved(rig.client, "other.example", LUND_RELAY_PORT, &WAN);
  EXPECT_EQ(bytes_of(rig.state(2)), third);

  address = endpoint("203.0.113.53:9877");
  lund_client_server_resolved(rig.client, "relay.example", LUND_RELAY_PORT, &address);
  EXPECT_EQ(rig.state(2).state, LUND_LOOKUP_IDLE);
  EXPECT_NE(rig.state(2).nonce, nonce);
  EXPECT_EQ(rig.state(2).next_lookup, lund_now_us());
  EXPECT_EQ(bytes_of(rig.state(0)), first);
  rig.sent.clear();
  rig.tick();
  ASSERT_THAT(rig.take(LUND_RV_LOOKUP), SizeIs(1));
}

TEST(ClientLookup, ModeThreeSpeaksToNoServer) {
  ServerRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_NO_SERVERS; });
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_connect(rig.client);
  rig.tick_for_ms(5'000);
  for (const ClientRig::Sent& datagram : rig.sent)
    EXPECT_TRUE(lund_rv_endpoint_equal(datagram.to, LAN));
  EXPECT_FALSE(rig.sent.empty());
}
