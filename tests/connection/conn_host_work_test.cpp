// Punching and relay allocations for the clients that servers announce.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "connection/protocol.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/served_host.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t MS = 1'000;
constexpr std::uint32_t FIRST = 0xAA51;  // allocations: token 0xAA, punch token 0x51
constexpr std::uint32_t SECOND = 0xBB52;
const lund_rv_endpoint CLIENT = peer::at("203.0.113.7:6000");
const lund_rv_endpoint CLIENT_LAN = peer::at("192.168.50.7:6000");
const lund_rv_endpoint ELSEWHERE = peer::at("203.0.113.99:1234");
const peer::bytes PING = peer::packet(LUND_PKT_PING, 0, peer::bytes(12));

class HostWork : public ::testing::Test, protected served_host {
 protected:
  HostWork() {
    register_with(a, 3'600);  // no refresh among what the tests look at
    register_with(b, 3'600);
  }
  // Milliseconds from now at which the host sends BINDs to `a`.
  std::vector<std::uint64_t> bind_times_ms(std::uint64_t seconds) {
    std::vector<std::uint64_t> times;
    run_us(seconds * SECOND_US, 100 * MS, [&](std::uint64_t elapsed) {
      for (const lund_rv_message& message : take(a))
        if (message.type == LUND_RV_BIND) times.push_back(elapsed / MS);
    });
    return times;
  }
  int entries() const {
    return static_cast<int>(
        std::count_if(std::begin(rig.host->work), std::end(rig.host->work),
                      [](const lund_host_work& work) { return work.used != 0; }));
  }
  const lund_host_work& entry(int index = 0) const { return rig.host->work[index]; }
  // A session from `from`, and what keeps it from lapsing.
  void connect(const lund_rv_endpoint& from) {
    ASSERT_TRUE(rig.connect(client, from));
    forget();
  }
  void say_something(const lund_rv_endpoint& from) {
    ASSERT_EQ(rig.receive(client.seal(PING), from), LUND_RX_OPENED);
  }
  std::int32_t path_of_session() const {
    lund_session_info info;
    lund_host_session_info_get(rig.host, client.session.session_id, &info);
    return info.path;
  }

  engine_peer client = rig.client(2);
};

}  // namespace

// Punching.

TEST_F(HostWork, ANotificationPunchesAtEachCandidateAndBindsAtOnce) {
  lund_rv_message notify = server_peer::notification(CLIENT, FIRST);
  notify.lan_count = 1;
  notify.lan[0] = CLIENT_LAN;
  hear(a, a.say(notify));
  EXPECT_EQ(rig.lines,
            std::vector<std::string>{"client 203.0.113.7:6000 via a.example:9877: "
                                     "punching 2 candidates, relay allocation 0000aa51"});
  const std::vector<sent_datagram> sent = rig.sent;
  ASSERT_EQ(sent.size(), 3U);
  const auto punches = take_punches();
  ASSERT_EQ(punches.size(), 2U);
  EXPECT_TRUE(lund_rv_endpoint_equal(punches[0].to, CLIENT));
  EXPECT_TRUE(lund_rv_endpoint_equal(punches[1].to, CLIENT_LAN));
  for (const to_peer& punch : punches) {
    EXPECT_EQ(punch.message.type, LUND_RV_PUNCH);
    EXPECT_EQ(punch.message.side, 0);
    EXPECT_TRUE(peer::filled(punch.message.punch_token, 0x51));
  }
  rig.sent = sent;
  const auto binds = take(a);
  ASSERT_EQ(binds.size(), 1U);
  EXPECT_EQ(binds[0].type, LUND_RV_BIND);
  EXPECT_EQ(binds[0].allocation, FIRST);
  EXPECT_EQ(binds[0].side, 0);
  EXPECT_TRUE(peer::filled(binds[0].token, 0xAA));
}

TEST_F(HostWork, PunchingIsFiftyRoundsInTwoAndAHalfSeconds) {
  hear(a, a.notify(CLIENT, FIRST));
  std::set<std::uint32_t> nonces;
  std::size_t punches = 0;
  const auto count = [&](std::uint64_t) {
    for (const to_peer& punch : take_punches()) {
      nonces.insert(punch.message.nonce);
      ++punches;
    }
  };
  count(0);
  run_us(10 * SECOND_US, 10 * MS, count);
  EXPECT_EQ(punches, 50U);
  EXPECT_EQ(nonces.size(), 50U) << "each with a nonce of its own";
}

TEST_F(HostWork, RoundsAreFiftyMillisecondsApart) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  rig.wait_us(50 * MS - 1);
  EXPECT_THAT(take_punches(), IsEmpty());
  rig.wait_us(1);
  EXPECT_EQ(take_punches().size(), 1U);
}

TEST_F(HostWork, ARepeatedNotificationMakesNoNewEntryAndRestartsTheTwoAndAHalfSeconds) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.wait_us(2 * SECOND_US);
  forget();
  hear(a, a.notify(CLIENT, FIRST));
  EXPECT_EQ(entries(), 1);
  EXPECT_FALSE(rig.logged("punching"));
  EXPECT_EQ(take_punches().size(), 1U) << "and punches at once";
  rig.wait_us(2'450 * MS);
  EXPECT_EQ(take_punches().size(), 1U);
  rig.wait_us(50 * MS);
  EXPECT_THAT(take_punches(), IsEmpty());
}

TEST_F(HostWork, ARepeatedNotificationBringsItsOwnTokensAndCandidates) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  lund_rv_message notify = server_peer::notification(ELSEWHERE, FIRST);
  std::memset(notify.punch_token, 0x99, sizeof notify.punch_token);
  std::memset(notify.token, 0x98, sizeof notify.token);
  hear(a, a.say(notify));
  const auto punches = take_punches();
  ASSERT_EQ(punches.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(punches[0].to, ELSEWHERE));
  EXPECT_TRUE(peer::filled(punches[0].message.punch_token, 0x99));
  rig.wait_us(SECOND_US);
  const auto binds = take(a);
  ASSERT_EQ(binds.size(), 1U);
  EXPECT_TRUE(peer::filled(binds[0].token, 0x98));
}

TEST_F(HostWork, ACandidateIsListedOnceAndOnlyWithAnAddress) {
  lund_rv_message notify = server_peer::notification(CLIENT, FIRST);
  notify.lan_count = 4;
  notify.lan[0] = CLIENT_LAN;
  notify.lan[1] = CLIENT;  // again
  notify.lan[3] = CLIENT_LAN;
  hear(a, a.say(notify));
  ASSERT_EQ(entry().candidate_count, 2);
  EXPECT_TRUE(lund_rv_endpoint_equal(entry().candidates[0], CLIENT));
  EXPECT_TRUE(lund_rv_endpoint_equal(entry().candidates[1], CLIENT_LAN));
  EXPECT_EQ(take_punches().size(), 2U);
}

TEST_F(HostWork, FiveCandidatesAreTheMost) {
  lund_rv_message notify = server_peer::notification(CLIENT, FIRST);
  notify.lan_count = 4;
  for (std::uint8_t i = 0; i < 4; ++i) {
    notify.lan[i] = CLIENT_LAN;
    notify.lan[i].port = static_cast<std::uint16_t>(6000 + i);
  }
  hear(a, a.say(notify));
  EXPECT_EQ(entry().candidate_count, 5);
  EXPECT_EQ(take_punches().size(), 5U);
}

TEST_F(HostWork, AClientWithoutAnAddressIsPunchedAtItsLanAddressesAlone) {
  lund_rv_message notify = server_peer::notification({}, FIRST);
  notify.lan_count = 1;
  notify.lan[0] = CLIENT_LAN;
  hear(a, a.say(notify));
  EXPECT_TRUE(rig.logged("client - via a.example:9877: punching 2 candidates"));
  const auto punches = take_punches();
  ASSERT_EQ(punches.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(punches[0].to, CLIENT_LAN));
}

TEST_F(HostWork, APunchIsAcknowledgedToWhereItCameFrom) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  rig.receive(peer::punch(LUND_RV_PUNCH, token, 0xDEADBEEF), ELSEWHERE);
  const auto punches = take_punches();
  ASSERT_EQ(punches.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(punches[0].to, ELSEWHERE));
  EXPECT_EQ(punches[0].message.type, LUND_RV_PUNCH_ACK);
  EXPECT_EQ(punches[0].message.nonce, 0xDEADBEEFU);
  EXPECT_EQ(punches[0].message.side, 0);
  EXPECT_TRUE(peer::filled(punches[0].message.punch_token, 0x51));
  EXPECT_FALSE(conn_host_is_candidate(rig.host, ELSEWHERE)) << "and changes nothing";
}

TEST_F(HostWork, APunchWithAnUnknownTokenGetsNoAnswer) {
  std::uint8_t token[16] = {};
  rig.receive(peer::punch(LUND_RV_PUNCH, token, 1), CLIENT);
  EXPECT_TRUE(rig.sent.empty()) << "unused entries have no token";
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  std::memset(token, 0x51, sizeof token);
  token[15] ^= 1;
  rig.receive(peer::punch(LUND_RV_PUNCH, token, 1), CLIENT);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostWork, AnAcknowledgementIsNotAnswered) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  rig.receive(peer::punch(LUND_RV_PUNCH_ACK, token, 1), CLIENT);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostWork, APunchThatCarriesATagIsMalformed) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  lund_rv_message punch = server_peer::of_type(LUND_RV_PUNCH);
  std::memset(punch.punch_token, 0x51, sizeof punch.punch_token);
  hear(a, a.say(punch));
  EXPECT_TRUE(rig.sent.empty());
}

// Allocations.

TEST_F(HostWork, AnAllocationIsBoundEachSecondUntilTheRelayConfirmsThenEachFifteen) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  EXPECT_THAT(bind_times_ms(3), ElementsAre(1'000, 2'000, 3'000));
  hear(a, a.bound(FIRST));
  EXPECT_TRUE(rig.logged("relay allocation 0000aa51 bound"));
  forget();
  EXPECT_THAT(bind_times_ms(16), ElementsAre(15'000));
  hear(a, a.bound(FIRST));
  EXPECT_FALSE(rig.logged("bound")) << "told once";
}

TEST_F(HostWork, ABoundWithAFailureClearsTheEntry) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.bound(FIRST, 1));
  EXPECT_EQ(entries(), 0);
  EXPECT_FALSE(conn_host_is_candidate(rig.host, CLIENT));
  rig.sent.clear();
  rig.wait_us(SECOND_US);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostWork, ABoundForAnotherAllocationOrOfAnotherServerChangesNothing) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(b, b.bound(FIRST));
  hear(b, b.bound(FIRST, 1));
  hear(a, a.bound(SECOND));
  hear(a, a.bound(SECOND, 1));
  ASSERT_EQ(entries(), 1);
  EXPECT_EQ(entry().bound, 0U);
}

TEST_F(HostWork, ANewAllocationTakesTheOldOnesPlaceAtItsServerAlone) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(b, b.notify(CLIENT, FIRST));
  hear(a, a.notify(ELSEWHERE, SECOND));
  ASSERT_EQ(entries(), 3);
  EXPECT_EQ(entry(0).active, 0U);
  EXPECT_EQ(entry(1).active, 1U) << "the other server's";
  EXPECT_EQ(entry(2).active, 1U);
  rig.sent.clear();
  rig.wait_us(SECOND_US);
  const std::vector<sent_datagram> sent = rig.sent;
  const auto binds = take(a);
  ASSERT_EQ(binds.size(), 1U);
  EXPECT_EQ(binds[0].allocation, SECOND);
  rig.sent = sent;
  EXPECT_EQ(take_punches().size(), 3U) << "the former client is still punched at";
}

TEST_F(HostWork, ANotificationForAFormerAllocationMakesItTheCurrentOneAgain) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.notify(ELSEWHERE, SECOND));
  rig.wait_us(2 * SECOND_US);
  rig.sent.clear();
  hear(a, a.notify(CLIENT, FIRST));
  EXPECT_EQ(entry(0).active, 1U);
  EXPECT_EQ(entry(1).active, 0U);
  const auto binds = take(a);
  ASSERT_EQ(binds.size(), 1U);
  EXPECT_EQ(binds[0].allocation, FIRST);
}

TEST_F(HostWork, ANinthClientTakesThePlaceOfTheOldestEntry) {
  for (std::uint32_t i = 0; i < 8; ++i) {
    hear(a, a.notify(CLIENT, 100 + i));
    virtual_time::advance_us(MS);
  }
  hear(b, b.notify(ELSEWHERE, 200));
  EXPECT_EQ(entries(), 8);
  EXPECT_EQ(entry(0).allocation, 200U);
  EXPECT_EQ(entry(0).server, 1);
  EXPECT_EQ(entry(0).bound, 0U);
  hear(b, b.notify(ELSEWHERE, 201));
  EXPECT_EQ(entry(1).allocation, 201U);
}

// How long an entry lives.

TEST_F(HostWork, WithoutASessionBindingEndsAfterThirtySecondsAndTheEntryAfterSixty) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.bound(FIRST));
  rig.sent.clear();
  EXPECT_THAT(bind_times_ms(60), ElementsAre(15'000));
  EXPECT_EQ(entries(), 1) << "not yet more than 60 s old";
  rig.wait_us(1);
  EXPECT_EQ(entries(), 0);
}

TEST_F(HostWork, AnUnconfirmedAllocationIsNotBoundForLongerThanThirtySeconds) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.sent.clear();
  EXPECT_EQ(bind_times_ms(40).size(), 29U);
}

TEST_F(HostWork, AnActiveEntryWithALiveSessionIsNotDroppedAndGoesOnBinding) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.bound(FIRST));
  connect(CLIENT);
  std::vector<std::uint64_t> times;
  run_us(200 * SECOND_US, 500 * MS, [&](std::uint64_t elapsed) {
    for (const lund_rv_message& message : take(a)) {
      ASSERT_EQ(message.type, LUND_RV_BIND);
      times.push_back(elapsed / MS);
      hear(a, a.bound(FIRST));
    }
    if (elapsed % (10 * SECOND_US) == 0) say_something(CLIENT);
  });
  ASSERT_EQ(times.size(), 13U);
  for (std::size_t i = 0; i < times.size(); ++i) EXPECT_EQ(times[i], 15'000 * (i + 1));
  EXPECT_EQ(entries(), 1);

  lund_host_session_close(rig.host, client.session.session_id);
  lund_host_tick(rig.host);
  EXPECT_EQ(entries(), 0) << "with the session its reason goes";
}

TEST_F(HostWork, AnEntryThatIsNotCurrentIsDroppedAfterSixtySecondsInSpiteOfASession) {
  hear(a, a.notify(CLIENT, FIRST));
  virtual_time::advance_us(1);
  hear(a, a.notify(CLIENT, SECOND));
  connect(CLIENT);
  rig.wait_us(30 * SECOND_US);
  say_something(CLIENT);
  rig.wait_us(30 * SECOND_US);
  EXPECT_EQ(entries(), 1);
  EXPECT_EQ(entry(1).allocation, SECOND);
}

TEST_F(HostWork, AServerThatMovesLosesItsEntriesAndOthersKeepTheirs) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(b, b.notify(CLIENT, FIRST));
  hear(a, a.notify(CLIENT, SECOND));
  lund_host_server_resolved(rig.host, "a.example", 9877, &ELSEWHERE);
  ASSERT_EQ(entries(), 1);
  EXPECT_EQ(entry(1).server, 1);
}

// Paths.

TEST_F(HostWork, ASessionFromACandidateIsP2P) {
  ASSERT_TRUE(rig.connect(client, CLIENT));
  EXPECT_EQ(path_of_session(), LUND_PATH_DIRECT) << "nobody has announced it";
  lund_host_session_close(rig.host, client.session.session_id);
  hear(a, a.notify(CLIENT, FIRST));
  connect(CLIENT);
  EXPECT_EQ(path_of_session(), LUND_PATH_P2P);
  EXPECT_EQ(rig.rx.path, LUND_PATH_P2P);
}

TEST_F(HostWork, ACandidateOnTheLanIsOnTheLan) {
  lund_rv_message notify = server_peer::notification(CLIENT, FIRST);
  notify.lan_count = 1;
  notify.lan[0] = CLIENT_LAN;
  hear(a, a.say(notify));
  connect(CLIENT_LAN);
  EXPECT_EQ(path_of_session(), LUND_PATH_LAN);
}

TEST_F(HostWork, ASessionThroughAServerIsRelayedAndMovesToP2PWithItsPackets) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.bound(FIRST));
  ASSERT_TRUE(rig.connect(client, a.address)) << "handshake and record, passed on by the relay";
  EXPECT_EQ(path_of_session(), LUND_PATH_RELAY);
  EXPECT_EQ(rig.rx.path, LUND_PATH_RELAY);
  forget();
  ASSERT_EQ(rig.receive(client.seal(peer::probe(1)), CLIENT), LUND_RX_NONE);
  EXPECT_EQ(path_of_session(), LUND_PATH_P2P);
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_PATH_CHANGED);
  EXPECT_EQ(events[0].path, LUND_PATH_P2P);
  EXPECT_TRUE(rig.logged("path -> P2P 203.0.113.7:6000"));
}

TEST_F(HostWork, AServersAddressIsTheRelayEvenWhenItIsACandidate) {
  hear(a, a.notify(b.address, FIRST));
  connect(b.address);
  EXPECT_EQ(path_of_session(), LUND_PATH_RELAY);
}

TEST_F(HostWork, AnAddressOfAnEntryThatIsGoneIsDirect) {
  hear(a, a.notify(CLIENT, FIRST));
  hear(a, a.bound(FIRST, 1));
  connect(CLIENT);
  EXPECT_EQ(path_of_session(), LUND_PATH_DIRECT);
}

// Wake times.

TEST_F(HostWork, TickAsksForTheNextPunchAndThenForTheNextBind) {
  hear(a, a.notify(CLIENT, FIRST));
  EXPECT_EQ(lund_host_tick(rig.host), 50'000U);
  virtual_time::advance_us(2'490 * MS);  // one more round, and a second later a BIND
  EXPECT_EQ(lund_host_tick(rig.host), 50'000U);
  virtual_time::advance_us(900 * MS);
  EXPECT_EQ(lund_host_tick(rig.host), 100'000U);
}

TEST_F(HostWork, TickAsksForNothingOnceBindingHasEnded) {
  hear(a, a.notify(CLIENT, FIRST));
  rig.wait_us(29 * SECOND_US);
  virtual_time::advance_us(SECOND_US);
  EXPECT_EQ(lund_host_tick(rig.host), 250'000U);
}

TEST_F(HostWork, ServerWorkAllocatesNothing) {
  counted_host counted(peer::relays_of({a}));
  std::uint8_t token[16];
  std::memset(token, 0x51, sizeof token);
  const peer::bytes said[] = {a.notify(CLIENT, FIRST), a.bound(FIRST),
                              peer::punch(LUND_RV_PUNCH, token, 1), a.notify(CLIENT, SECOND),
                              a.bound(SECOND, 1)};
  const AllocationCount allocations;
  for (const peer::bytes& datagram : said) {
    counted.receive(datagram, a.address);
    for (int i = 0; i < 40; ++i) {
      virtual_time::advance_us(50 * MS);
      lund_host_tick(counted.host);
    }
  }
  EXPECT_EQ(allocations.count(), 0U);
  EXPECT_GT(counted.sent, 80);
}
