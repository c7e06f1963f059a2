#include "connection/conn_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "connection/byte_order.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/client_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;

Bytes reject(std::uint8_t reason) {
  Bytes packet(LUND_HS_REJECT_SIZE);
  lund_hs_encode_reject(packet.data(), packet.size(), reason);
  return packet;
}

std::vector<lund_conn_event> of_type(const std::vector<lund_conn_event>& events,
                                     std::uint32_t type) {
  std::vector<lund_conn_event> out;
  for (const lund_conn_event& event : events)
    if (event.type == type) out.push_back(event);
  return out;
}

std::size_t sessions_up(const ClientRig& rig) {
  std::size_t count = 0;
  for (const lund_client_session& session : rig.client->sessions)
    count += session.state == LUND_SESSION_UP;
  return count;
}

}  // namespace

TEST(ClientEngine, NeedsAConfigurationAndASendCallback) {
  EXPECT_EQ(lund_client_create(nullptr), nullptr);
  const lund_client_config silent;
  EXPECT_EQ(lund_client_create(&silent), nullptr);
  lund_client_destroy(nullptr);
}

TEST(ClientEngine, RefusesACodeThatCouldNotBeCompared) {
  const ClientRig rig([](lund_client_config& config) { config.host_code = "7K2M-Q9TU"; });
  EXPECT_EQ(rig.client, nullptr);
  const ClientRig good([](lund_client_config& config) { config.host_code = "7K2M-Q9TX"; });
  EXPECT_NE(good.client, nullptr);
}

TEST(ClientEngine, ConnectsOnlyToAHostWhoseKeyItKnows) {
  const ClientRig rig([](lund_client_config& config) { config.has_host_key = 0; });
  EXPECT_EQ(lund_client_connect(rig.client), -1);
  EXPECT_EQ(lund_client_open_session(rig.client), -1);
}

TEST(ClientEngine, TheHandshakeGoesToEveryPathAtOnce) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_add_candidate(rig.client, &WAN, LUND_PATH_NONE);
  ASSERT_EQ(lund_client_connect(rig.client), 0);
  rig.tick();
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(inits, SizeIs(2));
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[0].to, LAN));
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[1].to, WAN));
  EXPECT_EQ(inits[0].bytes, inits[1].bytes);
}

TEST(ClientEngine, AnUnansweredHandshakeRepeatsEvery250MsForEverAndAfreshEachTime) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  rig.tick();
  rig.tick_for_ms(60'000);
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  EXPECT_THAT(inits, SizeIs(241));
  std::uint64_t last = 0;
  for (const auto& init : inits) {
    lund_noise_ik state;
    std::uint8_t key[LUND_KEY_SIZE];
    std::uint64_t timestamp = 0;
    ASSERT_EQ(lund_hs_host_read(&state, &rig.host_keypair, init.bytes.data(), init.bytes.size(),
                                key, &timestamp),
              LUND_OK);
    EXPECT_GT(timestamp, last);
    last = timestamp;
  }
}

TEST(ClientEngine, AnAnswerBringsTheSessionUpUnderItsId) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  const std::uint32_t id = rig.bring_up(LAN, &host, 12'000);
  EXPECT_EQ(id, host.session_id);
  const auto events = of_type(rig.events(), LUND_EV_CLIENT_SESSION_UP);
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].session_id, id);
  EXPECT_EQ(events[0].path, LUND_PATH_LAN);
  EXPECT_EQ(events[0].rtt_us, 12'000u);
  EXPECT_EQ(events[0].server, -1);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, LAN));
  EXPECT_EQ(std::memcmp(events[0].key, rig.host_keypair.public_key, LUND_KEY_SIZE), 0);
  char line[64];
  std::snprintf(line, sizeof line, "session %08x up via LAN 192.168.1.10:9876 (rtt 12.0 ms)", id);
  EXPECT_EQ(rig.log.back(), line);

  const lund_client_status status = rig.status();
  EXPECT_EQ(status.connected, 1u);
  EXPECT_EQ(status.max_datagram, 1400);
  EXPECT_EQ(status.payload, 1376);
  ASSERT_EQ(status.path_count, 1);
  EXPECT_EQ(status.paths[0].alive, 1u);
}

TEST(ClientEngine, ADuplicatedAnswerMakesNoSecondSessionAndRefreshesTheRoundTripTime) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  rig.tick();
  lund_session host;
  const Bytes response = rig.answer(rig.take(LUND_PKT_HS_INIT)[0].bytes, &host);
  virtual_time::advance_ms(8);
  rig.receive(LAN, response);
  virtual_time::advance_ms(8);
  rig.receive(LAN, response);
  EXPECT_EQ(sessions_up(rig), 1u);
  EXPECT_THAT(of_type(rig.events(), LUND_EV_CLIENT_SESSION_UP), SizeIs(1));
  EXPECT_EQ(rig.status().rtt_us, (16'000u + 7 * 8'000u) / 8);
}

TEST(ClientEngine, TheSameAnswerOnAnotherPathMeasuresThatPath) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_add_candidate(rig.client, &WAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  rig.tick();
  lund_session host;
  const Bytes response = rig.answer(rig.take(LUND_PKT_HS_INIT)[0].bytes, &host);
  virtual_time::advance_ms(5);
  rig.receive(WAN, response);
  virtual_time::advance_ms(5);
  rig.receive(LAN, response);
  EXPECT_EQ(rig.client->paths[0].rtt_us, 10'000u);
  EXPECT_EQ(rig.client->paths[1].rtt_us, 5'000u);
  EXPECT_EQ(rig.status().path, LUND_PATH_DIRECT);  // the first to answer carries the session
}

TEST(ClientEngine, AnAnswerFromAnUnknownAddressBecomesAPath) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &WAN, LUND_PATH_NONE);
  lund_session host;
  ASSERT_NE(rig.bring_up(LAN, &host), 0u);
  const lund_client_status status = rig.status();
  EXPECT_EQ(status.path, LUND_PATH_LAN);
  EXPECT_EQ(status.rtt_us, 0u);  // no handshake went out there, so nothing was measured
  EXPECT_EQ(status.path_count, 2);
}

TEST(ClientEngine, InRelayModeAnAnswerFromAnUnknownAddressIsNoPath) {
  ClientRig rig([](lund_client_config& config) { config.path_mode = LUND_PATHS_RELAY; });
  const lund_rv_endpoint relay = EnginePair::HOST_RELAY;
  client_engine::path_add(*rig.client, relay, LUND_PATH_RELAY, 0);
  lund_session host;
  ASSERT_NE(rig.bring_up(LAN, &host), 0u);
  EXPECT_EQ(rig.status().path_count, 1);
  EXPECT_EQ(rig.client->current_path, -1);
}

TEST(ClientEngine, AForgedAnswerCostsNothing) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  rig.tick();
  const Bytes init = rig.take(LUND_PKT_HS_INIT)[0].bytes;
  lund_session host;
  const Bytes response = rig.answer(init, &host);
  for (std::size_t i = 4; i < response.size(); ++i) {
    Bytes forged = response;
    forged[i] ^= 1;
    rig.receive(LAN, forged);
    EXPECT_EQ(rig.status().connected, 0u) << "byte " << i;
  }
  rig.receive(LAN, response);
  EXPECT_EQ(rig.status().session_id, host.session_id);
}

TEST(ClientEngine, AnUnauthenticatedRejectIsNewsAndDoesNotStopTheHandshake) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  rig.tick();
  for (int i = 0; i < 39; ++i) {  // 1.9 s: one event in 2 s
    rig.receive(LAN, reject(LUND_REJECT_BUSY));
    rig.tick_for_ms(50);
  }
  auto events = of_type(rig.events(), LUND_EV_CLIENT_REJECTED);
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].status, LUND_REJECT_BUSY);
  EXPECT_EQ(rig.log.back(), "host rejected the handshake (reason 2)");
  rig.tick_for_ms(100);
  rig.receive(LAN, reject(LUND_REJECT_UNKNOWN_DEVICE));
  EXPECT_THAT(of_type(rig.events(), LUND_EV_CLIENT_REJECTED), SizeIs(1));

  lund_session host;
  rig.receive(LAN, rig.answer(rig.take(LUND_PKT_HS_INIT).back().bytes, &host));
  EXPECT_EQ(rig.status().connected, 1u);
}

TEST(ClientEngine, ARejectIsNothingToASessionThatIsUp) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  rig.bring_up(LAN, &host);
  rig.events();
  rig.receive(LAN, reject(LUND_REJECT_UNKNOWN_DEVICE));
  EXPECT_THAT(rig.events(), IsEmpty());
  EXPECT_EQ(rig.status().connected, 1u);
}

TEST(ClientEngine, DeliversASealedPacketUnderTheLogicalSessionId) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  const std::uint32_t id = rig.bring_up(LAN, &host);
  ASSERT_EQ(rig.receive(LAN, rig.seal(host, LUND_PKT_PONG, 20)), LUND_RX_OPENED);
  EXPECT_THAT(rig.out, SizeIs(28));
  EXPECT_EQ(load_le<std::uint32_t>(rig.out.data() + 4), id);
  EXPECT_EQ(rig.rx_info.session_id, id);
  EXPECT_EQ(rig.rx_info.path, LUND_PATH_LAN);
  ASSERT_EQ(rig.receive(WAN, rig.seal(host, LUND_PKT_PONG, 20)), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx_info.path, LUND_PATH_NONE);  // no path of ours
}

TEST(ClientEngine, WhatBelongsToTheHostOrToTheEngineIsNotDelivered) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  rig.bring_up(LAN, &host);
  for (const std::uint8_t type :
       {LUND_PKT_PATH_PROBE, LUND_PKT_REKEY, LUND_PKT_PATH_PROBE_ACK, LUND_PKT_REKEY_ACK})
    EXPECT_EQ(rig.receive(LAN, rig.seal(host, type, 12)), LUND_RX_NONE) << int{type};
  EXPECT_EQ(host.session_id, rig.client->sessions[0].current.session_id);
}

TEST(ClientEngine, AReplayedRecordIsNotDeliveredAgain) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  rig.bring_up(LAN, &host);
  const Bytes record = rig.seal(host, LUND_PKT_PONG, 20);
  EXPECT_EQ(rig.receive(LAN, record), LUND_RX_OPENED);
  EXPECT_EQ(rig.receive(LAN, record), LUND_RX_NONE);
}

TEST(ClientEngine, OfPlainPacketsOnlyADiscoverReplyIsForTheApplication) {
  ClientRig rig;
  for (int type = 0; type < 256; ++type) {
    Bytes packet(64);
    packet[0] = LUND_MAGIC;
    packet[1] = LUND_VERSION_PLAIN;
    packet[2] = static_cast<std::uint8_t>(type);
    const int expected = type == LUND_PKT_DISCOVER_REPLY ? LUND_RX_PLAIN : LUND_RX_NONE;
    EXPECT_EQ(rig.receive(LAN, packet), expected) << type;
    packet[1] = 3;
    EXPECT_EQ(rig.receive(LAN, packet), LUND_RX_NONE) << type;
  }
  EXPECT_THAT(rig.sent, IsEmpty());
}

TEST(ClientEngine, SealsForTheFirstSessionWhenNoneIsNamedAndTellsWhereToSend) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  Bytes plain(LUND_HEADER_SIZE);
  lund_packet_header header;
  header.type = LUND_PKT_BYE;
  lund_encode_header(plain.data(), plain.size(), &header);
  Bytes sealed(64);
  lund_rv_endpoint peer;
  EXPECT_EQ(lund_client_seal(rig.client, 0, plain.data(), plain.size(), sealed.data(),
                             sealed.size(), &peer),
            0u);
  lund_session host;
  const std::uint32_t id = rig.bring_up(LAN, &host);
  for (const std::uint32_t named : {0u, id}) {
    const std::size_t size = lund_client_seal(rig.client, named, plain.data(), plain.size(),
                                              sealed.data(), sealed.size(), &peer);
    ASSERT_EQ(size, 32u);
    EXPECT_TRUE(lund_rv_endpoint_equal(peer, LAN));
    EXPECT_THAT(rig.open(host, Bytes(sealed.begin(), sealed.begin() + 32)), SizeIs(8));
  }
  EXPECT_EQ(lund_client_seal(rig.client, id + 1, plain.data(), plain.size(), sealed.data(),
                             sealed.size(), nullptr),
            0u);
}

TEST(ClientEngine, HasFourSessionsAtMost) {
  ClientRig rig;
  for (int i = 0; i < LUND_CLIENT_SESSIONS; ++i)
    EXPECT_EQ(lund_client_open_session(rig.client), 0) << i;
  EXPECT_EQ(lund_client_open_session(rig.client), -1);
  lund_client_session_close(rig.client, 0);
  EXPECT_EQ(lund_client_open_session(rig.client), 0);
}

TEST(ClientEngine, ASecondSessionHandshakesOnTheCurrentPathAlone) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &WAN, LUND_PATH_NONE);
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session first, second;
  rig.bring_up(LAN, &first);
  ASSERT_EQ(lund_client_open_session(rig.client), 0);
  rig.tick();
  const auto inits = rig.take(LUND_PKT_HS_INIT);
  ASSERT_THAT(inits, SizeIs(1));
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[0].to, LAN));
  rig.receive(LAN, rig.answer(inits[0].bytes, &second));
  EXPECT_EQ(sessions_up(rig), 2u);
  EXPECT_EQ(rig.status().session_id, first.session_id);

  lund_client_session_close(rig.client, first.session_id);
  EXPECT_EQ(rig.status().session_id, second.session_id);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_CONNECTING);
}

TEST(ClientEngine, ClosingTheLastSessionGoesIdle) {
  ClientRig rig;
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_session host;
  const std::uint32_t id = rig.bring_up(LAN, &host);
  lund_client_session_close(rig.client, id + 1);
  EXPECT_EQ(rig.status().connected, 1u);
  lund_client_session_close(rig.client, id);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_IDLE);
  EXPECT_EQ(rig.client->current_path, -1);
  EXPECT_EQ(rig.client->first_up_at, 0u);
  const lund_client_session wiped;
  EXPECT_EQ(
      std::memcmp(rig.client->sessions[0].current.send_key, wiped.current.send_key, LUND_KEY_SIZE),
      0);
  rig.sent.clear();
  rig.events();
  rig.tick_for_ms(5'000);
  EXPECT_THAT(rig.sent, IsEmpty());
  EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ClientEngine, WaitsAtMost50MsWhenUrgentOrInTheFastPhaseAnd250MsOtherwise) {
  ClientRig rig;
  EXPECT_EQ(rig.tick(), 250'000u);  // idle
  lund_client_add_candidate(rig.client, &LAN, LUND_PATH_NONE);
  lund_client_connect(rig.client);
  EXPECT_EQ(rig.tick(), 50'000u);  // handshaking
  lund_session host;
  rig.receive(LAN, rig.answer(rig.take(LUND_PKT_HS_INIT)[0].bytes, &host));
  EXPECT_EQ(rig.tick(), 50'000u);  // fast phase
  virtual_time::advance_ms(2'000);
  EXPECT_EQ(rig.tick(), 250'000u);
  virtual_time::advance_ms(499);
  EXPECT_EQ(rig.tick(), 1'000u);  // the probe is due in 1 ms
}

TEST(ClientEngine, DestructionLeavesNoSecretInTheFreedMemory) {
  auto* rig = new ClientRig;
  lund_client_add_candidate(rig->client, &LAN, LUND_PATH_NONE);
  lund_session host;
  rig->bring_up(LAN, &host);
  const DeletionWatch memory(rig->client, sizeof(lund_client));
  delete rig;
  EXPECT_TRUE(memory.deleted_wiped());
}

TEST(ClientEngine, UsesNoHeapAfterItsCreation) {
  // Only buffers of this test's own: the rig's and the simulator's would count too.
  struct Wire {
    std::uint8_t bytes[64][256];
    std::size_t size[64];
    std::size_t count = 0;
  };
  static Wire to_host, to_client;
  virtual_time::reset();
  to_host.count = to_client.count = 0;
  const auto keep = [](void* user, const lund_rv_endpoint*, const std::uint8_t* bytes,
                       std::size_t size) {
    auto* wire = static_cast<Wire*>(user);
    if (wire->count == 64 || size > 256) return;
    std::memcpy(wire->bytes[wire->count], bytes, size);
    wire->size[wire->count++] = size;
  };
  lund_host_config host_config;
  lund_keypair_generate(&host_config.identity);
  host_config.send = keep;
  host_config.user = &to_client;
  lund_host* host = lund_host_create(&host_config, nullptr, nullptr);
  lund_client_config config;
  lund_keypair_generate(&config.identity);
  config.send = keep;
  config.user = &to_host;
  config.rekey_seconds = 2;
  lund_client* client = lund_client_create(&config);
  lund_pairing_status pairing;
  lund_host_pairing_status(host, &pairing);

  const AllocationCount allocations;
  lund_client_add_candidate(client, &LAN, LUND_PATH_NONE);
  lund_client_pair(client, pairing.pin, LUND_KIND_PIN);
  std::uint8_t out[2048];
  for (int i = 0; i < 2'000; ++i) {
    virtual_time::advance_ms(5);
    lund_client_tick(client);
    lund_host_tick(host);
    for (std::size_t n = 0; n < to_host.count; ++n)
      lund_host_receive(host, to_host.bytes[n], to_host.size[n], EnginePair::CLIENT_LAN, out,
                        sizeof out, nullptr, nullptr);
    to_host.count = 0;
    for (std::size_t n = 0; n < to_client.count; ++n)
      lund_client_receive(client, to_client.bytes[n], to_client.size[n], LAN, out, sizeof out,
                          nullptr, nullptr);
    to_client.count = 0;
  }
  EXPECT_EQ(allocations.count(), 0U);

  int rekeys = 0;
  lund_conn_event event;
  while (lund_client_poll_event(client, &event)) rekeys += event.type == LUND_EV_REKEYED;
  EXPECT_GE(rekeys, 3);  // it did pair, connect and rekey meanwhile
  lund_client_destroy(client);
  lund_host_destroy(host);
}
