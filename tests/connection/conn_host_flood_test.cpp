// A stream in both directions through a flood of first handshake messages.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr std::uint64_t FLOOD_EVERY_US = 50;  // 20,000 a second
constexpr std::uint64_t TICK_EVERY_US = 10'000;
constexpr std::uint64_t FRAMES_A_SECOND = 60;
constexpr std::uint64_t SECONDS = 10;
constexpr int SHARDS_A_FRAME = 12;
constexpr int RECORDS_A_FRAME = 2;  // input and statistics
constexpr std::size_t SHARD_SIZE = 1'376;

const lund_rv_endpoint HOME = peer::at("192.168.1.20:5000");

// Ever new senders, of both families.
class flood {
 public:
  // What was recorded of clients, to be replayed; what holders of unknown keys make.
  std::vector<peer::bytes> recorded;
  std::vector<peer::bytes> unauthorized;

  lund_rv_endpoint sender() {
    lund_rv_endpoint from = peer::at(random_() % 4 == 0 ? "[2001:db8::1]:1" : "203.0.113.1:1");
    store_le(from.address.data() + (from.family == 4 ? 0 : 8), random_());
    from.port = static_cast<std::uint16_t>(1 + random_() % 65'535);
    return from;
  }
  peer::bytes next() {
    switch (random_() % 4) {
      case 0:
        return recorded[random_() % recorded.size()];
      case 1:
        return unauthorized[random_() % unauthorized.size()];
      case 2:
        return noise(LUND_HS_INIT_SIZE);
      default:
        return noise(8 + random_() % 200);
    }
  }

 private:
  peer::bytes noise(std::size_t size) {
    peer::bytes out = peer::packet(LUND_PKT_HS_INIT, 0, peer::bytes(size - LUND_HEADER_SIZE));
    for (std::size_t i = LUND_HEADER_SIZE; i < size; ++i)
      out[i] = static_cast<std::uint8_t>(random_());
    return out;
  }

  std::mt19937 random_{20240608};
};

// Packets that count, so that each can be told apart.
peer::bytes numbered(std::uint8_t type, std::uint32_t number, std::size_t size) {
  peer::bytes out = peer::packet(type, 0, peer::bytes(size - LUND_HEADER_SIZE));
  store_le(out.data() + LUND_HEADER_SIZE, number);
  return out;
}

class HostFlood : public ::testing::Test {
 protected:
  HostFlood() {
    virtual_time::reset();
    // Before the stream: another device's sessions, and those of the client that have ended.
    engine_peer other = rig.client(3);
    for (engine_peer* seen : {&other, &client, &client}) {
      weather.recorded.push_back(seen->hs_init());
      EXPECT_TRUE(seen->hs_finish(rig.answer(weather.recorded.back(), HOME)));
    }
    virtual_time::advance_us(HALF_OPEN_LIFE_US + 1);
    lund_host_tick(rig.host);
    weather.recorded.push_back(client.hs_init());
    EXPECT_TRUE(client.hs_finish(rig.answer(weather.recorded.back(), HOME)));
    for (std::uint8_t seed = 60; seed < 68; ++seed) {
      engine_peer stranger = rig.client(seed);
      for (int i = 0; i < 8; ++i) weather.unauthorized.push_back(stranger.hs_init());
    }
  }

  // Each shard is sealed, goes where it should, and opens.
  void send_frame() {
    std::uint8_t sealed[SHARD_SIZE + LUND_SEAL_OVERHEAD];
    lund_rv_endpoint to;
    for (int i = 0; i < SHARDS_A_FRAME; ++i) {
      const peer::bytes shard = numbered(LUND_PKT_VIDEO_SHARD, shards_sent++, SHARD_SIZE);
      const std::size_t size = lund_host_seal(rig.host, client.session.session_id, shard.data(),
                                              shard.size(), sealed, sizeof sealed, &to);
      ASSERT_EQ(size, sizeof sealed);
      ASSERT_TRUE(lund_rv_endpoint_equal(to, HOME));
      const auto opened = client.open(peer::bytes(sealed, sealed + size));
      ASSERT_TRUE(opened.has_value());
      ASSERT_EQ(load_le<std::uint32_t>(opened->data() + LUND_HEADER_SIZE), shards_sent - 1);
    }
  }
  void receive_records() {
    for (int i = 0; i < RECORDS_A_FRAME; ++i) {
      const peer::bytes record = numbered(LUND_PKT_INPUT, records_sent++, 40);
      ASSERT_EQ(rig.receive(client.seal(record), HOME), LUND_RX_OPENED);
      ASSERT_EQ(rig.rx.session_id, client.session.session_id);
      ASSERT_EQ(load_le<std::uint32_t>(rig.out.data() + LUND_HEADER_SIZE), records_sent - 1);
    }
  }

  host_rig rig{clients_of({2, 3})};
  engine_peer client = rig.client(2);
  flood weather;
  std::uint32_t shards_sent = 0;
  std::uint32_t records_sent = 0;
};

}  // namespace

TEST_F(HostFlood, TwentyThousandInitsASecondLoseNoRecordOfAStream) {
  receive_records();
  const lund_crypto_slot* slot = rig.host->slots;
  ASSERT_EQ(slot->state, SLOT_BOUND);
  rig.events();
  rig.lines.clear();
  rig.sent.clear();

  std::size_t floods = 0;
  std::size_t resent = 0;
  std::size_t rejects = 0;
  std::size_t unknown_devices = 0;
  for (std::uint64_t elapsed = 0, frame = 0; elapsed < SECONDS * SECOND_US;
       elapsed += FLOOD_EVERY_US) {
    ASSERT_EQ(rig.receive(weather.next(), weather.sender()), LUND_RX_NONE);
    ++floods;
    for (const sent_datagram& sent : rig.sent) {
      if (sent.data.size() == LUND_HS_REJECT_SIZE)
        ++rejects;
      else
        ++resent;
      EXPECT_LT(sent.data.size(), LUND_HS_INIT_SIZE);
    }
    rig.sent.clear();
    if (elapsed * FRAMES_A_SECOND >= frame * SECOND_US) {
      ++frame;
      ASSERT_NO_FATAL_FAILURE(send_frame());
      ASSERT_NO_FATAL_FAILURE(receive_records());
    }
    if (elapsed % TICK_EVERY_US == 0) {
      lund_host_tick(rig.host);
      for (const lund_conn_event& event : rig.events()) {
        ASSERT_EQ(event.type, LUND_EV_UNKNOWN_DEVICE);
        ++unknown_devices;
      }
    }
    virtual_time::advance_us(FLOOD_EVERY_US);
  }

  EXPECT_EQ(floods, 200'000U);
  EXPECT_EQ(shards_sent, SECONDS * FRAMES_A_SECOND * SHARDS_A_FRAME);
  EXPECT_EQ(records_sent, (SECONDS * FRAMES_A_SECOND + 1) * RECORDS_A_FRAME);
  EXPECT_EQ(rig.links(), 1);
  EXPECT_EQ(rig.slots(SLOT_BOUND), 1);
  EXPECT_EQ(rig.slots(SLOT_HALF_OPEN), 0) << "no key set was made for a replay";
  EXPECT_EQ(slot->state, SLOT_BOUND);
  EXPECT_EQ(slot->session.session_id, client.session.session_id);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.peer_of(client.session.session_id), HOME));
  // The flood was felt, and what it draws from the host is bounded.
  EXPECT_GT(resent, 10'000U) << "replays of answered messages";
  EXPECT_GT(rejects, 0U);
  EXPECT_LE(rejects, 10 + 5 * SECONDS);
  EXPECT_GT(unknown_devices, 0U);
  EXPECT_LE(unknown_devices, 3 + SECONDS);
  EXPECT_LE(rig.lines.size(), 3 + SECONDS);
}
