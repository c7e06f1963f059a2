#include "connection/conn.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/engine_peer.h"
#include "tests/support/virtual_time.h"

namespace {

struct base_rig {
  std::unique_ptr<lund_conn_base> base = std::make_unique<lund_conn_base>();
  std::vector<std::string> lines;
  std::vector<lund_rv_endpoint> sent_to;
  peer::bytes sent;

  lund_conn_config config() {
    lund_conn_config config;
    config.user = this;
    config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* data,
                     std::size_t size) {
      static_cast<base_rig*>(user)->sent_to.push_back(*to);
      static_cast<base_rig*>(user)->sent.assign(data, data + size);
    };
    config.log = [](void* user, const char* text) {
      static_cast<base_rig*>(user)->lines.emplace_back(text);
    };
    return config;
  }
};

// Written past the checks of lund_relay_config_add, as a caller's table may be.
void add_relay(lund_relay_config* relays, const char* host, std::uint16_t port = 9877) {
  lund_relay_server& server = relays->servers[relays->count++];
  server = {};
  std::snprintf(server.host, sizeof server.host, "%s", host);
  server.port = port;
  server.key_size = 6;
  std::memcpy(server.key, "secret", 6);
}

std::string server_text(const base_rig& rig, int index) {
  char text[300];
  return conn_server_str(rig.base.get(), index, text, sizeof text);
}

}  // namespace

TEST(ConnBase, SixtyFivePushesLoseOnlyTheFirst) {
  base_rig rig;
  for (std::uint32_t i = 1; i <= 65; ++i)
    conn_ev_push(rig.base.get(), LUND_EV_REKEYED)->session_id = i;
  lund_conn_event event;
  for (std::uint32_t i = 2; i <= 65; ++i) {
    ASSERT_EQ(conn_ev_pop(rig.base.get(), &event), 1);
    EXPECT_EQ(event.session_id, i);
  }
  EXPECT_EQ(conn_ev_pop(rig.base.get(), &event), 0);
}

TEST(ConnBase, PushedEventIsZeroedAndNamesNoServer) {
  base_rig rig;
  lund_conn_event event;
  for (int i = 0; i < LUND_EVENTS; ++i) {
    lund_conn_event* used = conn_ev_push(rig.base.get(), LUND_EV_SERVER_UP);
    used->server = 3;
    used->rtt_us = 7;
    conn_ev_pop(rig.base.get(), &event);
  }
  conn_ev_push(rig.base.get(), LUND_EV_PIN_CHANGED);
  ASSERT_EQ(conn_ev_pop(rig.base.get(), &event), 1);
  EXPECT_EQ(event.type, LUND_EV_PIN_CHANGED);
  EXPECT_EQ(event.server, -1);
  EXPECT_EQ(event.rtt_us, 0U);
}

TEST(ConnBase, UnresolvedServerMatchesNoAddressNotEvenAnAllZeroOne) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "relay.example");
  conn_base_init(rig.base.get(), &config);
  ASSERT_EQ(rig.base->server_count, 1);
  EXPECT_EQ(conn_server_index(rig.base.get(), {}), -1);
  EXPECT_EQ(conn_server_index(rig.base.get(), peer::at("198.51.100.1:9877")), -1);
}

TEST(ConnBase, FailedResolutionKeepsTheLastAddressAndLogsOnce) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "relay.example");
  conn_base_init(rig.base.get(), &config);
  const lund_rv_endpoint address = peer::at("198.51.100.1:1");
  EXPECT_EQ(conn_server_resolved(rig.base.get(), "RELAY.example", 9877, &address), 1U);
  EXPECT_EQ(conn_server_resolved(rig.base.get(), "relay.example", 9877, &address), 0U);
  EXPECT_EQ(conn_server_resolved(rig.base.get(), "relay.example", 9877, nullptr), 0U);
  EXPECT_EQ(conn_server_resolved(rig.base.get(), "relay.example", 9877, nullptr), 0U);
  EXPECT_EQ(conn_server_index(rig.base.get(), peer::at("198.51.100.1:9877")), 0);
  EXPECT_EQ(rig.lines,
            (std::vector<std::string>{"server relay.example:9877 is at 198.51.100.1:9877",
                                      "server relay.example:9877: name did not resolve"}));
}

TEST(ConnBase, FailureAfterASuccessIsLoggedAgain) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "relay.example");
  conn_base_init(rig.base.get(), &config);
  const lund_rv_endpoint address = peer::at("198.51.100.1:9877");
  conn_server_resolved(rig.base.get(), "relay.example", 9877, nullptr);
  conn_server_resolved(rig.base.get(), "relay.example", 9877, &address);
  conn_server_resolved(rig.base.get(), "relay.example", 9877, nullptr);
  EXPECT_EQ(rig.lines.size(), 3U);
}

TEST(ConnBase, ResolutionReachesEveryEntryOfThatNameAndPort) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "relay.example", 1000);
  add_relay(&config.relays, "relay.example", 2000);
  add_relay(&config.relays, "other.example", 1000);
  add_relay(&config.relays, "Relay.Example", 1000);
  conn_base_init(rig.base.get(), &config);
  const lund_rv_endpoint address = peer::at("198.51.100.1:5");
  EXPECT_EQ(conn_server_resolved(rig.base.get(), "relay.example", 1000, &address), 0b1001U);
}

TEST(ConnBase, InvalidRelayLeavesNoHole) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "first.example");
  add_relay(&config.relays, "10.0.0.256");
  add_relay(&config.relays, "third.example");
  conn_base_init(rig.base.get(), &config);
  ASSERT_EQ(rig.base->server_count, 2);
  EXPECT_EQ(server_text(rig, 0), "first.example:9877");
  EXPECT_EQ(server_text(rig, 1), "third.example:9877");
}

TEST(ConnBase, LiteralRelayHasItsOwnAddressAndANamedOneTheGivenAddress) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "198.51.100.9", 5);
  config.relays.servers[0].endpoint = peer::at("203.0.113.1:9");
  add_relay(&config.relays, "relay.example", 6);
  config.relays.servers[1].endpoint = peer::at("203.0.113.2:9");
  add_relay(&config.relays, "2001:db8::1", 7);
  conn_base_init(rig.base.get(), &config);
  EXPECT_EQ(conn_server_index(rig.base.get(), peer::at("198.51.100.9:5")), 0);
  EXPECT_EQ(conn_server_index(rig.base.get(), peer::at("203.0.113.2:6")), 1);
  EXPECT_EQ(conn_server_index(rig.base.get(), peer::at("[2001:db8::1]:7")), 2);
  EXPECT_EQ(server_text(rig, 2), "[2001:db8::1]:7");
}

TEST(ConnBase, NameIsCleanedAndLanCountClamped) {
  base_rig rig;
  lund_conn_config config = rig.config();
  config.name = "a\nb";
  config.lan_count = 9;
  config.lan_endpoints[3] = peer::at("10.0.0.4:1");
  conn_base_init(rig.base.get(), &config);
  EXPECT_STREQ(rig.base->name, "a b");
  EXPECT_EQ(rig.base->lan_count, 4);
  EXPECT_TRUE(lund_rv_endpoint_equal(rig.base->lan_endpoints[3], peer::at("10.0.0.4:1")));
  config.name = nullptr;
  config.lan_count = -1;
  conn_base_init(rig.base.get(), &config);
  EXPECT_STREQ(rig.base->name, "");
  EXPECT_EQ(rig.base->lan_count, 0);
}

TEST(ConnBase, TwoTimestampsInOneClockTickDifferByOne) {
  virtual_time::reset();
  const std::uint64_t first = conn_hs_timestamp();
  EXPECT_EQ(conn_hs_timestamp(), first + 1);
}

TEST(ConnBase, TimestampFollowsTheClockUpAndNotDown) {
  virtual_time::reset();
  const std::uint64_t first = conn_hs_timestamp();
  virtual_time::set_wall_us(first + 1'000'000);
  EXPECT_EQ(conn_hs_timestamp(), first + 1'000'000);
  virtual_time::set_wall_us(5);
  EXPECT_EQ(conn_hs_timestamp(), first + 1'000'001);
}

TEST(ConnBase, LogLineIsCutAndNeedsACallback) {
  base_rig rig;
  conn_log(rig.base.get(), "nobody listens");
  const lund_conn_config config = rig.config();
  conn_base_init(rig.base.get(), &config);
  conn_log(rig.base.get(), "%s", std::string(600, 'x').c_str());
  ASSERT_EQ(rig.lines.size(), 1U);
  EXPECT_EQ(rig.lines[0], std::string(511, 'x'));
}

TEST(ConnBase, NothingIsSentToNowhereOrWithoutBytes) {
  base_rig rig;
  const lund_conn_config config = rig.config();
  conn_base_init(rig.base.get(), &config);
  const std::uint8_t byte = 1;
  conn_send(rig.base.get(), {}, &byte, 1);
  conn_send(rig.base.get(), peer::at("10.0.0.1:1"), &byte, 0);
  EXPECT_TRUE(rig.sent_to.empty());
  conn_send(rig.base.get(), peer::at("10.0.0.1:1"), &byte, 1);
  EXPECT_EQ(rig.sent_to.size(), 1U);
}

TEST(ConnBase, ServerMessageCarriesTheTagOfItsKeyAndGoesOnlyToAResolvedServer) {
  base_rig rig;
  lund_conn_config config = rig.config();
  add_relay(&config.relays, "198.51.100.9");
  add_relay(&config.relays, "relay.example");
  conn_base_init(rig.base.get(), &config);
  lund_rv_message message;
  message.type = LUND_RV_BIND;
  message.allocation = 77;
  conn_send_server(rig.base.get(), 1, message);
  conn_send_server(rig.base.get(), 2, message);
  conn_send_server(rig.base.get(), -1, message);
  EXPECT_TRUE(rig.sent_to.empty());
  conn_send_server(rig.base.get(), 0, message);
  ASSERT_EQ(rig.sent_to.size(), 1U);
  std::uint8_t net_key[32];
  lund_rv_net_key(net_key, reinterpret_cast<const std::uint8_t*>("secret"), 6);
  lund_rv_message got;
  ASSERT_EQ(lund_rv_decode(rig.sent.data(), rig.sent.size(), net_key, &got), 0);
  EXPECT_EQ(got.allocation, 77U);
}

TEST(ConnBase, KeylessRendezvousMessageReportsItsSize) {
  base_rig rig;
  const lund_conn_config config = rig.config();
  conn_base_init(rig.base.get(), &config);
  lund_rv_message message;
  message.type = LUND_RV_PUNCH;
  const std::size_t size = conn_send_rv(rig.base.get(), peer::at("10.0.0.1:1"), message, nullptr);
  EXPECT_EQ(size, rig.sent.size());
  EXPECT_GT(rig.sent.size(), 8U);
}

TEST(ConnBase, ProbeAndRekeyLayouts) {
  std::uint8_t probe[LUND_PROBE_SIZE];
  conn_make_probe(probe, LUND_PKT_PATH_PROBE, 1, 0x01020304, 0x1122334455667788);
  const peer::bytes wanted_probe{0x50, 1, 91,   1,    0,    0,    0,    0,    4,    3,
                                 2,    1, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
  EXPECT_EQ(peer::bytes(probe, probe + sizeof probe), wanted_probe);
  std::uint8_t rekey[LUND_REKEY_SIZE];
  conn_make_rekey(rekey, LUND_PKT_REKEY_ACK, 0x0A0B0C0D);
  const peer::bytes wanted_rekey{0x50, 1, 94, 0, 0, 0, 0, 0, 0x0D, 0x0C, 0x0B, 0x0A};
  EXPECT_EQ(peer::bytes(rekey, rekey + sizeof rekey), wanted_rekey);
}

TEST(ConnBase, EqualWithoutRegardToAsciiCase) {
  EXPECT_TRUE(conn_strieq("Relay.EXAMPLE", "relay.example"));
  EXPECT_TRUE(conn_strieq("", ""));
  EXPECT_FALSE(conn_strieq("relay", "relays"));
  EXPECT_FALSE(conn_strieq("relays", "relay"));
  EXPECT_FALSE(conn_strieq("a[", "a{"));
}
