// Registration with rendezvous servers, what they answer, and how it shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/allocation_counter.h"
#include "tests/support/served_host.h"
#include "tests/support/wiped.h"

namespace {

using ::testing::ElementsAre;

constexpr std::uint64_t MS = 1'000;
const lund_rv_endpoint ELSEWHERE = peer::at("203.0.113.99:1234");

class HostServers : public ::testing::Test, protected served_host {
 protected:
  // When, in milliseconds from now, the host sends REGISTERs to `a`, which says nothing.
  std::vector<std::uint64_t> register_times_ms(std::uint64_t seconds) {
    std::vector<std::uint64_t> times;
    run_us(seconds * SECOND_US, 100 * MS, [&](std::uint64_t elapsed) {
      if (!take(a).empty()) times.push_back(elapsed / MS);
    });
    return times;
  }
  const lund_server_reg& registration(int index = 0) const {
    return rig.host->registrations[index];
  }
  std::vector<lund_conn_event> events_of(std::uint32_t type) {
    std::vector<lund_conn_event> list = rig.events();
    std::erase_if(list, [type](const lund_conn_event& event) { return event.type != type; });
    return list;
  }
};

}  // namespace

TEST_F(HostServers, FirstTickRegistersWithEachServerWithZeroTokenAndProof) {
  lund_host_tick(rig.host);
  ASSERT_EQ(rig.sent.size(), 2U);
  const std::vector<sent_datagram> sent = rig.sent;
  for (const server_peer* server : {&a, &b}) {
    rig.sent = sent;
    const auto messages = take(*server);
    ASSERT_EQ(messages.size(), 1U);
    const lund_rv_message& message = messages[0];
    EXPECT_EQ(message.type, LUND_RV_REGISTER);
    EXPECT_EQ(std::memcmp(message.key, rig.key(), LUND_KEY_SIZE), 0);
    EXPECT_TRUE(peer::filled(message.token, 0));
    EXPECT_TRUE(peer::filled(message.proof, 0));
    ASSERT_EQ(message.lan_count, 2);
    EXPECT_TRUE(lund_rv_endpoint_equal(message.lan[0], peer::at("192.168.1.5:9876")));
    EXPECT_TRUE(lund_rv_endpoint_equal(message.lan[1], peer::at("10.0.0.5:9876")));
  }
}

TEST_F(HostServers, ChallengeBringsASecondRegisterAtOnceWithAValidProof) {
  lund_host_tick(rig.host);
  rig.sent.clear();
  hear(a, a.challenge(0x77));
  ASSERT_EQ(rig.sent.size(), 1U);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].type, LUND_RV_REGISTER);
  EXPECT_TRUE(peer::filled(messages[0].token, 0x77));
  EXPECT_EQ(messages[0].lan_count, 2);
  EXPECT_TRUE(a.accepts(messages[0]));
  EXPECT_FALSE(b.accepts(messages[0])) << "a proof is for one server";
  EXPECT_EQ(registration().state, REG_CHALLENGED);
  EXPECT_EQ(registration(1).state, REG_IDLE);
}

TEST_F(HostServers, ChallengeWithALowOrderKeyStartsOver) {
  lund_rv_message challenge = server_peer::of_type(LUND_RV_CHALLENGE);
  std::memset(challenge.token, 0x77, sizeof challenge.token);
  hear(a, a.say(challenge));
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(peer::filled(messages[0].token, 0));
  EXPECT_TRUE(peer::filled(messages[0].proof, 0));
  EXPECT_EQ(registration().state, REG_IDLE);
}

TEST_F(HostServers, RegisteredIsToldOnceWithAddressAndRoundTrip) {
  hear(a, a.challenge());
  virtual_time::advance_us(23'456);
  hear(a, a.registered(PUBLIC));
  EXPECT_EQ(rig.lines, std::vector<std::string>{
                           "registered with a.example:9877 as 203.0.113.50:9876 (rtt 23.5 ms)"});
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_SERVER_UP);
  EXPECT_EQ(events[0].server, 0);
  EXPECT_EQ(events[0].rtt_us, 23'456U);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, PUBLIC));
  forget();

  rig.wait_us(20 * SECOND_US);
  hear(a, a.registered(PUBLIC));
  EXPECT_TRUE(rig.events().empty()) << "nothing has changed";
  EXPECT_FALSE(rig.logged("registered with"));
  EXPECT_EQ(status(0).rtt_us, 0U) << "but the round trip is the last one's";

  hear(a, a.registered(ELSEWHERE));
  const auto moved = events_of(LUND_EV_SERVER_UP);
  ASSERT_EQ(moved.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(moved[0].addr, ELSEWHERE));
  EXPECT_TRUE(rig.logged("registered with a.example:9877 as 203.0.113.99:1234"));
}

TEST_F(HostServers, ALeaseOfZeroIsRefreshedAfterTwentySeconds) {
  register_with(a, 0);
  EXPECT_THAT(register_times_ms(21), ElementsAre(20'000));
}

TEST_F(HostServers, ALeaseOfThreeHundredIsRefreshedAfterThreeHundredSeconds) {
  register_with(a, 300);
  EXPECT_THAT(register_times_ms(301), ElementsAre(300'000));
}

TEST_F(HostServers, ARefreshProvesTheLastChallengeAgain) {
  register_with(a);
  rig.wait_us(20 * SECOND_US);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(peer::filled(messages[0].token, 0xC4));
  EXPECT_TRUE(a.accepts(messages[0]));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
}

TEST_F(HostServers, AServerIsLostAtTheThirdUnansweredRegister) {
  register_with(a);
  EXPECT_THAT(register_times_ms(59), ElementsAre(20'000, 40'000));
  EXPECT_TRUE(rig.events().empty());
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_THAT(register_times_ms(1), ElementsAre(1'000));
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_SERVER_LOST);
  EXPECT_EQ(events[0].server, 0);
  EXPECT_TRUE(rig.logged("server a.example:9877 stopped answering"));
  EXPECT_EQ(status(0).state, LUND_SERVER_NO_ANSWER);
  EXPECT_THAT(register_times_ms(20), ElementsAre(4'000, 12'000, 20'000)) << "back on the back-off";
  EXPECT_TRUE(rig.events().empty());
}

TEST_F(HostServers, ALostServerStartsOverWithoutAToken) {
  register_with(a);
  register_times_ms(60);
  rig.wait_us(4 * SECOND_US);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(peer::filled(messages[0].token, 0));
}

TEST_F(HostServers, BackoffBeforeAnyAnswerIsOneTwoFourEightEightSeconds) {
  lund_host_tick(rig.host);
  ASSERT_EQ(take(a).size(), 1U);
  EXPECT_THAT(register_times_ms(31), ElementsAre(1'000, 3'000, 7'000, 15'000, 23'000, 31'000));
}

TEST_F(HostServers, AnUnansweredProofIsRepeatedOnABackoffOfItsOwn) {
  run_us(20 * SECOND_US, 100 * MS, [](std::uint64_t) {});
  hear(a, a.challenge());
  rig.sent.clear();
  run_us(SECOND_US, SECOND_US, [](std::uint64_t) {});
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(a.accepts(messages[0]));
}

TEST_F(HostServers, ErrorTwoStartsOverWithAZeroChallengeAfterFiveSeconds) {
  register_with(a);
  hear(a, a.error(2));
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_EQ(rig.lines, std::vector<std::string>{"server a.example:9877: error 2"});
  EXPECT_EQ(registration().state, REG_IDLE);
  rig.wait_us(5 * SECOND_US - 1);
  EXPECT_TRUE(take(a).empty());
  rig.wait_us(1);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(peer::filled(messages[0].token, 0));
  EXPECT_TRUE(peer::filled(messages[0].proof, 0));
}

TEST_F(HostServers, OtherErrorsKeepTheStateAndDelayTheNextRegister) {
  for (const auto code : std::initializer_list<std::uint8_t>{0, 4, 99}) {
    register_with(a);
    hear(a, a.error(code));
    EXPECT_EQ(registration().state, REG_REGISTERED) << int{code};
    EXPECT_EQ(registration().last_error, code == 0 ? -1 : code);
    EXPECT_EQ(registration().tries, 0);
    EXPECT_THAT(register_times_ms(6), ElementsAre(5'000)) << int{code};
  }
}

TEST_F(HostServers, AnAnswerForgetsTheError) {
  hear(a, a.error(4));
  EXPECT_EQ(status(0).state, LUND_SERVER_REFUSED);
  hear(a, a.challenge());
  EXPECT_EQ(registration().last_error, 0);
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
}

TEST_F(HostServers, ServersAreRegisteredWithIndependently) {
  register_with(b);
  hear(a, a.error(4));
  EXPECT_EQ(status(0).state, LUND_SERVER_REFUSED);
  EXPECT_EQ(status(1).state, LUND_SERVER_REGISTERED);
  run_us(15 * SECOND_US, 100 * MS, [](std::uint64_t) {});
  EXPECT_EQ(status(0).state, LUND_SERVER_REFUSED);
  EXPECT_TRUE(take(b).empty());
}

TEST_F(HostServers, WhatAServerDoesNotSayIsDropped) {
  register_with(a);
  for (const std::uint8_t type :
       {LUND_RV_REGISTER, LUND_RV_LOOKUP, LUND_RV_LOOKUP_RESULT, LUND_RV_BIND}) {
    lund_rv_message message = server_peer::of_type(type);
    message.target_size = 16;
    const peer::bytes datagram = a.say(message);
    ASSERT_FALSE(datagram.empty());
    EXPECT_EQ(rig.receive(datagram, a.address), LUND_RX_NONE);
  }
  for (std::uint8_t type = 107; type <= 111; ++type)
    EXPECT_EQ(rig.receive(peer::packet(type, 0, peer::bytes(40)), a.address), LUND_RX_NONE);
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_TRUE(rig.lines.empty());
  EXPECT_EQ(registration().state, REG_REGISTERED);
}

TEST_F(HostServers, RendezvousMessagesNeverReachTheApplicationEvenWhenPlainPacketsDo) {
  rig.host->allow_plain = 1;
  EXPECT_EQ(rig.receive(peer::packet(LUND_RV_PUNCH, 0, peer::bytes(21)), ELSEWHERE), LUND_RX_NONE);
  EXPECT_EQ(rig.receive(peer::packet(111), ELSEWHERE), LUND_RX_NONE);
}

// Status.

TEST_F(HostServers, StatusOfAnIndexBeyondTheTableIsZeroedAndRefused) {
  for (const int index : {-1, 2, 8}) {
    lund_server_status status;
    status.port = 1;
    status.host[0] = 'x';
    EXPECT_EQ(lund_host_server_status(rig.host, index, &status), -1);
    EXPECT_EQ(status.port, 0);
    EXPECT_EQ(status.host[0], '\0');
  }
}

TEST_F(HostServers, StatusSummaryFollowsItsTable) {
  lund_relay_config relays = peer::relays_of({a});
  relays.servers[0].endpoint = {};
  const lund_relay_config none;  // otherwise the name would keep the address it has
  lund_host_set_relay(rig.host, &none);
  lund_host_set_relay(rig.host, &relays);
  EXPECT_EQ(status(0).state, LUND_SERVER_RESOLVING);
  lund_host_server_resolved(rig.host, "a.example", 9877, nullptr);
  EXPECT_EQ(status(0).state, LUND_SERVER_NO_NAME);
  EXPECT_EQ(status(0).endpoint.family, 0);
  EXPECT_STREQ(status(0).host, "a.example");
  EXPECT_EQ(status(0).port, 9877);

  lund_host_server_resolved(rig.host, "a.example", 9877, &a.address);
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_TRUE(lund_rv_endpoint_equal(status(0).endpoint, a.address));
  lund_host_tick(rig.host);
  rig.wait_us(1 * SECOND_US);
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING) << "two tries";
  rig.wait_us(2 * SECOND_US);
  EXPECT_EQ(status(0).state, LUND_SERVER_NO_ANSWER) << "three";

  hear(a, a.error(4));
  EXPECT_EQ(status(0).state, LUND_SERVER_REFUSED);
  EXPECT_EQ(status(0).error, 4);
  hear(a, a.error(0));
  EXPECT_EQ(status(0).state, LUND_SERVER_REFUSED);
  EXPECT_EQ(status(0).error, 0) << "a temporary refusal has no code to show";

  hear(a, a.challenge());
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(status(0).registered, 0U);
  virtual_time::advance_us(5'000);
  hear(a, a.registered(PUBLIC));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_EQ(status(0).registered, 1U);
  EXPECT_EQ(status(0).rtt_us, 5'000U);
  EXPECT_TRUE(lund_rv_endpoint_equal(status(0).public_endpoint, PUBLIC));
  hear(a, a.error(4));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED) << "registered comes before the error";
  EXPECT_EQ(status(0).error, 4);
  lund_host_server_resolved(rig.host, "a.example", 9877, nullptr);
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED) << "the last address still serves";
}

// Names.

TEST_F(HostServers, AServerWithoutAnAddressIsNeverContactedUntilItHasOne) {
  lund_relay_config relays = peer::relays_of({a});
  relays.servers[0].endpoint = {};
  const lund_relay_config none;
  lund_host_set_relay(rig.host, &none);
  lund_host_set_relay(rig.host, &relays);
  run_us(60 * SECOND_US, SECOND_US, [](std::uint64_t) {});
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_EQ(lund_host_tick(rig.host), 250'000U) << "nothing is due";

  lund_rv_endpoint found = a.address;
  found.port = 1;  // the resolver knows no port; the list does
  lund_host_server_resolved(rig.host, "A.EXAMPLE", 9877, &found);
  EXPECT_TRUE(rig.logged("server a.example:9877 is at 198.51.100.1:9877"));
  EXPECT_TRUE(rig.sent.empty()) << "the tick sends";
  lund_host_tick(rig.host);
  EXPECT_EQ(take(a).size(), 1U);
}

TEST_F(HostServers, AServerThatMovesIsRegisteredWithAnew) {
  register_with(a);
  register_with(b);
  const server_peer moved("a.example", "198.51.100.77:9877", 0xA1);
  lund_host_server_resolved(rig.host, "a.example", 9877, &moved.address);
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(status(0).public_endpoint.family, 0);
  EXPECT_EQ(status(1).state, LUND_SERVER_REGISTERED);
  lund_host_tick(rig.host);
  ASSERT_EQ(rig.sent.size(), 1U);
  const auto messages = take(moved);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(peer::filled(messages[0].token, 0));
  hear(a, a.challenge());
  EXPECT_TRUE(rig.sent.empty()) << "nobody listens to the old address";
}

TEST_F(HostServers, AResultThatChangesNothingLeavesTheRegistrationAlone) {
  register_with(a);
  lund_host_server_resolved(rig.host, "a.example", 9877, &a.address);
  lund_host_server_resolved(rig.host, "a.example", 9877, nullptr);
  lund_host_server_resolved(rig.host, "a.example", 9878, &b.address);
  lund_host_server_resolved(rig.host, "c.example", 9877, &b.address);
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_TRUE(lund_rv_endpoint_equal(status(0).endpoint, a.address));
  rig.wait_us(SECOND_US);
  EXPECT_TRUE(take(a).empty());
}

// LAN addresses.

TEST_F(HostServers, NewLanAddressesAreRegisteredAtTheNextTickWithAFreshProof) {
  register_with(a);
  const lund_rv_endpoint lan[5] = {peer::at("192.168.7.1:9876"), peer::at("192.168.7.2:9876"),
                                   peer::at("192.168.7.3:9876"), peer::at("192.168.7.4:9876"),
                                   peer::at("192.168.7.5:9876")};
  lund_host_set_lan_endpoints(rig.host, lan, 5);
  EXPECT_EQ(registration().state, REG_CHALLENGED);
  EXPECT_EQ(registration(1).state, REG_IDLE);
  EXPECT_TRUE(rig.sent.empty());
  lund_host_tick(rig.host);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  ASSERT_EQ(messages[0].lan_count, 4);
  EXPECT_TRUE(lund_rv_endpoint_equal(messages[0].lan[3], lan[3]));
  EXPECT_TRUE(peer::filled(messages[0].token, 0xC4));
  EXPECT_TRUE(a.accepts(messages[0]));
  hear(a, a.registered(PUBLIC));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);

  lund_host_set_lan_endpoints(rig.host, nullptr, 0);
  lund_host_tick(rig.host);
  const auto without = take(a);
  ASSERT_EQ(without.size(), 1U);
  EXPECT_EQ(without[0].lan_count, 0);
  EXPECT_TRUE(a.accepts(without[0]));
}

// Wake times.

TEST_F(HostServers, TickAsksForTheTimeOfTheNextRegister) {
  EXPECT_EQ(lund_host_tick(rig.host), 250'000U) << "a second to go";
  virtual_time::advance_us(900'000);
  EXPECT_EQ(lund_host_tick(rig.host), 100'000U);
  virtual_time::advance_us(99'999);
  EXPECT_EQ(lund_host_tick(rig.host), 1'000U) << "never less";
}

TEST_F(HostServers, FollowingTheTicksOwnTimesMissesNoRegister) {
  std::vector<std::uint64_t> times;
  std::uint64_t elapsed = 0;
  while (elapsed < 32 * SECOND_US) {
    const std::uint64_t wait = lund_host_tick(rig.host);
    ASSERT_GE(wait, 1'000U);
    ASSERT_LE(wait, 250'000U);
    if (!take(a).empty()) times.push_back(elapsed / MS);
    virtual_time::advance_us(wait);
    elapsed += wait;
  }
  EXPECT_EQ(times, (std::vector<std::uint64_t>{0, 1'000, 3'000, 7'000, 15'000, 23'000, 31'000}));
}

TEST_F(HostServers, RegistrationAllocatesNothing) {
  counted_host counted(peer::relays_of({a, b}));
  const peer::bytes said[] = {a.challenge(), a.registered(PUBLIC), a.error(2), b.challenge(),
                              b.registered(ELSEWHERE, 300)};
  const lund_relay_config reversed = peer::relays_of({b, a});
  const AllocationCount allocations;
  lund_host_tick(counted.host);
  for (int i = 0; i < 5; ++i) counted.receive(said[i], i < 3 ? a.address : b.address);
  for (int i = 0; i < 100; ++i) {
    virtual_time::advance_us(SECOND_US);
    lund_host_tick(counted.host);
  }
  lund_host_set_relay(counted.host, &reversed);
  lund_host_set_lan_endpoints(counted.host, &PUBLIC, 1);
  lund_host_server_resolved(counted.host, "a.example", 9877, &ELSEWHERE);
  lund_host_tick(counted.host);
  EXPECT_EQ(allocations.count(), 0U);
  EXPECT_GT(counted.sent, 10);
}
