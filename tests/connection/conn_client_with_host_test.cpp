// The client engine and the host engine together on a simulated network.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "connection/conn_client_internal.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;

namespace {

NetSim::Bytes reject(std::uint8_t reason) {
  NetSim::Bytes packet(LUND_HS_REJECT_SIZE);
  lund_hs_encode_reject(packet.data(), packet.size(), reason);
  return packet;
}

}  // namespace

TEST(ClientWithHost, BothAgreeOnTheSessionId) {
  EnginePair pair;
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(100);
  const auto up = pair.host_events(LUND_EV_SESSION_UP);
  ASSERT_THAT(up, SizeIs(1));
  EXPECT_EQ(up[0].session_id, pair.status().session_id);
  EXPECT_EQ(up[0].path, LUND_PATH_LAN);
  EXPECT_TRUE(pair.client_says(7));
  EXPECT_TRUE(pair.host_says(8, up[0].session_id));
  pair.net.run_for_ms(10);
  ASSERT_THAT(pair.host_packets, SizeIs(1));
  EXPECT_EQ(pair.host_packets[0].session_id, up[0].session_id);
  ASSERT_THAT(pair.client_packets, SizeIs(1));
  EXPECT_EQ(pair.client_packets[0].session_id, up[0].session_id);
}

TEST(ClientWithHost, HandshakesThroughThirtyPercentLoss) {
  for (std::uint64_t seed = 1; seed <= 30; ++seed) {
    EnginePair::Options options;
    options.seed = seed;
    options.lan.loss = options.wan.loss = 0.3;
    EnginePair pair(options);
    pair.add_lan();
    pair.add_wan();
    EXPECT_TRUE(pair.connect(10'000)) << "seed " << seed;
    EXPECT_TRUE(pair.net.run_until(
        [&pair] { return !pair.host_events(LUND_EV_SESSION_UP).empty(); }, 10'000))
        << "seed " << seed;
    EXPECT_EQ(pair.host_events(LUND_EV_SESSION_UP)[0].session_id, pair.status().session_id);
  }
}

// By then three newer attempts have been sent: each answer is one to a superseded attempt.
TEST(ClientWithHost, HandshakesAndRekeysOverARoundTripOfAlmostASecond) {
  for (const std::uint64_t one_way_ms : {130, 300, 490}) {
    EnginePair::Options options;
    options.wan = {.delay_us = one_way_ms * 1000};
    EnginePair pair(options);
    pair.add_wan();
    ASSERT_TRUE(pair.connect(2'000)) << one_way_ms;
    EXPECT_NEAR(pair.status().rtt_us, 2e3 * static_cast<double>(one_way_ms), 5e3) << one_way_ms;
    ASSERT_TRUE(
        pair.net.run_until([&] { return !pair.host_events(LUND_EV_SESSION_UP).empty(); }, 2'000));
    EXPECT_EQ(pair.host_events(LUND_EV_SESSION_UP)[0].session_id, pair.status().session_id);

    lund_client_rekey(pair.client);
    EXPECT_TRUE(
        pair.net.run_until([&] { return !pair.client_events(LUND_EV_REKEYED).empty(); }, 5'000))
        << one_way_ms;
    EXPECT_TRUE(pair.client_says(7));
    EXPECT_TRUE(pair.net.run_until([&] { return !pair.host_packets.empty(); }, 2'000));
  }
}

TEST(ClientWithHost, NothingOfAnAttemptOutlivesTheHandshake) {
  EnginePair::Options options;
  options.wan = {.delay_us = 300'000};
  EnginePair pair(options);
  pair.add_wan();
  ASSERT_TRUE(pair.connect(2'000));
  const lund_client_session& session = pair.client->sessions[0];
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(session.superseded);
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof session.superseded,
                          [](std::uint8_t byte) { return byte == 0; }));
}

TEST(ClientWithHost, DuplicatedAndReorderedAnswersGiveOneSession) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    EnginePair::Options options;
    options.seed = seed;
    options.lan.duplicate = options.wan.duplicate = 1.0;
    options.lan.jitter_us = options.wan.jitter_us = 60'000;
    EnginePair pair(options);
    pair.add_lan();
    pair.add_wan();
    ASSERT_TRUE(pair.connect()) << "seed " << seed;
    pair.net.run_for_ms(2'000);
    EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_SESSION_UP), SizeIs(1)) << "seed " << seed;
    ASSERT_THAT(pair.host_events(LUND_EV_SESSION_UP), SizeIs(1)) << "seed " << seed;
    EXPECT_EQ(pair.host_events(LUND_EV_SESSION_UP)[0].session_id, pair.status().session_id);
  }
}

TEST(ClientWithHost, AnUnknownDeviceIsToldSoAndGoesOnTrying) {
  EnginePair::Options options;
  options.paired = false;
  EnginePair pair(options);
  pair.add_lan();
  std::memcpy(pair.client->host_key, pair.host_keypair.public_key, LUND_KEY_SIZE);
  pair.client->has_host_key = 1;
  EXPECT_FALSE(pair.connect(1'000));
  const auto events = pair.client_events(LUND_EV_CLIENT_REJECTED);
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].status, LUND_REJECT_UNKNOWN_DEVICE);
  lund_host_add_client(pair.host, pair.client_keypair.public_key, "the client");
  EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 1'000));
}

TEST(ClientWithHost, ASecondSessionStandsBesideTheFirst) {
  EnginePair pair;
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  const std::uint32_t first = pair.status().session_id;
  ASSERT_EQ(lund_client_open_session(pair.client), 0);
  ASSERT_TRUE(pair.net.run_until(
      [&pair] { return pair.client_events(LUND_EV_CLIENT_SESSION_UP).size() == 2; }, 1'000));
  const std::uint32_t second = pair.client_events(LUND_EV_CLIENT_SESSION_UP)[1].session_id;
  EXPECT_NE(first, second);
  EXPECT_TRUE(pair.client_says(1, first));
  EXPECT_TRUE(pair.client_says(2, second));
  pair.net.run_for_ms(20);
  ASSERT_THAT(pair.host_packets, SizeIs(2));
  EXPECT_EQ(pair.host_packets[0].session_id + pair.host_packets[1].session_id, first + second);
}

// A NAT that forgets: from one datagram to the next the host sees the client elsewhere.
TEST(ClientWithHost, TheSessionFollowsTheClientsNewAddressInMidStream) {
  EnginePair pair;
  pair.add_wan();
  ASSERT_TRUE(pair.connect());
  pair.start_traffic(5'000);
  pair.net.run_for_ms(3'000);
  const std::size_t before = pair.client_packets.size();
  const lund_rv_endpoint moved = endpoint("203.0.113.77:61000");
  pair.net.attach(1, pair.wan, moved);
  pair.net.run_for_ms(1'000);
  pair.stop_traffic();
  pair.net.run_for_ms(100);

  lund_session_info info;
  ASSERT_EQ(lund_host_session_info_get(pair.host, pair.status().session_id, &info), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(info.peer, moved));
  EXPECT_EQ(pair.host_packets.size(), pair.said_by_client);
  // What the host sent to the old address, at most a round trip's worth, is lost; no more.
  EXPECT_GE(pair.client_packets.size(), before + 190);
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_SESSION_UP), SizeIs(1));
  EXPECT_THAT(pair.client_events(LUND_EV_PATH_CHANGED), IsEmpty());
}

TEST(ClientWithHost, AfterARestartOfTheHostANewSessionTakesOver) {
  EnginePair pair;
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(500);
  const std::uint32_t lost = pair.status().session_id;
  pair.restart_host();
  pair.net.run_for_ms(5'000);
  EXPECT_EQ(pair.status().session_id, lost);  // nothing gives up by itself
  EXPECT_EQ(pair.status().paths[0].alive, 0u);
  pair.client_says(1);
  pair.net.run_for_ms(100);
  EXPECT_THAT(pair.host_packets, IsEmpty());

  lund_client_session_close(pair.client, 0);
  ASSERT_TRUE(pair.connect());
  EXPECT_NE(pair.status().session_id, lost);
  pair.client_says(2);
  pair.net.run_for_ms(100);
  EXPECT_THAT(pair.host_packets, SizeIs(1));
}

TEST(ClientWithHost, AForgedRejectChangesNothingButAnEvent) {
  EnginePair pair;
  pair.add_lan();
  pair.net.link(pair.lan).down = true;
  lund_client_connect(pair.client);
  pair.net.run_for_ms(100);
  pair.net.inject(EnginePair::HOST_LAN, EnginePair::CLIENT_LAN, reject(LUND_REJECT_BUSY));
  pair.net.run_for_ms(10);
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_REJECTED), SizeIs(1));
  pair.net.link(pair.lan).down = false;
  EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 500));
  pair.net.inject(EnginePair::HOST_LAN, EnginePair::CLIENT_LAN, reject(LUND_REJECT_BUSY));
  pair.net.run_for_ms(3'000);
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_REJECTED), SizeIs(1));
  EXPECT_TRUE(pair.up());
}

TEST(ClientWithHost, TheSameSeedGivesTheSameRun) {
  const auto run = [](std::uint64_t seed) {
    EnginePair::Options options;
    options.seed = seed;
    options.lan =
        options.wan = {.delay_us = 5'000, .jitter_us = 20'000, .loss = 0.1, .duplicate = 0.1};
    EnginePair pair(options);
    pair.add_lan();
    pair.add_wan();
    pair.connect(10'000);
    pair.start_traffic(3'000);
    pair.net.run_for_ms(5'000);
    return pair.net.trace_hash();
  };
  EXPECT_EQ(run(4), run(4));
  EXPECT_NE(run(4), run(5));
}
