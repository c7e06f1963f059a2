// A long rain of random and mutated datagrams on an engine that serves a session.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "connection/protocol.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr int DATAGRAMS = 200'000;
const lund_rv_endpoint HOME = peer::at("192.168.1.20:5000");
const lund_rv_endpoint ATTACKER = peer::at("203.0.113.66:666");

class rain {
 public:
  explicit rain(std::uint64_t seed) : random_(seed) {}

  std::size_t below(std::size_t n) { return random_() % n; }
  peer::bytes noise() {
    peer::bytes out(below(160));
    for (auto& byte : out) byte = static_cast<std::uint8_t>(random_());
    if (out.size() > 2 && below(4) != 0) {  // most get past the first look
      out[0] = LUND_MAGIC;
      out[1] = static_cast<std::uint8_t>(1 + below(2));
      out[2] = static_cast<std::uint8_t>(below(4) == 0 ? below(256) : 80 + below(32));
    }
    return out;
  }
  // At least one bit differs, or the length.
  peer::bytes mutated(peer::bytes packet) {
    if (below(8) == 0) {
      packet.resize(packet.size() + 1 - 2 * below(2));
    } else {
      const std::size_t at = below(packet.size());
      packet[at] ^= static_cast<std::uint8_t>(1U << below(8));
      for (std::size_t more = below(4); more > 0; --more)
        if (const std::size_t other = below(packet.size()); other != at)
          packet[other] = static_cast<std::uint8_t>(random_());
    }
    return packet;
  }

 private:
  std::mt19937_64 random_;
};

}  // namespace

TEST(HostHostile, RandomAndMutatedDatagramsChangeNothingTheyMustNot) {
  virtual_time::reset();
  host_rig rig(
      clients_of({2, 3}),
      ("lunderhaze-pw1 000102030405060708090a0b0c0d0e0f 1024 2 " + std::string(64, 'a')).c_str());
  engine_peer client = rig.client(2);
  engine_peer attacker = rig.client(66);
  ASSERT_TRUE(rig.connect(client, HOME));
  const std::uint32_t id = client.session.session_id;
  lund_client_list before;
  lund_host_export_clients(rig.host, &before);

  // What an attacker on the wire has seen or can make: nothing of it was sealed for this test
  // alone.
  const peer::bytes ping = peer::packet(LUND_PKT_PING, 0, peer::bytes(12));
  std::vector<peer::bytes> seen{client.seal(ping),
                                client.seal(peer::probe(1)),
                                client.seal(peer::rekey(id)),
                                client.hs_init(),
                                attacker.hs_init(),
                                attacker.pair_init("000000", LUND_KIND_PIN),
                                attacker.pair_init("000000", LUND_KIND_PASSWORD),
                                peer::packet(LUND_PKT_PAIR_CONFIRM, 0, peer::bytes(72)),
                                peer::info_request(7),
                                peer::packet(LUND_PKT_HELLO, 0, peer::bytes(33))};
  for (std::size_t i = 0; i < 3; ++i) rig.receive(seen[i], HOME);

  rain weather(20240607);
  int delivered = 0;
  for (int i = 0; i < DATAGRAMS; ++i) {
    const peer::bytes datagram =
        weather.below(2) == 0 ? weather.noise() : weather.mutated(seen[weather.below(seen.size())]);
    if (rig.receive(datagram, ATTACKER) == LUND_RX_OPENED) ++delivered;
    rig.sent.clear();
    if (i % 1000 == 999) {  // the session is kept alive, and the clock moves a second and a half
      virtual_time::advance_us(1'500'000);
      lund_host_tick(rig.host);
      ASSERT_EQ(rig.receive(client.seal(ping), HOME), LUND_RX_OPENED);
      ASSERT_TRUE(lund_rv_endpoint_equal(rig.peer_of(id), HOME));
      rig.events();
      rig.lines.clear();
    }
  }

  EXPECT_EQ(delivered, 0);
  EXPECT_EQ(rig.links(), 1);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 1);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 0) << "no handshake of a known client was completed";
  lund_client_list after;
  lund_host_export_clients(rig.host, &after);
  ASSERT_EQ(after.count, before.count);
  EXPECT_EQ(std::memcmp(after.entries, before.entries, sizeof after.entries), 0);
  EXPECT_EQ(rig.pairing().open, 0U);
  std::uint8_t sealed[128];
  const std::size_t size =
      lund_host_seal(rig.host, id, ping.data(), ping.size(), sealed, sizeof sealed, nullptr);
  EXPECT_TRUE(client.open(peer::bytes(sealed, sealed + size)).has_value());
}
