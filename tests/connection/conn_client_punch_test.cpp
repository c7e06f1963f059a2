// Punching: what the client sends to the host's addresses, and what it makes of the host's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "tests/support/server_rig.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;

lund_rv_message decoded(const Bytes& bytes) {
  lund_rv_message message;
  EXPECT_EQ(lund_rv_decode(bytes.data(), bytes.size(), nullptr, &message), 0);
  return message;
}

// The rounds of punches of the next `ms`, the engine being ticked when it asks for it: the time of
// each, in ms, and what it sent.
struct Round {
  std::uint64_t at;
  std::vector<ClientRig::Sent> punches;
};
std::vector<Round> rounds_of(ServerRig& rig, std::uint64_t ms) {
  std::vector<Round> rounds;
  const std::uint64_t start = lund_now_us();
  while (lund_now_us() <= start + ms * 1000) {
    const std::uint64_t now = lund_now_us();
    const std::uint64_t wait = rig.tick();
    auto punches = rig.take(LUND_RV_PUNCH);
    if (!punches.empty()) rounds.push_back({(now - start) / 1000, std::move(punches)});
    virtual_time::advance_us(wait);
  }
  return rounds;
}

// 50 rounds, each 50 ms after the one before.
void expect_whole_punch(const std::vector<Round>& rounds, std::uint64_t first_at) {
  for (std::size_t i = 0; i < rounds.size(); ++i) EXPECT_EQ(rounds[i].at, first_at + 50 * i);
}

}  // namespace

TEST(ClientPunch, GoesToEveryCandidateEvery50MsFor2500Ms) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  lund_rv_message result = rig.result();
  result.lan_count = 1;
  result.lan[0] = LAN;
  rig.say(result);
  auto rounds = std::vector<Round>{{0, rig.take(LUND_RV_PUNCH)}};
  for (Round& round : rounds_of(rig, 5'000)) rounds.push_back(std::move(round));
  ASSERT_THAT(rounds, SizeIs(50));
  expect_whole_punch(rounds, 0);

  std::set<std::uint32_t> nonces;
  for (const Round& round : rounds) {
    ASSERT_THAT(round.punches, SizeIs(2));
    EXPECT_TRUE(lund_rv_endpoint_equal(round.punches[0].to, WAN));
    EXPECT_TRUE(lund_rv_endpoint_equal(round.punches[1].to, LAN));
    for (const ClientRig::Sent& datagram : round.punches) {
      const lund_rv_message punch = decoded(datagram.bytes);
      EXPECT_EQ(punch.side, 1);
      EXPECT_EQ(std::memcmp(punch.punch_token, result.punch_token, 16), 0);
      nonces.insert(punch.nonce);
    }
  }
  EXPECT_THAT(nonces, SizeIs(100));
}

TEST(ClientPunch, KeepsItsPaceWhileASessionIsUpAndNothingElseIsUrgent) {
  ServerRig rig;
  lund_client_add_candidate(rig.client, &LAN, 0);
  lund_session host;
  rig.bring_up(LAN, &host);
  virtual_time::advance_ms(2'500);  // past the fast phase: a tick may wait 250 ms
  rig.tick();
  rig.say(rig.result());
  ASSERT_THAT(rig.take(LUND_RV_PUNCH), SizeIs(1));
  virtual_time::advance_us(rig.tick());
  const auto rounds = rounds_of(rig, 5'000);
  ASSERT_THAT(rounds, SizeIs(49));
  expect_whole_punch(rounds, 0);
}

TEST(ClientPunch, APunchOfTheHostIsAnsweredFromTheClientsSide) {
  ServerRig rig;
  rig.find();
  rig.sent.clear();
  EXPECT_EQ(rig.punch(WAN, rig.host_punch(0xCAFE)), LUND_RX_NONE);
  const auto acks = rig.take(LUND_RV_PUNCH_ACK);
  ASSERT_THAT(acks, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(acks[0].to, WAN));
  EXPECT_THAT(acks[0].bytes, SizeIs(29));
  const lund_rv_message ack = decoded(acks[0].bytes);
  EXPECT_EQ(ack.side, 1);
  EXPECT_EQ(ack.nonce, 0xCAFEu);
  EXPECT_EQ(std::memcmp(ack.punch_token, rig.state().punch_token, 16), 0);
}

TEST(ClientPunch, MakesThePunchersAddressAPathOfItsServerAndKicksIt) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  rig.say(rig.result(3, 1), 1);
  rig.sent.clear();
  const lund_rv_endpoint mapped = endpoint("198.51.100.7:40001");  // as its NAT made it
  rig.punch(mapped, rig.host_punch(1, 1));
  ASSERT_EQ(rig.status().path_count, 1);
  const lund_client_path_status path = rig.status().paths[0];
  EXPECT_EQ(path.path_class, LUND_PATH_P2P);
  EXPECT_EQ(path.server, 1);
  EXPECT_EQ(path.alive, 0u);
  EXPECT_TRUE(lund_rv_endpoint_equal(path.addr, mapped));
  EXPECT_EQ(rig.log.back(), "path P2P 198.51.100.7:40001");
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(inits, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[0].to, mapped));

  lund_session host;
  rig.receive(mapped, rig.answer(inits[0].bytes, &host));
  const auto events = rig.events();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].type, LUND_EV_CLIENT_SESSION_UP);
  EXPECT_EQ(events[0].path, LUND_PATH_P2P);
  EXPECT_EQ(events[0].server, 1);
}

TEST(ClientPunch, AnAddressOfTheLanIsALanPath) {
  ServerRig rig;
  rig.find();
  rig.punch(LAN, rig.host_punch());
  ASSERT_EQ(rig.status().path_count, 1);
  EXPECT_EQ(rig.status().paths[0].path_class, LUND_PATH_LAN);
  EXPECT_EQ(rig.status().paths[0].server, 0);
}

TEST(ClientPunch, AnAcknowledgementMakesAPathTooAndGetsNoAnswer) {
  ServerRig rig;
  rig.find();
  rig.sent.clear();
  lund_rv_message ack = rig.host_punch();
  ack.type = LUND_RV_PUNCH_ACK;
  rig.punch(WAN, ack);
  EXPECT_EQ(rig.status().path_count, 1);
  EXPECT_THAT(rig.take(LUND_PKT_HS_INIT), SizeIs(1));
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientPunch, OnlyANewPathIsKicked) {
  ServerRig rig;
  rig.find();
  rig.punch(WAN, rig.host_punch(1));
  rig.sent.clear();
  rig.punch(WAN, rig.host_punch(2));
  EXPECT_THAT(rig.take(LUND_RV_PUNCH_ACK), SizeIs(1));
  EXPECT_THAT(rig.sent, IsEmpty());
  EXPECT_EQ(rig.status().path_count, 1);
}

TEST(ClientPunch, AnAddressGivenAsDirectStaysDirect) {
  ServerRig rig;
  lund_client_add_candidate(rig.client, &WAN, 0);
  rig.find();
  rig.punch(WAN, rig.host_punch());
  ASSERT_EQ(rig.status().path_count, 1);
  EXPECT_EQ(rig.status().paths[0].path_class, LUND_PATH_DIRECT);
  EXPECT_EQ(rig.status().paths[0].server, -1);
}

TEST(ClientPunch, ProbesANewPathAtOnceWhileASessionIsUp) {
  ServerRig rig;
  lund_client_add_candidate(rig.client, &WAN, 0);
  lund_session host;
  rig.bring_up(WAN, &host);
  rig.say(rig.result());
  rig.tick();
  rig.sent.clear();
  rig.punch(LAN, rig.host_punch());
  std::erase_if(rig.sent, [](const auto& datagram) {
    return datagram.bytes[2] == LUND_RV_PUNCH_ACK || !lund_rv_endpoint_equal(datagram.to, LAN);
  });
  ASSERT_THAT(rig.sent, SizeIs(1));
  EXPECT_EQ(rig.open(host, rig.sent[0].bytes)[2], LUND_PKT_PATH_PROBE);
}

TEST(ClientPunch, InRelayModeThereIsNone) {
  ServerRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_RELAY; });
  rig.find();
  rig.tick_for_ms(3'000);
  EXPECT_THAT(rig.take(LUND_RV_PUNCH), IsEmpty());
  rig.sent.clear();
  rig.punch(WAN, rig.host_punch());
  EXPECT_THAT(rig.sent, IsEmpty());
  EXPECT_EQ(rig.status().path_count, 0);
}

TEST(ClientPunch, InDirectModeThereIs) {
  ServerRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_DIRECT; });
  rig.find();
  rig.tick_for_ms(3'000);
  EXPECT_THAT(rig.take(LUND_RV_PUNCH), SizeIs(50));
  rig.punch(WAN, rig.host_punch());
  EXPECT_THAT(rig.take(LUND_RV_PUNCH_ACK), SizeIs(1));
  EXPECT_EQ(rig.status().path_count, 1);
}

TEST(ClientPunch, APathFoundWhilePairingIsAskedForTheHostsInformation) {
  ServerRig rig([](lund_client_config& config) { config.host_code = "0000-0000"; });
  lund_client_pair(rig.client, "123456", 0);
  rig.tick();
  rig.say(rig.result());
  rig.sent.clear();
  rig.punch(WAN, rig.host_punch());
  const auto requests = rig.take(LUND_PKT_HOST_INFO_REQUEST);
  ASSERT_THAT(requests, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(requests[0].to, WAN));

  // Once a host has answered, there is nothing more to ask.
  rig.receive(WAN, rig.host_info(rig.client->pairing.info_nonce, LUND_HOST_PIN_OPEN));
  ASSERT_EQ(rig.client->pairing.stage, LUND_STAGE_INIT);
  rig.punch(LAN, rig.host_punch());
  EXPECT_EQ(rig.status().path_count, 2);
  EXPECT_THAT(rig.take(LUND_PKT_HOST_INFO_REQUEST), IsEmpty());
}
