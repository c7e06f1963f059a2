// Creation, dispatch of plain datagrams, admission.
#include "connection/conn_host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

const lund_rv_endpoint HOME = peer::at("192.168.1.20:5000");
const lund_rv_endpoint AWAY = peer::at("203.0.113.7:6000");

peer::bytes reject(std::uint8_t reason) {
  return {0x50, 1, LUND_PKT_HS_REJECT, 0, 0, 0, 0, 0, reason};
}

class HostEngine : public ::testing::Test {
 protected:
  HostEngine() { virtual_time::reset(); }
};

}  // namespace

TEST_F(HostEngine, IsNotMadeWithoutASendCallback) {
  EXPECT_EQ(lund_host_create(nullptr, nullptr, nullptr), nullptr);
  const lund_host_config config;
  EXPECT_EQ(lund_host_create(&config, nullptr, nullptr), nullptr);
  lund_host_destroy(nullptr);
}

TEST_F(HostEngine, ReplayedInitGetsTheSameAnswerAndNoSecondSlot) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  const peer::bytes init = client.hs_init();
  const peer::bytes first = rig.answer(init, HOME);
  ASSERT_EQ(first.size(), LUND_HS_RESP_SIZE);
  EXPECT_EQ(rig.answer(init, AWAY), first);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
}

TEST_F(HostEngine, RetransmissionsRunAheadOfTheRateLimit) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  const peer::bytes init = client.hs_init();
  const peer::bytes first = rig.answer(init, HOME);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(rig.answer(init, HOME), first);
  EXPECT_TRUE(rig.handshake(client, HOME)) << "the bucket is still full";
}

TEST_F(HostEngine, HandshakesAreHeldToTwentyASecondAfterABurstOfForty) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  const auto answered = [&](int tries) {
    int count = 0;
    for (int i = 0; i < tries; ++i) count += rig.answer(client.hs_init(), HOME).empty() ? 0 : 1;
    return count;
  };
  EXPECT_EQ(answered(45), 40);
  virtual_time::advance_us(250'000);
  EXPECT_EQ(answered(10), 5);
}

TEST_F(HostEngine, NewTimestampDuringASessionMakesASecondSlotAndTheSessionRunsOnUntilTheRekey) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  ASSERT_TRUE(rig.connect(client, HOME));
  lund_session old = client.session;
  ASSERT_TRUE(rig.handshake(client, HOME));
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 1);
  EXPECT_EQ(rig.receive(peer::seal(old, peer::packet(LUND_PKT_PING)), HOME), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx.session_id, old.session_id);
  EXPECT_EQ(rig.receive(client.seal(peer::rekey(old.session_id)), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 2);
  EXPECT_EQ(rig.links(), 1);
}

TEST_F(HostEngine, TimestampThatDoesNotRiseIsMetWithSilence) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  ASSERT_FALSE(rig.answer(client.hs_init(1000), HOME).empty());
  EXPECT_TRUE(rig.answer(client.hs_init(1000), HOME).empty());
  EXPECT_TRUE(rig.answer(client.hs_init(999), HOME).empty());
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  EXPECT_FALSE(rig.answer(client.hs_init(1001), HOME).empty());
}

TEST_F(HostEngine, RecordedInitIsRefusedOnceANewerOneWasAnswered) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  const peer::bytes recorded = client.hs_init();
  ASSERT_FALSE(rig.answer(recorded, HOME).empty());
  ASSERT_FALSE(rig.answer(client.hs_init(), HOME).empty());
  EXPECT_TRUE(rig.answer(recorded, AWAY).empty());
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 2);
}

TEST_F(HostEngine, AfterARestartARecordedInitOnlyMakesASlotThatLapses) {
  peer::bytes recorded;
  {
    host_rig before(clients_of({2}));
    engine_peer client = before.client(2);
    recorded = client.hs_init();
    ASSERT_FALSE(before.answer(recorded, HOME).empty());
  }
  host_rig rig(clients_of({2}));
  EXPECT_FALSE(rig.answer(recorded, AWAY).empty());
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  rig.wait_us(10 * SECOND_US);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  rig.wait_us(1);
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
}

TEST_F(HostEngine, ForgedAndMalformedInitsCostNoStateAndGetNoAnswer) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  const peer::bytes init = client.hs_init();
  for (const std::size_t at : {3U, 5U, 8U, 39U, 40U, 87U, 88U, 111U}) {
    peer::bytes forged = init;
    forged[at] ^= 1;
    EXPECT_TRUE(rig.answer(forged, AWAY).empty()) << at;
  }
  peer::bytes longer = init;
  longer.push_back(0);
  EXPECT_TRUE(rig.answer(longer, AWAY).empty());
  EXPECT_TRUE(rig.answer(peer::bytes(init.begin(), init.end() - 1), AWAY).empty());
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
  EXPECT_EQ(rig.host->clients[0].last_timestamp, 0U);
  EXPECT_TRUE(rig.events().empty());
  EXPECT_TRUE(rig.lines.empty());
  EXPECT_EQ(rig.answer(init, HOME).size(), LUND_HS_RESP_SIZE) << "the true one still passes";
}

TEST_F(HostEngine, UnknownDeviceIsRejectedAndReported) {
  host_rig rig(clients_of({2}));
  engine_peer stranger = rig.client(9);
  EXPECT_EQ(rig.answer(stranger.hs_init(), AWAY), reject(LUND_REJECT_UNKNOWN_DEVICE));
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_UNKNOWN_DEVICE);
  EXPECT_EQ(events[0].status, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, AWAY));
  EXPECT_EQ(std::memcmp(events[0].key, stranger.key(), LUND_KEY_SIZE), 0);
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, stranger.key());
  EXPECT_EQ(std::memcmp(events[0].key_id, id, sizeof id), 0);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, stranger.key());
  EXPECT_EQ(rig.lines,
            std::vector<std::string>{"handshake from unknown device " + std::string(code) +
                                     " at 203.0.113.7:6000: rejected"});
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
}

TEST_F(HostEngine, RejectionsAreLimitedAndTheirReportsMoreSo) {
  host_rig rig(clients_of({2}));
  engine_peer stranger = rig.client(9);
  for (int i = 0; i < 20; ++i) rig.receive(stranger.hs_init(), AWAY);
  EXPECT_EQ(rig.sent.size(), 10U);
  EXPECT_EQ(rig.events().size(), 3U);
  virtual_time::advance_us(SECOND_US);
  for (int i = 0; i < 20; ++i) rig.receive(stranger.hs_init(), AWAY);
  EXPECT_EQ(rig.sent.size(), 15U);
  EXPECT_EQ(rig.events().size(), 1U);
}

TEST_F(HostEngine, AnotherClientIsRefusedUntilTheFirstWasQuietForThreeSeconds) {
  host_rig rig(clients_of({2, 3}));
  engine_peer first = rig.client(2);
  engine_peer second = rig.client(3);
  ASSERT_TRUE(rig.connect(first, HOME));
  virtual_time::advance_us(3 * SECOND_US);
  EXPECT_EQ(rig.answer(second.hs_init(), AWAY), reject(LUND_REJECT_BUSY));
  EXPECT_TRUE(rig.handshake(first, HOME)) << "never busy with itself";
  virtual_time::advance_us(1);
  EXPECT_TRUE(rig.handshake(second, AWAY));
}

TEST_F(HostEngine, BusyHostDoesNotAdvanceTheRefusedClientsTimestamp) {
  host_rig rig(clients_of({2, 3}));
  engine_peer first = rig.client(2);
  engine_peer second = rig.client(3);
  ASSERT_TRUE(rig.connect(first, HOME));
  const peer::bytes init = second.hs_init();
  EXPECT_EQ(rig.answer(init, AWAY), reject(LUND_REJECT_BUSY));
  virtual_time::advance_us(3 * SECOND_US + 1);
  EXPECT_EQ(rig.answer(init, AWAY).size(), LUND_HS_RESP_SIZE);
}

TEST_F(HostEngine, TwentyFourBoundSlotsRefuseAHandshake) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  for (lund_crypto_slot& slot : rig.host->slots) slot.state = SLOT_BOUND;
  EXPECT_EQ(rig.answer(client.hs_init(), HOME), reject(LUND_REJECT_BUSY));
  EXPECT_EQ(rig.slots(SLOT_BOUND), HOST_SLOTS);
}

TEST_F(HostEngine, OldestHalfOpenSlotGivesWayWhenNoneIsFree) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  ASSERT_TRUE(rig.handshake(client, HOME));
  lund_session oldest = client.session;
  for (int i = 1; i < HOST_SLOTS; ++i) {
    virtual_time::advance_us(1000);
    ASSERT_TRUE(rig.handshake(client, HOME));
  }
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), HOST_SLOTS);
  ASSERT_TRUE(rig.handshake(client, HOME));
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), HOST_SLOTS);
  EXPECT_EQ(rig.receive(peer::seal(oldest, peer::packet(LUND_PKT_PING)), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.receive(client.seal(peer::packet(LUND_PKT_PING)), HOME), LUND_RX_OPENED);
}

TEST_F(HostEngine, PlainHelloIsToldToAuthenticateAtMostFiveTimesASecondAfterTheBurst) {
  host_rig rig(clients_of({2}));
  const peer::bytes hello = peer::packet(LUND_PKT_HELLO, 0, peer::bytes(33));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(rig.receive(hello, AWAY), LUND_RX_NONE);
  ASSERT_EQ(rig.sent.size(), 10U);
  peer::bytes wanted = peer::packet(LUND_PKT_HELLO_ACK, 0, peer::bytes(14));
  wanted[8] = LUND_HELLO_NO_SESSION;
  EXPECT_EQ(rig.sent[0].data, wanted);
  virtual_time::advance_us(SECOND_US);
  for (int i = 0; i < 20; ++i) rig.receive(hello, AWAY);
  EXPECT_EQ(rig.sent.size(), 15U);
}

TEST_F(HostEngine, DiscoverGoesToTheApplicationAndOtherPlainPacketsOnlyWhenAllowed) {
  lund_host_config config;
  for (const std::uint32_t allowed : {0U, 1U}) {
    config.allow_plain = allowed;
    host_rig rig(clients_of({2}), nullptr, config);
    const int others = allowed != 0 ? LUND_RX_PLAIN : LUND_RX_NONE;
    EXPECT_EQ(rig.receive(peer::packet(LUND_PKT_DISCOVER), AWAY), LUND_RX_PLAIN);
    EXPECT_EQ(rig.receive(peer::packet(LUND_PKT_INPUT), AWAY), others);
    EXPECT_EQ(rig.receive(peer::packet(LUND_PKT_HELLO), AWAY), others);
    EXPECT_EQ(rig.receive(peer::packet(112), AWAY), others);
    EXPECT_EQ(rig.sent.size(), allowed != 0 ? 0U : 1U) << "the answer to the HELLO";
  }
}

TEST_F(HostEngine, PlainPacketsOfTheControlAndRendezvousRangesAreDroppedUnanswered) {
  lund_host_config config;
  config.allow_plain = 1;
  host_rig rig(clients_of({2}), nullptr, config);
  for (int type = 80; type <= 111; ++type)
    EXPECT_EQ(rig.receive(peer::packet(static_cast<std::uint8_t>(type)), AWAY), LUND_RX_NONE)
        << type;
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostEngine, OtherMagicVersionAndShortDatagramsAreDropped) {
  lund_host_config config;
  config.allow_plain = 1;
  host_rig rig(clients_of({2}), nullptr, config);
  EXPECT_EQ(rig.receive({}, AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.receive({0x50, 1, 9, 0, 0, 0, 0}, AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.receive({0x51, 1, 9, 0, 0, 0, 0, 0}, AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.receive({0x50, 3, 9, 0, 0, 0, 0, 0}, AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.receive({0x50, 0, 9, 0, 0, 0, 0, 0}, AWAY), LUND_RX_NONE);
}

TEST_F(HostEngine, ReceiveNeedsNeitherSizeNorInfo) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(2);
  ASSERT_TRUE(rig.handshake(client, HOME));
  const peer::bytes record = client.seal(peer::packet(LUND_PKT_PING));
  std::uint8_t out[2048];
  EXPECT_EQ(lund_host_receive(rig.host, record.data(), record.size(), HOME, out, sizeof out,
                              nullptr, nullptr),
            LUND_RX_OPENED);
  EXPECT_EQ(out[2], LUND_PKT_PING);
}

TEST_F(HostEngine, DroppedDatagramLeavesZeroSizeAndInfo) {
  host_rig rig(clients_of({2}));
  std::size_t size = 99;
  lund_rx_info info{1, 1, 1};
  std::uint8_t out[64];
  const peer::bytes junk(4, 0);
  lund_host_receive(rig.host, junk.data(), junk.size(), AWAY, out, sizeof out, &size, &info);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(info.session_id, 0U);
  EXPECT_EQ(info.first_packet, 0U);
  EXPECT_EQ(info.path, 0);
}

TEST_F(HostEngine, ListsAreCarriedInAndOut) {
  host_rig rig(clients_of({2, 3, 4}));
  EXPECT_EQ(lund_host_remove_client(rig.host, peer::keypair_of(3).public_key), 0);
  EXPECT_EQ(lund_host_remove_client(rig.host, peer::keypair_of(3).public_key), -1);
  lund_client_list list;
  lund_host_export_clients(rig.host, &list);
  ASSERT_EQ(list.count, 2);
  EXPECT_STREQ(list.entries[0].name, "client 2");
  EXPECT_STREQ(list.entries[1].name, "client 4");
  EXPECT_EQ(list.entries[0].added_at, virtual_time::START_WALL_US / SECOND_US);
  virtual_time::advance_us(50 * SECOND_US);
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(4).public_key, "new\tname"), 0);
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(5).public_key, nullptr), 0);
  lund_host_export_clients(rig.host, &list);
  ASSERT_EQ(list.count, 3);
  EXPECT_STREQ(list.entries[1].name, "") << "takes the first free entry";
  EXPECT_EQ(list.entries[1].added_at, virtual_time::START_WALL_US / SECOND_US + 50);
  EXPECT_STREQ(list.entries[2].name, "new name");
  EXPECT_EQ(list.entries[2].added_at, virtual_time::START_WALL_US / SECOND_US);
}

TEST_F(HostEngine, TheListHoldsThirtyTwoClients) {
  host_rig rig;
  for (std::uint8_t seed = 2; seed < 34; ++seed)
    EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(seed).public_key, "x"), 0);
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(34).public_key, "x"), -1);
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(33).public_key, "y"), 0);
}

TEST_F(HostEngine, TickAsksToBeCalledWithinAQuarterSecond) {
  host_rig rig(clients_of({2}));
  EXPECT_EQ(lund_host_tick(rig.host), 250'000U);
}

TEST_F(HostEngine, DestroyedEngineIsWiped) {
  lund_host_config config;
  config.identity = peer::keypair_of(HOST_SEED);
  config.send = [](void*, const lund_rv_endpoint*, const std::uint8_t*, std::size_t) {};
  lund_host* host = lund_host_create(&config, nullptr, nullptr);
  const DeletionWatch memory(host, sizeof *host);
  lund_host_destroy(host);
  EXPECT_TRUE(memory.deleted_wiped());
}

namespace {

// Room for one answer, without the heap.
struct quiet_wire {
  std::uint8_t data[2048];
  std::size_t size = 0;
  static void send(void* user, const lund_rv_endpoint*, const std::uint8_t* bytes,
                   std::size_t size) {
    auto* wire = static_cast<quiet_wire*>(user);
    std::memcpy(wire->data, bytes, size);
    wire->size = size;
  }
};

}  // namespace

TEST_F(HostEngine, AllocatesNothingAfterCreation) {
  quiet_wire wire;
  lund_host_config config;
  config.identity = peer::keypair_of(HOST_SEED);
  config.name = "Desk";
  config.send = quiet_wire::send;
  config.log = [](void*, const char*) {};
  config.user = &wire;
  lund_host* host = lund_host_create(&config, nullptr, nullptr);
  lund_pairing_status status;
  lund_host_pairing_status(host, &status);

  const lund_keypair keys = peer::keypair_of(2);
  lund_pair pair;
  lund_noise_ik noise;
  lund_session session;
  std::uint8_t packet[256];
  std::uint8_t out[2048];
  std::size_t size = 0;
  const auto give = [&] {
    wire.size = 0;
    return lund_host_receive(host, packet, size, HOME, out, sizeof out, nullptr, nullptr);
  };

  const AllocationCount allocations;
  lund_pair_client_start(&pair, &keys, "Laptop", status.pin, packet, sizeof packet, &size);
  give();
  lund_pair_handle(&pair, wire.data, wire.size, packet, sizeof packet, &size);
  give();
  const int paired = lund_pair_handle(&pair, wire.data, wire.size, packet, sizeof packet, &size);
  std::uint32_t session_id = 0;
  int opened = 0;
  std::size_t sealed = 0;
  for (int i = 1; i <= 3; ++i) {  // a session, then two rekeys of it
    lund_hs_client_start(&noise, &keys, config.identity.public_key, conn_hs_timestamp(), packet,
                         sizeof packet, &size);
    give();
    lund_hs_client_finish(&noise, wire.data, wire.size, &session);
    if (session_id == 0) session_id = session.session_id;
    std::uint8_t plain[LUND_PROBE_SIZE];
    conn_make_rekey(plain, i == 1 ? std::uint8_t{LUND_PKT_PING} : std::uint8_t{LUND_PKT_REKEY},
                    session_id);
    size = lund_seal(&session, plain, LUND_REKEY_SIZE, packet, sizeof packet);
    opened += give();
    conn_make_probe(plain, LUND_PKT_PATH_PROBE, 1, 1, 1);
    size = lund_seal(&session, plain, sizeof plain, packet, sizeof packet);
    give();
    sealed += lund_host_seal(host, session_id, plain, sizeof plain, out, sizeof out, nullptr);
    virtual_time::advance_us(6 * SECOND_US);
    lund_host_tick(host);
  }
  lund_conn_event event;
  while (lund_host_poll_event(host, &event) != 0) continue;
  EXPECT_EQ(allocations.count(), 0U);
  EXPECT_EQ(paired, 1);
  EXPECT_EQ(opened, 1);
  EXPECT_EQ(sealed, 3 * (LUND_PROBE_SIZE + LUND_SEAL_OVERHEAD));
  lund_host_destroy(host);
}
