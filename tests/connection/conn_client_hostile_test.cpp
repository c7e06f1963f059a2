// What strangers can send to a client: anything, from anywhere, and what they have overheard.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/client_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = NetSim::Bytes;

namespace {

Bytes noise(SeededRandom& random) {
  Bytes bytes(random.below(200));
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random.next());
  // Most get past the first look at the header.
  if (bytes.size() > 3 && random.chance(0.8)) {
    bytes[0] = LUND_MAGIC;
    bytes[1] = static_cast<std::uint8_t>(1 + random.below(2));
    if (random.chance(0.5)) bytes[2] = static_cast<std::uint8_t>(80 + random.below(32));
  }
  return bytes;
}

// Never the original: a byte is changed, or the length.
Bytes mutated(SeededRandom& random, Bytes bytes) {
  if (random.chance(0.2)) {
    bytes.resize(random.below(bytes.size()));
  } else if (random.chance(0.1)) {
    bytes.resize(bytes.size() + 1 + random.below(40));
  } else {
    const auto at = static_cast<std::size_t>(random.below(bytes.size()));
    bytes[at] ^= static_cast<std::uint8_t>(1 + random.below(255));
  }
  return bytes;
}

// A connected pair and a listener who has all that was ever sent to the client.
struct Overheard : EnginePair {
  Overheard() {
    net.set_tap([this](const NetSim::Datagram& datagram) {
      if (lund_rv_endpoint_equal(datagram.to, CLIENT_LAN)) heard.push_back(datagram.bytes);
    });
    add_lan();
    add_wan();
    EXPECT_TRUE(connect());
    start_traffic(10'000);
    net.run_for_ms(3'000);
    EXPECT_EQ(status().path, LUND_PATH_LAN);
  }

  int hand_over(const lund_rv_endpoint& from, const Bytes& bytes) {
    std::uint8_t out[2048];
    return lund_client_receive(client, bytes.data(), bytes.size(), from, out, sizeof out, nullptr,
                               nullptr);
  }

  std::vector<Bytes> heard;
};

const lund_rv_endpoint& source(SeededRandom& random) {
  static const lund_rv_endpoint SOURCES[] = {EnginePair::HOST_LAN, EnginePair::HOST_LAN,
                                             EnginePair::HOST_WAN, endpoint("203.0.113.5:1234"),
                                             endpoint("[2001:db8::1]:9876")};
  return SOURCES[random.below(std::size(SOURCES))];
}

}  // namespace

TEST(ClientHostile, AConnectedClientIsUnmovedBy200000ForgedDatagrams) {
  Overheard pair;
  SeededRandom random(20'240'601);
  const lund_client_status before = pair.status();
  const std::size_t events = pair.client_events(LUND_EV_PATH_CHANGED).size();
  const std::uint32_t said = pair.said_by_host;
  int opened = 0;
  for (int i = 0; i < 200'000; ++i) {
    const Bytes bytes = random.chance(0.4)
                            ? noise(random)
                            : mutated(random, pair.heard[random.below(pair.heard.size())]);
    opened += pair.hand_over(source(random), bytes) == LUND_RX_OPENED;
    if (i % 1'000 == 999) pair.net.run_for_ms(25);
  }
  EXPECT_EQ(opened, 0);
  pair.stop_traffic();
  pair.net.run_for_ms(100);

  const lund_client_status after = pair.status();
  EXPECT_EQ(after.session_id, before.session_id);
  EXPECT_EQ(after.path, before.path);
  EXPECT_TRUE(lund_rv_endpoint_equal(after.addr, before.addr));
  EXPECT_EQ(after.path_count, before.path_count);
  EXPECT_EQ(pair.client_events(LUND_EV_PATH_CHANGED).size(), events);
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_SESSION_UP), SizeIs(1));
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_REJECTED), IsEmpty());
  // The conversation went on under it, without a gap.
  EXPECT_EQ(pair.said_by_host, said + 500);
  EXPECT_EQ(pair.client_packets.size(), pair.said_by_host);
  EXPECT_EQ(pair.host_packets.size(), pair.said_by_client);
}

TEST(ClientHostile, WhatWasOverheardIsWorthNothingWhenRepeated) {
  Overheard pair;
  SeededRandom random(7);
  pair.stop_traffic();
  pair.net.run_for_ms(100);
  const lund_client_status before = pair.status();
  const std::size_t heard = pair.heard.size();
  for (int i = 0; i < 20'000; ++i) {
    const lund_rv_endpoint& from = source(random);
    ASSERT_EQ(pair.hand_over(from, pair.heard[random.below(heard)]), LUND_RX_NONE);
  }
  EXPECT_EQ(pair.status().session_id, before.session_id);
  EXPECT_EQ(pair.status().path, before.path);
  EXPECT_EQ(pair.status().path_count, before.path_count);
}

TEST(ClientHostile, ForgedAnswersDoNotSpoilARekeyInFlight) {
  Overheard pair;
  SeededRandom random(11);
  pair.net.link(pair.lan).delay_us = 100'000;
  lund_client_rekey(pair.client);
  pair.net.run_for_ms(60);
  ASSERT_EQ(pair.client->sessions[0].in_flight, 1u);
  for (int i = 0; i < 2'000; ++i) {
    Bytes response(LUND_HS_RESP_SIZE);
    for (std::uint8_t& byte : response) byte = static_cast<std::uint8_t>(random.next());
    const std::uint8_t header[4] = {LUND_MAGIC, LUND_VERSION_PLAIN, LUND_PKT_HS_RESP, 0};
    std::copy(std::begin(header), std::end(header), response.begin());
    pair.hand_over(EnginePair::HOST_LAN, response);
  }
  EXPECT_EQ(pair.client->sessions[0].has_pending, 0u);
  EXPECT_TRUE(
      pair.net.run_until([&pair] { return !pair.client_events(LUND_EV_REKEYED).empty(); }, 2'000));
}

TEST(ClientHostile, StrangersDoNotDisturbAnExchangeOfPairing) {
  EnginePair::Options options;
  options.paired = false;
  EnginePair pair(options);
  SeededRandom random(13);
  std::vector<Bytes> heard;
  pair.net.set_tap([&heard](const NetSim::Datagram& datagram) { heard.push_back(datagram.bytes); });
  pair.add_lan();
  ASSERT_EQ(lund_client_pair(pair.client, pair.pin().c_str(), 0), 0);
  ASSERT_TRUE(
      pair.net.run_until([&pair] { return pair.client->pairing.stage == LUND_STAGE_INIT; }, 1'000));
  const lund_rv_endpoint stranger = endpoint("203.0.113.5:1234");
  std::uint8_t out[2048];
  for (int i = 0; i < 20'000; ++i) {
    const Bytes bytes =
        random.chance(0.5) ? noise(random) : mutated(random, heard[random.below(heard.size())]);
    lund_client_receive(pair.client, bytes.data(), bytes.size(), stranger, out, sizeof out, nullptr,
                        nullptr);
    if (i % 1'000 == 999) pair.net.run_for_us(500);
  }
  EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 2'000));
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_PAIR_FAILED), IsEmpty());
}
