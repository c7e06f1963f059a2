#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/client_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;
const lund_rv_endpoint RELAY = EnginePair::HOST_RELAY;

lund_client_path measured(std::int32_t path_class, std::uint32_t rtt_us) {
  lund_client_path path;
  path.used = 1;
  path.path_class = path_class;
  path.rtt_us = rtt_us;
  return path;
}

bool better(std::uint32_t a_rtt_us, std::uint32_t b_rtt_us) {
  return client_engine::better(measured(LUND_PATH_LAN, a_rtt_us),
                               measured(LUND_PATH_LAN, b_rtt_us));
}

// A connected pair whose fast phase is long over.
struct SettledPair : EnginePair {
  SettledPair() {
    add_lan();
    add_wan();
    add_relay();
    EXPECT_TRUE(connect());
    net.run_for_ms(4'000);
    EXPECT_EQ(status().path, LUND_PATH_LAN);
    client_events(0);
  }
};

// Virtual milliseconds until the client is on a path of this class; `limit_ms` if it isn't by then.
std::uint64_t ms_until_on(EnginePair& pair, std::int32_t path_class, std::uint64_t limit_ms) {
  const std::uint64_t start = lund_now_us();
  pair.net.run_until([&] { return pair.status().path == path_class; }, limit_ms);
  return (lund_now_us() - start) / 1000;
}

bool host_sends_to(EnginePair& pair, const lund_rv_endpoint& address) {
  lund_session_info info;
  return lund_host_session_info_get(pair.host, pair.status().session_id, &info) == 0 &&
         lund_rv_endpoint_equal(info.peer, address);
}

bool probes_on(const ClientRig::Sent& probe) {
  return probe.bytes[3] == 1;
}

}  // namespace

TEST(ClientPaths, WithinAClassItTakesTwentyPercentToBeBetter) {
  EXPECT_TRUE(better(7'999, 10'000));
  EXPECT_FALSE(better(8'000, 10'000));
  EXPECT_FALSE(better(8'500, 10'000));
}

TEST(ClientPaths, WithinAClassItTakesMoreThanHalfAMillisecondToBeBetter) {
  EXPECT_FALSE(better(100, 600));
  EXPECT_TRUE(better(100, 601));
}

TEST(ClientPaths, AnUnmeasuredPathIsNeverBetterInItsClassNorWorse) {
  EXPECT_FALSE(better(0, 10'000));
  EXPECT_FALSE(better(1'000, 0));
}

TEST(ClientPaths, ALowerClassIsBetterWhateverTheTimes) {
  const lund_client_path slow_lan = measured(LUND_PATH_LAN, 900'000);
  const lund_client_path fast_relay = measured(LUND_PATH_RELAY, 500);
  EXPECT_TRUE(client_engine::better(slow_lan, fast_relay));
  EXPECT_FALSE(client_engine::better(fast_relay, slow_lan));
}

TEST(ClientPaths, TheRoundTripTimeIsSmoothedByEighthsAndCutAtTenSeconds) {
  lund_client_path path = measured(LUND_PATH_LAN, 0);
  client_engine::mark_ack(path, 8'000, 1'000'000);
  EXPECT_EQ(path.rtt_us, 8'000u);
  client_engine::mark_ack(path, 16'000, 1'100'000);
  EXPECT_EQ(path.rtt_us, 9'000u);
  path.rtt_us = 0;
  client_engine::mark_ack(path, 60'000'000, 1'200'000);
  EXPECT_EQ(path.rtt_us, 10'000'000u);
}

TEST(ClientPaths, AGapOfMoreThanOneAndAHalfSecondsBreaksARunOfAnswers) {
  lund_client_path path = measured(LUND_PATH_LAN, 0);
  client_engine::mark_ack(path, 1'000, 10'000'000);
  client_engine::mark_ack(path, 1'000, 11'500'000);
  EXPECT_EQ(path.stable_since, 10'000'000u);
  client_engine::mark_ack(path, 1'000, 13'000'001);
  EXPECT_EQ(path.stable_since, 13'000'001u);
}

TEST(ClientPaths, ACandidateNeedsAnAddressAndAPort) {
  ClientRig rig;
  lund_rv_endpoint none;
  lund_rv_endpoint no_port = LAN;
  no_port.port = 0;
  EXPECT_EQ(lund_client_add_candidate(rig.client, nullptr, 1), -1);
  EXPECT_EQ(lund_client_add_candidate(rig.client, &none, 1), -1);
  EXPECT_EQ(lund_client_add_candidate(rig.client, &no_port, 1), -1);
}

TEST(ClientPaths, ACandidateIsLanOnlyWhereTheAddressAgrees) {
  ClientRig rig;
  const lund_rv_endpoint overlay = endpoint("100.64.0.1:9876");
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_LAN);
  lund_client_add_candidate(rig.client, &WAN, LUND_PATH_LAN);
  lund_client_add_candidate(rig.client, &overlay, LUND_PATH_RELAY);  // classified instead
  const lund_client_status status = rig.status();
  ASSERT_EQ(status.path_count, 3);
  EXPECT_EQ(status.paths[0].path_class, LUND_PATH_LAN);
  EXPECT_EQ(status.paths[1].path_class, LUND_PATH_DIRECT);
  EXPECT_EQ(status.paths[2].path_class, LUND_PATH_DIRECT);
  EXPECT_EQ(rig.log.front(), "path LAN 192.168.1.10:9876");
}

TEST(ClientPaths, AKnownAddressTakesTheLowerOfItsClasses) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_DIRECT);
  EXPECT_EQ(rig.status().paths[0].path_class, LUND_PATH_DIRECT);
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_LAN);
  EXPECT_EQ(rig.status().paths[0].path_class, LUND_PATH_LAN);
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_DIRECT);
  EXPECT_EQ(rig.status().paths[0].path_class, LUND_PATH_LAN);
  EXPECT_EQ(rig.status().path_count, 1);
}

TEST(ClientPaths, ThereIsRoomForSixteen) {
  ClientRig rig;
  lund_rv_endpoint address = LAN;
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    ++address.port;
    EXPECT_EQ(lund_client_add_candidate(rig.client, &address, 0), 0);
  }
  EXPECT_EQ(lund_client_add_candidate(rig.client, &address, 0), 0);  // known
  EXPECT_EQ(lund_client_add_candidate(rig.client, &LAN, 0), -1);
}

TEST(ClientPaths, APathOutsideTheModeIsKeptButNeverUsed) {
  struct Case {
    lund_path_mode mode;
    std::vector<lund_rv_endpoint> used;
  };
  const std::vector<Case> cases = {{LUND_PATHS_ALL, {LAN, RELAY}},
                                   {LUND_PATHS_DIRECT, {LAN}},
                                   {LUND_PATHS_RELAY, {RELAY}},
                                   {LUND_PATHS_NO_SERVERS, {LAN}}};
  for (const Case& expected : cases) {
    ClientRig rig([&](lund_client_config& config) { config.path_mode = expected.mode; });
    lund_client_add_candidate(rig.client, &LAN, 0);
    client_engine::path_add(*rig.client, RELAY, LUND_PATH_RELAY, 0);
    lund_client_connect(rig.client);
    rig.tick();
    const auto inits = rig.take(LUND_PKT_HS_INIT);
    ASSERT_THAT(inits, SizeIs(expected.used.size())) << expected.mode;
    for (std::size_t i = 0; i < inits.size(); ++i)
      EXPECT_TRUE(lund_rv_endpoint_equal(inits[i].to, expected.used[i])) << expected.mode;
    EXPECT_EQ(rig.status().path_count, 2) << expected.mode;
  }
}

TEST(ClientPaths, ANewCandidateGetsTheHandshakeInFlightAtOnce) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_client_connect(rig.client);
  rig.tick();
  const Bytes in_flight = rig.take(LUND_PKT_HS_INIT)[0].bytes;
  virtual_time::advance_ms(20);
  lund_client_add_candidate(rig.client, &LAN, 0);
  const auto kicked = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(kicked, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(kicked[0].to, LAN));
  EXPECT_EQ(kicked[0].bytes, in_flight);
  virtual_time::advance_ms(3);
  lund_session host;
  rig.receive(LAN, rig.answer(in_flight, &host));
  EXPECT_EQ(rig.status().rtt_us, 3'000u);  // from the kick
}

TEST(ClientPaths, ANewCandidateOfAnIdleEngineGetsNothing) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientPaths, ANewCandidateIsProbedAtOnceWhileASessionIsUp) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_session host;
  rig.bring_up(WAN, &host);
  rig.sent.clear();
  lund_client_add_candidate(rig.client, &LAN, 0);
  const auto probes = rig.take(LUND_PKT_PATH_PROBE);
  ASSERT_THAT(probes, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(probes[0].to, LAN));
  EXPECT_FALSE(probes_on(probes[0]));
  EXPECT_THAT(rig.open(host, probes[0].bytes), SizeIs(LUND_PROBE_SIZE));
  lund_client_add_candidate(rig.client, &LAN, 0);  // not new any more
  EXPECT_THAT(rig.sent, IsEmpty());
  rig.tick();
  rig.tick_for_ms(199);
  const auto to_lan = [](const auto& probe) { return lund_rv_endpoint_equal(probe.to, LAN); };
  EXPECT_THAT(rig.take(LUND_PKT_PATH_PROBE), testing::Each(testing::Not(testing::Truly(to_lan))));
  rig.tick_for_ms(1);
  EXPECT_THAT(rig.take(LUND_PKT_PATH_PROBE), testing::Contains(testing::Truly(to_lan)));
}

TEST(ClientPaths, OnlyTheCurrentPathsProbesAreMarkedActive) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  rig.tick();
  const auto probes = rig.take(LUND_PKT_PATH_PROBE);
  ASSERT_THAT(probes, SizeIs(2));
  for (const auto& probe : probes)
    EXPECT_EQ(probes_on(probe), lund_rv_endpoint_equal(probe.to, LAN));
}

TEST(ClientPaths, ALivePathIsProbedEvery500MsAndACandidateEvery200) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  int to_lan = 0, to_wan = 0;
  for (int ms = 0; ms < 10'000; ++ms) {
    rig.tick();
    for (const auto& probe : rig.take(LUND_PKT_PATH_PROBE)) {
      const bool lan = lund_rv_endpoint_equal(probe.to, LAN);
      ++(lan ? to_lan : to_wan);
      if (lan) rig.receive(LAN, rig.probe_ack(host, probe.bytes));
    }
    virtual_time::advance_ms(1);
  }
  EXPECT_EQ(to_lan, 20);
  EXPECT_EQ(to_wan, 50);  // it never answered: the search goes on at its pace
}

TEST(ClientPaths, APathThatStoppedAnsweringIsProbedEachSecondAfterTheFastPhase) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  int to_wan = 0;
  for (int ms = 0; ms < 15'000; ++ms) {
    if (ms == 5'000) to_wan = 0;
    rig.tick();
    for (const auto& probe : rig.take(LUND_PKT_PATH_PROBE)) {
      const bool lan = lund_rv_endpoint_equal(probe.to, LAN);
      to_wan += !lan;
      if (lan || ms < 2'500) rig.receive(probe.to, rig.probe_ack(host, probe.bytes));
    }
    virtual_time::advance_ms(1);
  }
  EXPECT_EQ(to_wan, 10);
}

TEST(ClientPaths, AProbesAnswerFromTheFutureIsNoAnswer) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host, 10'000);
  Bytes ack(LUND_PROBE_SIZE);
  conn_make_probe(ack.data(), LUND_PKT_PATH_PROBE_ACK, 0, 1, lund_now_us() + 1);
  rig.receive(LAN, rig.seal(host, ack));
  EXPECT_EQ(rig.status().rtt_us, 10'000u);
  conn_make_probe(ack.data(), LUND_PKT_PATH_PROBE_ACK, 0, 1, lund_now_us() - 18'000);
  rig.receive(LAN, rig.seal(host, ack));
  EXPECT_EQ(rig.status().rtt_us, 11'000u);
}

TEST(ClientPaths, ASilentPathWithoutALivingAlternativeIsLeftOnlyWhenItHasHadItsTime) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  client_engine::path_add(*rig.client, WAN, LUND_PATH_DIRECT, -1);
  client_engine::path_add(*rig.client, RELAY, LUND_PATH_RELAY, 0);
  const std::uint64_t now = lund_now_us();
  rig.client->paths[0].last_rx = now - 1'200'001;
  rig.client->path_since = now - 1'200'000;
  client_engine::choose_path(*rig.client, now);
  EXPECT_EQ(rig.client->current_path, 0);
  rig.client->path_since = now - 1'200'001;
  client_engine::choose_path(*rig.client, now);
  EXPECT_EQ(rig.client->current_path, 2);  // the least demanding, before the direct one
  EXPECT_EQ(rig.client->paths[0].alive, 0u);
  EXPECT_EQ(rig.client->paths[2].last_rx, now);  // it has its time, too
}

TEST(ClientPaths, AmongEqualsTheLowestIndexIsTaken) {
  ClientRig rig;
  lund_rv_endpoint address = WAN;
  for (int i = 0; i < 3; ++i, ++address.port)
    client_engine::path_add(*rig.client, address, LUND_PATH_DIRECT, -1);
  for (int i = 0; i < 3; ++i) client_engine::mark_ack(rig.client->paths[i], 5'000, lund_now_us());
  client_engine::choose_path(*rig.client, lund_now_us());
  EXPECT_EQ(rig.client->current_path, 0);
  const auto events = rig.events();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].type, LUND_EV_PATH_CHANGED);
  EXPECT_EQ(events[0].session_id, 0u);  // none is up
  EXPECT_EQ(rig.log.back(), "path ? -> Direct 198.51.100.7:9876 (first path, rtt 5.0 ms)");
}

TEST(ClientPaths, AfterTheFastPhaseAMereImprovementOfTheTimeMovesNothing) {
  ClientRig rig;
  const lund_rv_endpoint other = endpoint("192.168.1.11:9876");
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_client_add_candidate(rig.client, &other, 0);
  lund_session host;
  rig.bring_up(LAN, &host, 20'000);
  const auto alive_for = [&](std::uint64_t ms) {
    for (std::uint64_t i = 0; i < ms / 100; ++i) {
      virtual_time::advance_ms(100);
      client_engine::mark_ack(rig.client->paths[0], 20'000, lund_now_us());
      client_engine::mark_ack(rig.client->paths[1], 5'000, lund_now_us());
      client_engine::choose_path(*rig.client, lund_now_us());
    }
  };
  rig.client->first_up_at = lund_now_us() - 2'000'000;
  alive_for(10'000);
  EXPECT_EQ(rig.client->current_path, 0);
  rig.client->first_up_at = lund_now_us();  // the same in the fast phase moves at once
  alive_for(100);
  EXPECT_EQ(rig.client->current_path, 1);
  EXPECT_THAT(rig.log.back(), testing::HasSubstr("(better path, rtt 5.0 ms)"));
}

TEST(ClientPathsWithHost, ARelayUpFirstIsLeftAtOnceForTheLanWithinTheFastPhase) {
  EnginePair pair;
  pair.add_relay();
  ASSERT_TRUE(pair.connect());
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  pair.net.run_for_ms(500);
  pair.add_lan();
  EXPECT_LE(ms_until_on(pair, LUND_PATH_LAN, 5'000), 60u);
  EXPECT_TRUE(pair.client_logged("path Relay -> LAN 192.168.1.10:9876 (better path, rtt "));
  pair.net.run_for_ms(10);
  EXPECT_TRUE(host_sends_to(pair, EnginePair::CLIENT_LAN));
  const auto moved = pair.client_events(LUND_EV_PATH_CHANGED);
  ASSERT_THAT(moved, SizeIs(1));
  EXPECT_EQ(moved[0].session_id, pair.status().session_id);
  EXPECT_EQ(moved[0].path, LUND_PATH_LAN);
  EXPECT_EQ(moved[0].server, -1);
  EXPECT_NEAR(moved[0].rtt_us, 2'200, 200);
}

TEST(ClientPathsWithHost, LaterTheLanMustBeStableForThreeSeconds) {
  EnginePair pair;
  pair.add_relay();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(2'500);
  pair.add_lan();
  const std::uint64_t ms = ms_until_on(pair, LUND_PATH_LAN, 10'000);
  EXPECT_GE(ms, 3'000u);
  EXPECT_LE(ms, 3'300u);
  EXPECT_TRUE(pair.client_logged("(better path is back, rtt "));
}

TEST(ClientPathsWithHost, AnInterruptionStartsTheThreeSecondsAfresh) {
  EnginePair pair;
  pair.add_relay();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(2'500);
  pair.add_lan();
  pair.net.run_for_ms(2'500);
  pair.net.link(pair.lan).down = true;
  pair.net.run_for_ms(2'500);
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  pair.net.link(pair.lan).down = false;
  EXPECT_GE(ms_until_on(pair, LUND_PATH_LAN, 10'000), 3'000u);
}

TEST(ClientPathsWithHost, ASilentLanIsLeftForTheNextBestAndTakenBackAfterTheHold) {
  SettledPair pair;
  pair.net.link(pair.lan).down = true;
  const std::uint64_t left = ms_until_on(pair, LUND_PATH_DIRECT, 10'000);
  EXPECT_GE(left, 700u);  // 1.2 s after the last record, which is at most a probe's 500 ms old
  EXPECT_LE(left, 1'500u);
  EXPECT_TRUE(pair.client_logged("path LAN -> Direct 198.51.100.7:9876 (current path went silent"));
  pair.net.run_for_ms(2'000);
  EXPECT_TRUE(host_sends_to(pair, EnginePair::CLIENT_WAN));
  EXPECT_EQ(pair.status().path, LUND_PATH_DIRECT);

  pair.net.link(pair.lan).down = false;
  const std::uint64_t back = ms_until_on(pair, LUND_PATH_LAN, 10'000);
  EXPECT_GE(back, 3'000u);
  EXPECT_LE(back, 3'000u + 200 + 250 + 10);  // a probe's interval and a tick
  pair.net.run_for_ms(50);
  EXPECT_TRUE(host_sends_to(pair, EnginePair::CLIENT_LAN));
  EXPECT_THAT(pair.client_events(LUND_EV_PATH_CHANGED), SizeIs(2));
}

TEST(ClientPathsWithHost, WithinTheFastPhaseItIsTakenBackAtOnce) {
  EnginePair::Options options;
  options.client = [](lund_client_config& config) { config.fast_phase_ms = 60'000; };
  EnginePair pair(options);
  pair.add_lan();
  pair.add_wan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(1'000);
  pair.net.link(pair.lan).down = true;
  ASSERT_LE(ms_until_on(pair, LUND_PATH_DIRECT, 10'000), 1'300u);
  pair.net.run_for_ms(1'000);
  pair.net.link(pair.lan).down = false;
  EXPECT_LE(ms_until_on(pair, LUND_PATH_LAN, 10'000), 200u + 50 + 5);
}

TEST(ClientPathsWithHost, AnUnconfirmedRelayIsTriedWhenNothingElseIsAlive) {
  EnginePair pair;
  pair.net.link(pair.relay).down = pair.net.link(pair.wan).down = true;
  pair.add_lan();
  pair.add_wan();
  pair.add_relay();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(4'000);
  pair.net.link(pair.lan).down = true;
  EXPECT_LE(ms_until_on(pair, LUND_PATH_RELAY, 10'000), 1'500u);
  EXPECT_EQ(pair.client->paths[2].last_ack, 0u);
  EXPECT_TRUE(pair.client_logged("path LAN -> Relay"));

  pair.net.link(pair.relay).down = false;
  pair.net.run_for_ms(4'000);
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  const std::size_t before = pair.host_packets.size();
  EXPECT_TRUE(pair.client_says(1));
  pair.net.run_for_ms(100);
  EXPECT_EQ(pair.host_packets.size(), before + 1);
}

TEST(ClientPathsWithHost, AMoveTakesEverySessionAlong) {
  SettledPair pair;
  lund_client_open_session(pair.client);
  ASSERT_TRUE(pair.net.run_until(
      [&pair] { return pair.client_events(LUND_EV_CLIENT_SESSION_UP).size() == 2; }, 1'000));
  const std::uint32_t second = pair.client_events(LUND_EV_CLIENT_SESSION_UP)[1].session_id;
  pair.client_says(1, second);
  pair.net.run_for_ms(100);
  pair.net.link(pair.lan).down = true;
  ASSERT_LT(ms_until_on(pair, LUND_PATH_DIRECT, 10'000), 10'000u);
  pair.net.run_for_ms(100);
  for (const std::uint32_t id : {pair.status().session_id, second}) {
    lund_session_info info;
    ASSERT_EQ(lund_host_session_info_get(pair.host, id, &info), 0);
    EXPECT_TRUE(lund_rv_endpoint_equal(info.peer, EnginePair::CLIENT_WAN));
  }
}
