#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "connection/byte_order.h"
#include "tests/support/client_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;

struct UpRig : ClientRig {
  explicit UpRig(const std::function<void(lund_client_config&)>& adjust = {}) : ClientRig(adjust) {
    lund_client_add_candidate(client, &LAN, 0);
    id = bring_up(LAN, &host);
    tick();
    events();
    sent.clear();
  }

  Bytes says() {
    const Bytes plain = {LUND_MAGIC, LUND_VERSION_PLAIN, LUND_PKT_BYE, 0, 0, 0, 0, 0};
    Bytes sealed(32);
    sealed.resize(lund_client_seal(client, 0, plain.data(), plain.size(), sealed.data(),
                                   sealed.size(), nullptr));
    return sealed;
  }
  Bytes rekey_ack(lund_session& keys) {
    Bytes plain(LUND_REKEY_SIZE);
    conn_make_rekey(plain.data(), LUND_PKT_REKEY_ACK, id);
    return seal(keys, plain);
  }

  lund_session host;
  std::uint32_t id = 0;
};

// Every number said was heard, each once.
void expect_all_heard(const std::vector<EnginePair::Packet>& packets, std::uint32_t said) {
  std::set<std::uint32_t> numbers;
  for (const auto& packet : packets) {
    std::uint32_t number = 0;
    ASSERT_EQ(lund_decode_u32_packet(packet.bytes.data(), packet.bytes.size(), &number), 0);
    EXPECT_TRUE(numbers.insert(number).second) << number << " twice";
  }
  EXPECT_EQ(numbers.size(), said);
}

void expect_one_session(const std::vector<EnginePair::Packet>& packets, std::uint32_t id) {
  for (const auto& packet : packets) ASSERT_EQ(packet.session_id, id);
}

}  // namespace

TEST(ClientRekey, StartsWhenTheMessagesAreUsedUp) {
  UpRig rig([](lund_client_config& config) { config.rekey_messages = 100; });
  while (rig.client->sessions[0].current.send_counter < 99) rig.says();
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());
  rig.says();
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), SizeIs(1));
  char line[40];
  std::snprintf(line, sizeof line, "session %08x: rekeying", rig.id);
  EXPECT_EQ(rig.log.back(), line);
}

TEST(ClientRekey, StartsWhenTheTimeIsUp) {
  UpRig rig([](lund_client_config& config) { config.rekey_seconds = 10; });
  rig.client->sessions[0].last_rekey = lund_now_us() - 9'999'999;
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());
  virtual_time::advance_us(1);
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), SizeIs(1));
}

TEST(ClientRekey, OnRequestStartsOnceWhileOneIsUnderWay) {
  UpRig rig;
  lund_client_rekey(rig.client);
  rig.tick();
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(inits, SizeIs(1));
  lund_client_rekey(rig.client);
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());
  lund_session fresh;
  rig.receive(LAN, rig.answer(inits[0].bytes, &fresh));
  lund_client_rekey(rig.client);  // now one is pending
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());
}

TEST(ClientRekey, ACandidateAddedBeforeTheHandshakeIsSentGetsNone) {
  UpRig rig;
  lund_client_rekey(rig.client);
  lund_client_add_candidate(rig.client, &EnginePair::HOST_WAN, 0);
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());
}

TEST(ClientRekey, APendingSessionAcceptsRecordsUnderOldAndNewKeysAlike) {
  UpRig rig;
  lund_session fresh;
  rig.offer_rekey(LAN, &fresh);
  for (lund_session* keys : {&rig.host, &fresh, &rig.host, &fresh}) {
    ASSERT_EQ(rig.receive(LAN, rig.seal(*keys, LUND_PKT_PONG, 20)), LUND_RX_OPENED);
    EXPECT_EQ(rig.rx_info.session_id, rig.id);
    EXPECT_EQ(load_le<std::uint32_t>(rig.out.data() + 4), rig.id);
  }
  EXPECT_THAT(rig.open(rig.host, rig.says()), SizeIs(8));  // still speaks under the old
}

TEST(ClientRekey, AsksForConfirmationUnderTheNewKeysEvery250Ms) {
  UpRig rig;
  lund_session fresh;
  rig.offer_rekey(LAN, &fresh);
  rig.sent.clear();
  rig.tick();
  rig.tick_for_ms(1'000);
  const auto rekeys = rig.take(LUND_PKT_REKEY);
  ASSERT_THAT(rekeys, SizeIs(5));
  for (const auto& rekey : rekeys) {
    const Bytes plain = rig.open(fresh, rekey.bytes);
    ASSERT_THAT(plain, SizeIs(LUND_REKEY_SIZE));
    EXPECT_EQ(load_le<std::uint32_t>(plain.data() + 8), rig.id);
  }
}

TEST(ClientRekey, OnlyAnAcknowledgementUnderTheNewKeysCounts) {
  UpRig rig;
  lund_session fresh;
  rig.offer_rekey(LAN, &fresh);
  rig.receive(LAN, rig.rekey_ack(rig.host));
  EXPECT_EQ(rig.client->sessions[0].has_pending, 1u);
  EXPECT_THAT(rig.open(rig.host, rig.says()), SizeIs(8));
  rig.receive(LAN, rig.rekey_ack(fresh));
  EXPECT_EQ(rig.client->sessions[0].has_pending, 0u);
  EXPECT_THAT(rig.open(fresh, rig.says()), SizeIs(8));

  const auto events = rig.events();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].type, LUND_EV_REKEYED);
  EXPECT_EQ(events[0].session_id, rig.id);
  EXPECT_EQ(rig.status().session_id, rig.id);
  char line[64];
  std::snprintf(line, sizeof line, "session %08x rekeyed (crypto session %08x)", rig.id,
                fresh.session_id);
  EXPECT_EQ(rig.log.back(), line);
  rig.receive(LAN, rig.rekey_ack(fresh));  // a second one is nothing
  EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ClientRekey, TheOldKeysLastFiveSecondsMoreAndAreWiped) {
  UpRig rig;
  lund_session fresh;
  rig.offer_rekey(LAN, &fresh);
  rig.receive(LAN, rig.rekey_ack(fresh));
  virtual_time::advance_us(4'999'999);
  rig.tick();
  EXPECT_EQ(rig.receive(LAN, rig.seal(rig.host, LUND_PKT_PONG, 20)), LUND_RX_OPENED);
  virtual_time::advance_us(1);
  rig.tick();
  EXPECT_EQ(rig.receive(LAN, rig.seal(rig.host, LUND_PKT_PONG, 20)), LUND_RX_NONE);
  EXPECT_THAT(rig.client->sessions[0].previous.recv_key, testing::Each(0));
  EXPECT_EQ(rig.receive(LAN, rig.seal(fresh, LUND_PKT_PONG, 20)), LUND_RX_OPENED);
}

TEST(ClientRekey, ANewRoundStartsItsCountersAtZero) {
  UpRig rig([](lund_client_config& config) { config.rekey_messages = 50; });
  while (rig.client->sessions[0].current.send_counter < 50) rig.says();
  lund_session fresh;
  rig.tick();
  rig.receive(LAN, rig.answer(rig.take(LUND_PKT_HS_INIT)[0].bytes, &fresh));
  rig.receive(LAN, rig.rekey_ack(fresh));
  rig.tick();
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), IsEmpty());  // the limit is far again
}

TEST(ClientRekeyWithHost, ByMessagesLosesNoPacketOfTheTraffic) {
  EnginePair::Options options;
  options.lan.jitter_us = 30'000;  // reorders
  options.client = [](lund_client_config& config) { config.rekey_messages = 300; };
  EnginePair pair(options);
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(200);
  const std::uint32_t id = pair.status().session_id;
  pair.start_traffic(2'000);
  pair.net.run_for_ms(10'000);
  pair.stop_traffic();
  pair.net.run_for_ms(200);

  EXPECT_GE(pair.client_events(LUND_EV_REKEYED).size(), 10u);
  EXPECT_EQ(pair.host_events(LUND_EV_REKEYED).size(), pair.client_events(LUND_EV_REKEYED).size());
  EXPECT_EQ(pair.said_by_client, 5'001u);
  expect_all_heard(pair.host_packets, pair.said_by_client);
  expect_all_heard(pair.client_packets, pair.said_by_host);
  expect_one_session(pair.host_packets, id);
  expect_one_session(pair.client_packets, id);
}

TEST(ClientRekeyWithHost, ByTimeLosesNoPacketOfTheTraffic) {
  EnginePair::Options options;
  options.client = [](lund_client_config& config) { config.rekey_seconds = 1; };
  EnginePair pair(options);
  pair.add_wan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(200);
  pair.start_traffic(2'000);
  pair.net.run_for_ms(10'000);
  pair.stop_traffic();
  pair.net.run_for_ms(200);
  EXPECT_GE(pair.client_events(LUND_EV_REKEYED).size(), 6u);
  expect_all_heard(pair.host_packets, pair.said_by_client);
  expect_all_heard(pair.client_packets, pair.said_by_host);
}

TEST(ClientRekeyWithHost, CompletesThroughLossAndDuplication) {
  for (std::uint64_t seed = 1; seed <= 10; ++seed) {
    EnginePair::Options options;
    options.seed = seed;
    options.lan = {.delay_us = 3'000, .jitter_us = 20'000, .loss = 0.3, .duplicate = 0.3};
    options.client = [](lund_client_config& config) { config.rekey_seconds = 2; };
    EnginePair pair(options);
    pair.add_lan();
    ASSERT_TRUE(pair.connect(20'000)) << "seed " << seed;
    pair.net.run_for_ms(30'000);
    const std::size_t rekeys = pair.client_events(LUND_EV_REKEYED).size();
    EXPECT_GE(rekeys, 6u) << "seed " << seed;
    EXPECT_GE(pair.host_events(LUND_EV_REKEYED).size(), rekeys) << "seed " << seed;
    // What both ends use at last is one and the same.
    pair.net.link(pair.lan) = {.delay_us = 1'000};
    pair.net.run_for_ms(600);
    const std::size_t heard = pair.client_packets.size();
    EXPECT_TRUE(pair.client_says(1));
    EXPECT_TRUE(pair.host_says(2, pair.status().session_id));
    pair.net.run_for_ms(20);
    EXPECT_EQ(pair.client_packets.size(), heard + 1) << "seed " << seed;
    EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_SESSION_UP), SizeIs(1)) << "seed " << seed;
  }
}

TEST(ClientRekeyWithHost, SurvivesAMoveInTheMiddle) {
  EnginePair pair;
  pair.add_lan();
  pair.add_wan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(4'000);
  pair.net.link(pair.lan).down = true;
  lund_client_rekey(pair.client);
  ASSERT_TRUE(
      pair.net.run_until([&pair] { return !pair.client_events(LUND_EV_REKEYED).empty(); }, 5'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_DIRECT);
  pair.net.run_for_ms(1'000);
  pair.client_packets.clear();
  EXPECT_TRUE(pair.host_says(1, pair.status().session_id));
  pair.net.run_for_ms(50);
  EXPECT_THAT(pair.client_packets, SizeIs(1));
}

TEST(ClientRekeyWithHost, EachSessionRekeysItself) {
  EnginePair::Options options;
  options.client = [](lund_client_config& config) { config.rekey_seconds = 3; };
  EnginePair pair(options);
  pair.add_lan();
  ASSERT_TRUE(pair.connect());
  pair.net.run_for_ms(100);
  lund_client_open_session(pair.client);
  ASSERT_TRUE(pair.net.run_until(
      [&pair] { return pair.client_events(LUND_EV_CLIENT_SESSION_UP).size() == 2; }, 1'000));
  const std::uint32_t first = pair.status().session_id;
  const std::uint32_t second = pair.client_events(LUND_EV_CLIENT_SESSION_UP)[1].session_id;
  pair.client_says(1, second);
  pair.net.run_for_ms(4'000);
  std::multiset<std::uint32_t> rekeyed;
  for (const auto& event : pair.client_events(LUND_EV_REKEYED)) rekeyed.insert(event.session_id);
  EXPECT_EQ(rekeyed.count(first), 1u);
  EXPECT_EQ(rekeyed.count(second), 1u);
}
