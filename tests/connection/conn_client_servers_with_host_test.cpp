// Both engines and a rendezvous server between them, on a network that lets through what each test
// says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "connection/conn_client_internal.h"
#include "tests/support/engine_pair.h"
#include "tests/support/server_peer.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = NetSim::Bytes;

namespace {

const lund_rv_endpoint CLIENT_LAN = EnginePair::CLIENT_LAN, HOST_LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint CLIENT_WAN = EnginePair::CLIENT_WAN, HOST_WAN = EnginePair::HOST_WAN;
const server_peer SERVER("203.0.113.50", "203.0.113.50:9877", 0xA1);

bool is(const lund_rv_endpoint& a, const lund_rv_endpoint& b) {
  return lund_rv_endpoint_equal(a, b);
}

// One host, one client, one allocation at a time, for whoever asks with the key.
class Server {
 public:
  explicit Server(NetSim& net) : net_(net) {}

  void take(const NetSim::Datagram& datagram) {
    if (!up) return;
    const auto message = SERVER.read(datagram.bytes);
    if (!message) return forward(datagram);
    switch (message->type) {
      case LUND_RV_REGISTER:
        return take_register(datagram.from, *message);
      case LUND_RV_LOOKUP:
        return take_lookup(datagram.from, *message);
      case LUND_RV_BIND:
        return take_bind(datagram.from, *message);
      default:
        return;
    }
  }
  void restart() {
    registered_ = {};
    allocation_ = {};
    bound_[0] = bound_[1] = {};
  }

  int node = -1;
  bool up = true;
  bool forwards = true;
  std::uint32_t allocations = 0;  // given so far

 private:
  void send(const lund_rv_endpoint& to, const Bytes& bytes) {
    net_.send(node, to, bytes.data(), bytes.size());
  }
  void take_register(const lund_rv_endpoint& from, const lund_rv_message& message) {
    if (std::all_of(message.token, message.token + 16, [](auto byte) { return byte == 0; }))
      return send(from, SERVER.challenge());
    if (!SERVER.accepts(message)) return;
    registered_ = message;
    host_ = from;
    send(from, SERVER.registered(from));
  }
  void take_lookup(const lund_rv_endpoint& from, const lund_rv_message& message) {
    lund_rv_message answer = server_peer::of_type(LUND_RV_LOOKUP_RESULT);
    answer.nonce = message.nonce;
    std::uint8_t id[LUND_KEY_ID_SIZE];
    lund_key_id(id, registered_.key);
    if (registered_.type == 0 || std::memcmp(id, message.target, message.target_size) != 0) {
      answer.status = 1;
      return send(from, SERVER.say(answer));
    }
    if (allocation_.allocation == 0) {
      allocation_ = server_peer::notification(from, 0x1100 * ++allocations + 1);
      allocation_.lan_count = message.lan_count;
      std::copy_n(message.lan, message.lan_count, allocation_.lan);
      allocation_.token[0] = static_cast<std::uint8_t>(allocations);
      allocation_.punch_token[0] = static_cast<std::uint8_t>(allocations);
    }
    send(host_, SERVER.say(allocation_));
    std::memcpy(answer.key, registered_.key, sizeof answer.key);
    std::memcpy(answer.token, allocation_.token, sizeof answer.token);
    std::memcpy(answer.punch_token, allocation_.punch_token, sizeof answer.punch_token);
    answer.allocation = allocation_.allocation;
    answer.peer = host_;
    answer.observed = from;
    answer.lan_count = registered_.lan_count;
    std::copy_n(registered_.lan, registered_.lan_count, answer.lan);
    send(from, SERVER.say(answer));
  }
  void take_bind(const lund_rv_endpoint& from, const lund_rv_message& message) {
    const bool known = message.allocation == allocation_.allocation && message.allocation != 0 &&
                       std::memcmp(message.token, allocation_.token, 16) == 0;
    if (known) bound_[message.side] = from;
    send(from, SERVER.bound(message.allocation, known ? 0 : 1));
  }
  void forward(const NetSim::Datagram& datagram) {
    if (!forwards || bound_[0].family == 0 || bound_[1].family == 0) return;
    if (is(datagram.from, bound_[0])) send(bound_[1], datagram.bytes);
    if (is(datagram.from, bound_[1])) send(bound_[0], datagram.bytes);
  }

  NetSim& net_;
  lund_rv_message registered_, allocation_;  // type 0: none
  lund_rv_endpoint host_;
  lund_rv_endpoint bound_[2];  // by side
};

// The host is registered when a test begins. What goes between the two directly passes only where
// the test has opened a way; with the server both can always speak.
struct ServedPair : EnginePair {
  explicit ServedPair(Options options = {}) : EnginePair(served(std::move(options))), server(net) {
    server.node = net.add_node([this](const NetSim::Datagram& d) { server.take(d); }, nullptr);
    net.attach(server.node, wan, SERVER.address);
    net.set_rewrite([this](const NetSim::Datagram& d) { return passes(d); });
    net.run_for_ms(200);
    EXPECT_THAT(host_events(LUND_EV_SERVER_UP), SizeIs(1));
  }
  static Options served(Options options) {
    const auto client = options.client;
    options.client = [client](lund_client_config& config) {
      config.relays = peer::relays_of({SERVER});
      config.lan_count = 1;
      config.lan_endpoints[0] = CLIENT_LAN;
      client(config);
    };
    options.host = [](lund_host_config& config) {
      config.relays = peer::relays_of({SERVER});
      config.lan_count = 1;
      config.lan_endpoints[0] = HOST_LAN;
    };
    return options;
  }

  Server server;
  bool lan_open = false;
  bool wan_open = false;
  bool wan_nat = false;  // two NATs: who hasn't sent to an address gets nothing from it

  std::uint64_t ms_until_on(std::int32_t path_class, std::uint64_t limit_ms) {
    const std::uint64_t start = lund_now_us();
    net.run_until([&] { return status().path == path_class; }, limit_ms);
    return (lund_now_us() - start) / 1000;
  }
  std::int32_t host_path() {
    lund_session_info info;
    return lund_host_session_info_get(host, status().session_id, &info) == 0 ? info.path : 0;
  }
  bool logged(const std::string& part) const { return client_logged(part); }

 private:
  bool passes(const NetSim::Datagram& d) {
    if (is(d.to, SERVER.address) || is(d.from, SERVER.address)) return true;
    if (is(d.to, HOST_LAN) || is(d.to, CLIENT_LAN)) return lan_open;
    if (!wan_nat) return wan_open;
    (is(d.to, HOST_WAN) ? client_sent_ : host_sent_) = true;
    return is(d.to, HOST_WAN) ? host_sent_ : client_sent_;
  }
  bool client_sent_ = false, host_sent_ = false;
};

}  // namespace

TEST(ClientServersWithHost, WithoutAnyOtherWayTheRelayCarriesTheSession) {
  ServedPair pair;
  ASSERT_TRUE(pair.connect(1'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  pair.net.run_for_ms(100);
  EXPECT_EQ(pair.host_path(), LUND_PATH_RELAY);
  const auto up = pair.client_events(LUND_EV_CLIENT_SESSION_UP);
  ASSERT_THAT(up, SizeIs(1));
  EXPECT_EQ(up[0].server, 0);
  pair.start_traffic(20'000);
  pair.net.run_for_ms(60'000);
  pair.stop_traffic();
  pair.net.run_for_ms(200);
  EXPECT_EQ(pair.client_packets.size(), pair.said_by_host);
  EXPECT_EQ(pair.host_packets.size(), pair.said_by_client);
  EXPECT_THAT(pair.client_events(LUND_EV_PATH_CHANGED), IsEmpty());
  EXPECT_EQ(pair.server.allocations, 1u);
}

TEST(ClientServersWithHost, TwoNatsArePunched) {
  ServedPair pair;
  pair.wan_nat = true;
  pair.server.forwards = false;
  ASSERT_TRUE(pair.connect(1'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_P2P);
  EXPECT_EQ(pair.client_events(LUND_EV_CLIENT_SESSION_UP)[0].server, 0);
}

TEST(ClientServersWithHost, ARelayUpFirstIsLeftAtOnceForTheLanWithinTheFastPhase) {
  ServedPair pair;
  ASSERT_TRUE(pair.connect(1'000));
  ASSERT_EQ(pair.status().path, LUND_PATH_RELAY);
  pair.net.run_for_ms(500);
  pair.lan_open = true;
  EXPECT_LE(pair.ms_until_on(LUND_PATH_LAN, 5'000), 50u + 5 + 50);  // a punch, a probe, a tick
  const auto moved = pair.client_events(LUND_EV_PATH_CHANGED);
  ASSERT_THAT(moved, SizeIs(1));
  EXPECT_EQ(moved[0].server, 0);
  EXPECT_TRUE(pair.logged("path Relay -> LAN 192.168.1.10:9876 (better path, rtt "));
}

TEST(ClientServersWithHost, LaterTheLanMustBeStableForThreeSeconds) {
  ServedPair pair;
  ASSERT_TRUE(pair.connect(1'000));
  pair.net.run_for_ms(2'100);  // past the fast phase; the punching isn't over yet
  ASSERT_EQ(pair.status().path, LUND_PATH_RELAY);
  pair.lan_open = true;
  const std::uint64_t ms = pair.ms_until_on(LUND_PATH_LAN, 10'000);
  EXPECT_GE(ms, 3'000u);
  EXPECT_LE(ms, 3'400u);
  EXPECT_TRUE(pair.logged("(better path is back, rtt "));
}

TEST(ClientServersWithHost, ASilentLanWithNothingAliveIsLeftForTheUnconfirmedRelay) {
  ServedPair pair;
  pair.lan_open = true;
  pair.server.forwards = false;
  ASSERT_TRUE(pair.connect(1'000));
  ASSERT_EQ(pair.status().path, LUND_PATH_LAN);
  pair.net.run_for_ms(20'000);
  pair.lan_open = false;
  EXPECT_LE(pair.ms_until_on(LUND_PATH_RELAY, 10'000), 1'200u + 250);
  EXPECT_EQ(pair.client->paths[pair.client->current_path].last_ack, 0u);
  EXPECT_TRUE(pair.logged("path LAN -> Relay 203.0.113.50:9877 (current path went silent"));

  pair.server.forwards = true;
  pair.net.run_for_ms(2'000);
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  const std::size_t before = pair.host_packets.size();
  EXPECT_TRUE(pair.client_says(1));
  pair.net.run_for_ms(200);
  EXPECT_EQ(pair.host_packets.size(), before + 1);
  EXPECT_EQ(pair.host_path(), LUND_PATH_RELAY);
}

TEST(ClientServersWithHost, RelayModeStaysOnTheRelayBesideAnOpenLan) {
  ServedPair::Options options;
  options.client = [](lund_client_config& config) { config.path_mode = LUND_PATHS_RELAY; };
  ServedPair pair(options);
  pair.lan_open = pair.wan_open = true;
  pair.add_lan();
  ASSERT_TRUE(pair.connect(1'000));
  pair.net.run_for_ms(10'000);
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  EXPECT_EQ(pair.host_path(), LUND_PATH_RELAY);
}

TEST(ClientServersWithHost, DirectModeNeverTakesTheRelay) {
  ServedPair::Options options;
  options.client = [](lund_client_config& config) { config.path_mode = LUND_PATHS_DIRECT; };
  ServedPair pair(options);
  EXPECT_FALSE(pair.connect(10'000));
  pair.wan_open = true;  // too late for the punching, until the client connects anew
  pair.server.restart();
  pair.net.run_for_ms(25'000);  // the host registers again
  lund_client_session_close(pair.client, 0);
  ASSERT_TRUE(pair.connect(2'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_P2P);
}

TEST(ClientServersWithHost, AReconnectAfterTheServersRestartFindsTheHostAgain) {
  ServedPair pair;
  ASSERT_TRUE(pair.connect(1'000));
  lund_client_session_close(pair.client, 0);
  pair.server.restart();
  pair.net.run_for_ms(1'000);
  // The host notices when it refreshes, 20 s after it registered; until then it isn't found.
  ASSERT_TRUE(pair.connect(30'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  // Told by the look-up of the new start, and by the one that the lost allocation started.
  EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_LOOKUP_FAILED), SizeIs(2));
  EXPECT_EQ(pair.server.allocations, 2u);
}

TEST(ClientServersWithHost, ASessionOnTheRelayOutlivesTheServersRestart) {
  ServedPair pair;
  ASSERT_TRUE(pair.connect(1'000));
  const std::uint32_t id = pair.status().session_id;
  pair.net.run_for_ms(5'000);
  pair.server.restart();
  // The next BIND, at most 15 s away, tells the client; the host registers within 20 s.
  pair.net.run_for_ms(30'000);
  EXPECT_EQ(pair.status().session_id, id);
  const std::size_t before = pair.host_packets.size();
  EXPECT_TRUE(pair.client_says(1));
  pair.net.run_for_ms(200);
  EXPECT_EQ(pair.host_packets.size(), before + 1);
  EXPECT_EQ(pair.server.allocations, 2u);
}

TEST(ClientServersWithHost, PairsByCodeThroughTheRelayAndConnects) {
  ServedPair::Options options;
  options.paired = false;
  options.client = [](lund_client_config& config) { config.host_code = "0000-0000"; };
  ServedPair pair(options);
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, pair.host_keypair.public_key);
  std::memcpy(pair.client->code, id, sizeof pair.client->code);
  ASSERT_TRUE(pair.pair(pair.pin().c_str(), 0, 5'000));
  ASSERT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 1'000));
  EXPECT_EQ(pair.status().path, LUND_PATH_RELAY);
  EXPECT_EQ(pair.server.allocations, 1u);
}

TEST(ClientServersWithHost, FindsAndConnectsThroughThirtyPercentLoss) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    ServedPair::Options options;
    options.seed = seed;
    ServedPair pair(options);
    pair.net.link(pair.wan).loss = 0.3;
    pair.net.link(pair.wan).duplicate = 0.1;
    EXPECT_TRUE(pair.connect(20'000)) << seed;
    EXPECT_EQ(pair.status().path, LUND_PATH_RELAY) << seed;
  }
}
