// Sessions, their key sets and the paths to them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

const lund_rv_endpoint HOME = peer::at("192.168.1.20:5000");
const lund_rv_endpoint AWAY = peer::at("203.0.113.7:6000");
const lund_rv_endpoint CAFE = peer::at("198.51.100.4:7000");
const peer::bytes PING = peer::packet(LUND_PKT_PING, 0, peer::bytes(12));

constexpr std::uint8_t ACTIVE = 1;

class HostSessions : public ::testing::Test {
 protected:
  HostSessions() { virtual_time::reset(); }

  // A session of client 2, from HOME; what came with it is forgotten.
  void connect() {
    ASSERT_TRUE(rig.connect(client, HOME));
    id = client.session.session_id;
    rig.events();
    rig.lines.clear();
    rig.sent.clear();
  }
  // New keys for the session; the old ones stand in `old`.
  void rekey(const lund_rv_endpoint& from = HOME) {
    old = client.session;
    ASSERT_TRUE(rig.handshake(client, from));
    rig.sent.clear();
    ASSERT_EQ(rig.receive(client.seal(peer::rekey(id)), from), LUND_RX_NONE);
    ASSERT_EQ(rig.sent.size(), 1U);
  }
  bool at(const lund_rv_endpoint& address) const {
    return lund_rv_endpoint_equal(rig.peer_of(id), address);
  }

  host_rig rig{clients_of({2, 3})};
  engine_peer client = rig.client(2);
  lund_session old;
  std::uint32_t id = 0;
};

}  // namespace

TEST_F(HostSessions, FirstSealedPacketBindsTheSessionAndIsDelivered) {
  ASSERT_TRUE(rig.handshake(client, HOME));
  EXPECT_TRUE(rig.events().empty());
  EXPECT_EQ(rig.links(), 0);
  ASSERT_EQ(rig.receive(client.seal(PING), AWAY), LUND_RX_OPENED);
  id = client.session.session_id;
  EXPECT_EQ(rig.out.size(), PING.size());
  EXPECT_EQ(load_le<std::uint32_t>(rig.out.data() + 4), id);
  EXPECT_EQ(rig.rx.session_id, id);
  EXPECT_EQ(rig.rx.first_packet, 1U);
  EXPECT_EQ(rig.rx.path, LUND_PATH_DIRECT);
  ASSERT_EQ(rig.receive(client.seal(PING), AWAY), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx.first_packet, 0U);

  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_SESSION_UP);
  EXPECT_EQ(events[0].session_id, id);
  EXPECT_EQ(events[0].path, LUND_PATH_DIRECT);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, AWAY));
  EXPECT_EQ(std::memcmp(events[0].key, client.key(), LUND_KEY_SIZE), 0);
  EXPECT_STREQ(events[0].name, "client 2");
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, client.key());
  char line[200];
  std::snprintf(line, sizeof line,
                "session %08x: \"client 2\" (%s) connected via Direct 203.0.113.7:6000", id, code);
  EXPECT_EQ(rig.lines, std::vector<std::string>{line});
}

TEST_F(HostSessions, ProbeMayBindASessionAndTheFirstDeliveredPacketIsStillMarked) {
  ASSERT_TRUE(rig.handshake(client, HOME));
  EXPECT_EQ(rig.receive(client.seal(peer::probe(ACTIVE)), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.links(), 1);
  EXPECT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx.first_packet, 1U);
}

TEST_F(HostSessions, RekeyKeepsTheLogicalSessionAndIsAcknowledgedUnderTheNewKeys) {
  connect();
  rekey();
  const auto ack = client.open(rig.sent[0].data);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ((*ack)[2], LUND_PKT_REKEY_ACK);
  ASSERT_EQ(ack->size(), LUND_REKEY_SIZE);
  EXPECT_EQ(load_le<std::uint32_t>(ack->data() + 8), id);
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_REKEYED);
  EXPECT_EQ(events[0].session_id, id);
  char line[80];
  std::snprintf(line, sizeof line, "session %08x rekeyed (crypto session %08x)", id,
                client.session.session_id);
  EXPECT_EQ(rig.lines, std::vector<std::string>{line});
  ASSERT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx.session_id, id);
  EXPECT_EQ(rig.rx.first_packet, 0U);
}

TEST_F(HostSessions, AfterARekeyTheHostSealsUnderTheNewKeys) {
  connect();
  rekey();
  std::uint8_t sealed[256];
  const std::size_t size =
      lund_host_seal(rig.host, id, PING.data(), PING.size(), sealed, sizeof sealed, nullptr);
  EXPECT_TRUE(client.open(peer::bytes(sealed, sealed + size)).has_value());
}

TEST_F(HostSessions, PreviousKeysDeliverDuringTheGracePeriodButCannotMoveThePath) {
  connect();
  rekey();
  ASSERT_EQ(rig.receive(peer::seal(old, PING), AWAY), LUND_RX_OPENED);
  EXPECT_EQ(rig.rx.session_id, id);
  EXPECT_TRUE(at(HOME));
  EXPECT_EQ(rig.receive(peer::seal(old, peer::probe(ACTIVE)), AWAY), LUND_RX_NONE);
  EXPECT_TRUE(at(HOME));
  rig.wait_us(REKEY_GRACE_US - 1);
  EXPECT_EQ(rig.receive(peer::seal(old, PING), HOME), LUND_RX_OPENED);
  rig.wait_us(1);
  EXPECT_EQ(rig.receive(peer::seal(old, PING), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 1);
  EXPECT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_OPENED);
}

TEST_F(HostSessions, SecondRekeyWithinTheGracePeriodEndsTheOldestKeys) {
  connect();
  rekey();
  lund_session oldest = old;
  rekey();
  EXPECT_EQ(rig.receive(peer::seal(oldest, PING), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.receive(peer::seal(old, PING), HOME), LUND_RX_OPENED);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 2);
}

TEST_F(HostSessions, LostRekeyAckIsSentAgainButNotForThePreviousKeys) {
  connect();
  rekey();
  rig.sent.clear();
  EXPECT_EQ(rig.receive(client.seal(peer::rekey(id)), AWAY), LUND_RX_NONE);
  ASSERT_EQ(rig.sent.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[0].to, AWAY));
  EXPECT_TRUE(client.open(rig.sent[0].data).has_value());
  EXPECT_TRUE(at(HOME));
  EXPECT_EQ(rig.events().size(), 1U) << "one rekey";
  rig.sent.clear();
  EXPECT_EQ(rig.receive(peer::seal(old, peer::rekey(id)), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.receive(client.seal(peer::packet(LUND_PKT_REKEY)), HOME), LUND_RX_NONE);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostSessions, RekeyOfAnotherClientsSessionFreesTheSlot) {
  connect();
  engine_peer other = rig.client(3);
  virtual_time::advance_us(BUSY_US + 1);
  ASSERT_TRUE(rig.handshake(other, AWAY));
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  rig.sent.clear();
  EXPECT_EQ(rig.receive(other.seal(peer::rekey(id)), AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 0);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 1);
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_TRUE(at(HOME));
  EXPECT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_OPENED);
}

TEST_F(HostSessions, RekeyOfNoSessionOrWithoutAnIdFreesTheSlot) {
  connect();
  for (const peer::bytes& packet : {peer::rekey(id + 1), peer::packet(LUND_PKT_REKEY)}) {
    ASSERT_TRUE(rig.handshake(client, HOME));
    EXPECT_EQ(rig.receive(client.seal(packet), HOME), LUND_RX_NONE);
    EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 0);
    EXPECT_EQ(rig.links(), 1);
  }
}

TEST_F(HostSessions, ReorderedRecordFromAFormerAddressIsDeliveredAndMovesNothing) {
  connect();
  const peer::bytes late = client.seal(PING);
  ASSERT_EQ(rig.receive(client.seal(PING), AWAY), LUND_RX_OPENED);
  EXPECT_TRUE(at(AWAY));
  ASSERT_EQ(rig.receive(late, HOME), LUND_RX_OPENED);
  EXPECT_TRUE(at(AWAY));
}

TEST_F(HostSessions, ProbeMovesThePathOnlyWhenItIsTheActiveOneAndNewer) {
  connect();
  const peer::bytes late = client.seal(peer::probe(ACTIVE));
  rig.receive(client.seal(peer::probe(0)), AWAY);
  EXPECT_TRUE(at(HOME));
  rig.receive(client.seal(peer::probe(ACTIVE)), AWAY);
  EXPECT_TRUE(at(AWAY));
  rig.receive(late, HOME);
  EXPECT_TRUE(at(AWAY));
  EXPECT_EQ(rig.sent.size(), 3U) << "each is answered";
}

TEST_F(HostSessions, ProbeIsAnsweredToItsSourceWithItsCopyUnderTheSameKeys) {
  connect();
  rekey();
  rig.sent.clear();
  peer::bytes probe = peer::probe(ACTIVE, 77);
  EXPECT_EQ(rig.receive(peer::seal(old, probe), CAFE), LUND_RX_NONE);
  ASSERT_EQ(rig.sent.size(), 1U);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[0].to, CAFE));
  const auto ack = peer::open(old, rig.sent[0].data);
  ASSERT_TRUE(ack.has_value());
  probe[2] = LUND_PKT_PATH_PROBE_ACK;
  probe[3] = 0;
  store_le(probe.data() + 4, old.session_id);
  EXPECT_EQ(*ack, probe);
}

TEST_F(HostSessions, ShortProbeIsNeitherAnsweredNorMovesThePath) {
  connect();
  peer::bytes probe = peer::probe(ACTIVE);
  probe.pop_back();
  EXPECT_EQ(rig.receive(client.seal(probe), AWAY), LUND_RX_NONE);
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_TRUE(at(HOME));
}

TEST_F(HostSessions, AcknowledgementsAreNotDelivered) {
  connect();
  for (const std::uint8_t type : {LUND_PKT_PATH_PROBE_ACK, LUND_PKT_REKEY_ACK}) {
    EXPECT_EQ(rig.receive(client.seal(peer::packet(type, 0, peer::bytes(12))), AWAY), LUND_RX_NONE);
    EXPECT_TRUE(at(HOME));
  }
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostSessions, PathChangeIsReportedOnce) {
  connect();
  rig.receive(client.seal(PING), AWAY);
  rig.receive(client.seal(PING), AWAY);
  EXPECT_EQ(rig.rx.path, LUND_PATH_DIRECT);
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_PATH_CHANGED);
  EXPECT_EQ(events[0].session_id, id);
  EXPECT_EQ(events[0].path, LUND_PATH_DIRECT);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, AWAY));
  char line[80];
  std::snprintf(line, sizeof line, "session %08x: path -> Direct 203.0.113.7:6000", id);
  EXPECT_EQ(rig.lines, std::vector<std::string>{line});
}

TEST_F(HostSessions, RekeyFromAnotherAddressMovesThePath) {
  connect();
  rekey(AWAY);
  EXPECT_TRUE(at(AWAY));
}

TEST(HostPaths, ServersAddressIsTheRelayClass) {
  virtual_time::reset();
  lund_host_config config;
  lund_relay_server server;
  const std::uint8_t secret[] = {'k'};
  ASSERT_EQ(lund_relay_server_set(&server, "192.168.1.9", 9877, secret, 1), 0);
  ASSERT_EQ(lund_relay_config_add(&config.relays, &server), 0);
  host_rig rig(clients_of({2}), nullptr, config);
  engine_peer client = rig.client(2);
  ASSERT_TRUE(rig.connect(client, peer::at("192.168.1.9:9877")));
  EXPECT_EQ(rig.rx.path, LUND_PATH_RELAY);
  rig.receive(client.seal(PING), peer::at("192.168.1.9:9878"));
  EXPECT_EQ(rig.rx.path, LUND_PATH_LAN);
  rig.receive(client.seal(PING), peer::at("100.64.0.1:9877"));
  EXPECT_EQ(rig.rx.path, LUND_PATH_DIRECT) << "an overlay's address";
}

TEST_F(HostSessions, NinthSessionEvictsTheQuietestAndItsKeys) {
  std::vector<engine_peer> peers;
  for (int i = 0; i < HOST_LINKS; ++i) {
    peers.push_back(client);
    ASSERT_TRUE(rig.connect(client, HOME));
    peers.back().session = client.session;
    virtual_time::advance_us(1000);
  }
  // The first speaks again, so that the second is the quietest.
  ASSERT_EQ(rig.receive(peers[0].seal(PING), HOME), LUND_RX_OPENED);
  const std::uint32_t quietest = peers[1].session.session_id;
  ASSERT_TRUE(rig.connect(client, HOME));
  EXPECT_EQ(rig.links(), HOST_LINKS);
  EXPECT_EQ(rig.slots(SLOT_BOUND), HOST_LINKS);
  EXPECT_EQ(rig.receive(peers[1].seal(PING), HOME), LUND_RX_NONE);
  EXPECT_EQ(rig.receive(peers[0].seal(PING), HOME), LUND_RX_OPENED);
  for (const lund_crypto_slot& slot : rig.host->slots) {
    EXPECT_NE(slot.session.session_id, quietest);
    if (slot.state != SLOT_FREE) continue;
    const std::uint8_t zero[LUND_KEY_SIZE] = {};
    EXPECT_EQ(std::memcmp(slot.session.send_key, zero, sizeof zero), 0);
    EXPECT_EQ(std::memcmp(slot.session.recv_key, zero, sizeof zero), 0);
  }
}

TEST_F(HostSessions, SessionQuietForAMinuteIsGoneAtTheNextTick) {
  connect();
  rig.wait_us(LINK_IDLE_US);
  EXPECT_EQ(rig.links(), 1);
  rig.wait_us(1);
  EXPECT_EQ(rig.links(), 0);
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
  EXPECT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_NONE);
  EXPECT_TRUE(rig.events().empty());
  char line[80];
  std::snprintf(line, sizeof line, "session %08x expired (idle)", id);
  EXPECT_EQ(rig.lines, std::vector<std::string>{line});
}

TEST_F(HostSessions, ReplayedForgedAndShortRecordsChangeNothing) {
  connect();
  const peer::bytes record = client.seal(PING);
  ASSERT_EQ(rig.receive(record, HOME), LUND_RX_OPENED);
  const std::uint64_t active_at = rig.host->links[0].last_activity;
  virtual_time::advance_us(1000);
  EXPECT_EQ(rig.receive(record, AWAY), LUND_RX_NONE) << "replayed";
  peer::bytes forged = client.seal(PING);
  for (const std::size_t at_byte : {2U, 3U, 4U, 8U, 16U, 43U}) {
    peer::bytes copy = forged;
    copy[at_byte] ^= 1;
    EXPECT_EQ(rig.receive(copy, AWAY), LUND_RX_NONE) << at_byte;
  }
  EXPECT_EQ(rig.receive(peer::bytes(forged.begin(), forged.begin() + 31), AWAY), LUND_RX_NONE);
  EXPECT_TRUE(at(HOME));
  EXPECT_EQ(rig.host->links[0].last_activity, active_at);
  EXPECT_TRUE(rig.sent.empty());
  EXPECT_TRUE(rig.events().empty());
  EXPECT_EQ(rig.receive(forged, HOME), LUND_RX_OPENED) << "the true one is still taken";
}

TEST_F(HostSessions, ForgedRecordDoesNotBindAHalfOpenSlot) {
  ASSERT_TRUE(rig.handshake(client, HOME));
  peer::bytes forged = client.seal(PING);
  forged.back() ^= 1;
  EXPECT_EQ(rig.receive(forged, AWAY), LUND_RX_NONE);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 1);
  EXPECT_EQ(rig.links(), 0);
}

TEST_F(HostSessions, RecordMayBeOpenedInItsOwnBuffer) {
  connect();
  ASSERT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_OPENED);
  peer::bytes record = client.seal(PING);
  std::size_t size = 0;
  EXPECT_EQ(lund_host_receive(rig.host, record.data(), record.size(), AWAY, record.data(),
                              record.size(), &size, nullptr),
            LUND_RX_OPENED);
  EXPECT_EQ(size, PING.size());
  EXPECT_TRUE(at(AWAY)) << "the counter was read ahead of the opening";
}

TEST_F(HostSessions, SealGivesThePeerAndNothingForAnUnknownSession) {
  connect();
  std::uint8_t sealed[256];
  lund_rv_endpoint to;
  const std::size_t size =
      lund_host_seal(rig.host, id, PING.data(), PING.size(), sealed, sizeof sealed, &to);
  EXPECT_EQ(size, PING.size() + LUND_SEAL_OVERHEAD);
  EXPECT_TRUE(lund_rv_endpoint_equal(to, HOME));
  EXPECT_TRUE(client.open(peer::bytes(sealed, sealed + size)).has_value());
  EXPECT_TRUE(rig.sent.empty()) << "the caller sends";
  EXPECT_EQ(lund_host_seal(rig.host, id + 1, PING.data(), PING.size(), sealed, sizeof sealed, &to),
            0U);
  EXPECT_EQ(lund_host_seal(rig.host, 0, PING.data(), PING.size(), sealed, sizeof sealed, &to), 0U);
}

TEST_F(HostSessions, InfoShowsTheSessionAndIsZeroedWithoutOne) {
  connect();
  lund_session_info info;
  ASSERT_EQ(lund_host_session_info_get(rig.host, id, &info), 0);
  EXPECT_EQ(info.session_id, id);
  EXPECT_EQ(info.path, LUND_PATH_LAN);
  EXPECT_TRUE(lund_rv_endpoint_equal(info.peer, HOME));
  EXPECT_EQ(std::memcmp(info.client_key, client.key(), LUND_KEY_SIZE), 0);
  EXPECT_STREQ(info.client_name, "client 2");
  EXPECT_EQ(info.last_activity, lund_now_us());
  EXPECT_EQ(lund_host_session_info_get(rig.host, id + 1, &info), -1);
  EXPECT_EQ(info.session_id, 0U);
  EXPECT_STREQ(info.client_name, "");
}

TEST_F(HostSessions, ClosedSessionIsGoneWithBothItsKeySets) {
  connect();
  rekey();
  lund_host_session_close(rig.host, id + 1);
  EXPECT_EQ(rig.links(), 1);
  lund_host_session_close(rig.host, id);
  EXPECT_EQ(rig.links(), 0);
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
  EXPECT_EQ(rig.receive(client.seal(PING), HOME), LUND_RX_NONE);
}

TEST_F(HostSessions, RemovedClientLosesItsSessionsSlotsAndAdmission) {
  connect();
  rekey();
  ASSERT_TRUE(rig.handshake(client, HOME));
  EXPECT_EQ(lund_host_remove_client(rig.host, client.key()), 0);
  EXPECT_EQ(rig.links(), 0);
  EXPECT_EQ(rig.slots(SLOT_FREE), HOST_SLOTS);
  EXPECT_EQ(rig.answer(client.hs_init(), HOME)[8], LUND_REJECT_UNKNOWN_DEVICE);
}

TEST_F(HostSessions, RemovingAClientLeavesTheOthersAlone) {
  connect();
  engine_peer other = rig.client(3);
  virtual_time::advance_us(BUSY_US + 1);
  ASSERT_TRUE(rig.connect(other, AWAY));
  EXPECT_EQ(lund_host_remove_client(rig.host, client.key()), 0);
  EXPECT_EQ(rig.receive(other.seal(PING), AWAY), LUND_RX_OPENED);
  EXPECT_EQ(rig.links(), 1);
}
