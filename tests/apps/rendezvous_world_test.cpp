// Host engine, client engine and server together in virtual time, host and client each behind a
// router of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>

#include "apps/rendezvous/server.h"
#include "tests/support/engine_pair.h"
#include "tests/support/sim_nat.h"

namespace {

constexpr char KEY[] = "shared key";
constexpr char SERVER_NAME[] = "relay.example.org";
const lund_rv_endpoint SERVER = endpoint("203.0.113.50:9877");
const lund_rv_endpoint HOST_PUBLIC = endpoint("198.51.100.107");
const lund_rv_endpoint CLIENT_PUBLIC = endpoint("192.0.2.120");

struct WorldOptions {
  NatKind host_nat = NatKind::PORT_RESTRICTED;
  NatKind client_nat = NatKind::PORT_RESTRICTED;
  std::uint32_t path_mode = LUND_PATHS_ALL;
  bool lan = false;           // both sit on one, which is down at first
  bool paired = true;         // otherwise the client knows the host by its key code alone
  std::string password = {};  // of the host
};

// The pair's LAN link is down; on its WAN the two stand behind their routers with a server between.
class World {
 public:
  explicit World(const WorldOptions& options)
      : host_nat(options.host_nat, EnginePair::HOST_WAN, HOST_PUBLIC),
        client_nat(options.client_nat, EnginePair::CLIENT_WAN, CLIENT_PUBLIC),
        engines_(pair_options(options)) {
    net().link(engines_.lan).down = true;
    net().set_default_network(engines_.wan);
    net().set_rewrite([this](NetSim::Datagram& datagram) {
      return is_lan(datagram) || (host_nat.leave(datagram) && client_nat.leave(datagram));
    });
    net().set_arrival([this](NetSim::Datagram& datagram) {
      return is_lan(datagram) || (host_nat.arrive(datagram) && client_nat.arrive(datagram));
    });
    node_ = net().add_node(
        [this](const NetSim::Datagram& datagram) {
          if (server) server->receive(datagram.bytes.data(), datagram.bytes.size(), datagram.from);
        },
        [this] {
          if (server) server->tick();
          return std::uint64_t{100'000};
        });
    net().attach(node_, engines_.wan, SERVER);
    start_server();
  }

  void start_server() {
    server = std::make_unique<RendezvousServer>(
        reinterpret_cast<const std::uint8_t*>(KEY), std::strlen(KEY), RendezvousLimits{},
        [this](const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size) {
          net().send(node_, to, bytes, size);
          return true;
        });
  }
  void move_server(const lund_rv_endpoint& address) {
    net().attach(node_, engines_.wan, address);
    lund_host_server_resolved(engines_.host, SERVER_NAME, SERVER.port, &address);
    lund_client_server_resolved(engines_.client, SERVER_NAME, SERVER.port, &address);
  }

  // The host has registered, the client connects, and the first seconds have passed.
  bool settle() {
    net().run_for_ms(500);
    if (!engines_.connect(10'000)) return false;
    net().run_for_ms(5'000);
    return true;
  }
  std::int32_t client_path() { return engines_.status().path; }
  std::int32_t host_path() {
    lund_session_info info;
    if (lund_host_session_info_get(engines_.host, engines_.status().session_id, &info) != 0)
      return 0;
    return info.path;
  }
  // Both sides' packets arrive, from now on, within so long.
  bool talking_again(std::uint64_t limit_ms) {
    const std::size_t at_client = engines_.client_packets.size();
    const std::size_t at_host = engines_.host_packets.size();
    return net().run_until(
        [&] {
          return engines_.client_packets.size() > at_client + 5 &&
                 engines_.host_packets.size() > at_host + 5;
        },
        limit_ms);
  }
  bool silent_for_ms(std::uint64_t ms) {
    const std::size_t at_client = engines_.client_packets.size();
    net().run_for_ms(ms);
    return engines_.client_packets.size() == at_client;
  }
  EnginePair& engines() { return engines_; }
  NetSim& net() { return engines_.net; }

  std::unique_ptr<RendezvousServer> server;
  SimNat host_nat, client_nat;

 private:
  static bool is_lan(const NetSim::Datagram& datagram) {
    return lund_addr_path_class(datagram.to) == LUND_PATH_LAN;
  }
  EnginePair::Options pair_options(const WorldOptions& options) {
    EnginePair::Options out;
    out.paired = options.paired;
    if (!options.password.empty())
      out.password_blob = quick_password_blob(options.password.c_str());
    lund_relay_server relay;
    lund_relay_server_set(&relay, SERVER_NAME, SERVER.port,
                          reinterpret_cast<const std::uint8_t*>(KEY), std::strlen(KEY));
    relay.endpoint = SERVER;
    const bool lan = options.lan;
    out.host = [this, relay, lan](lund_host_config& config) {
      lund_relay_config_add(&config.relays, &relay);
      config.lan_count = lan ? 1 : 0;
      config.lan_endpoints[0] = EnginePair::HOST_LAN;
      lund_key_code(code_, config.identity.public_key);
    };
    const bool paired = options.paired;
    const std::uint32_t path_mode = options.path_mode;
    out.client = [this, relay, lan, paired, path_mode](lund_client_config& config) {
      lund_relay_config_add(&config.relays, &relay);
      config.lan_count = lan ? 1 : 0;
      config.lan_endpoints[0] = EnginePair::CLIENT_LAN;
      config.path_mode = path_mode;
      if (!paired) config.host_code = code_;
    };
    return out;
  }

  char code_[LUND_KEY_CODE_TEXT] = {};
  EnginePair engines_;
  int node_ = 0;
};

using NatPair = std::tuple<NatKind, NatKind>;

class RendezvousNat : public testing::TestWithParam<NatPair> {
 protected:
  // A mapping that nobody foresees meets a filter that asks for its port.
  static bool can_punch(NatKind a, NatKind b) {
    const auto asks_for_port = [](NatKind kind) {
      return kind == NatKind::PORT_RESTRICTED || kind == NatKind::SYMMETRIC;
    };
    return !(a == NatKind::SYMMETRIC && asks_for_port(b)) &&
           !(b == NatKind::SYMMETRIC && asks_for_port(a));
  }
};

TEST_P(RendezvousNat, PunchedWhereThatWorksAndRelayedWhereItDoesNot) {
  const auto [host_nat, client_nat] = GetParam();
  World world({.host_nat = host_nat, .client_nat = client_nat});
  ASSERT_TRUE(world.settle());
  world.engines().start_traffic(20'000);
  ASSERT_TRUE(world.talking_again(2'000));
  if (can_punch(host_nat, client_nat)) {
    EXPECT_EQ(world.client_path(), LUND_PATH_P2P);
    // The host doesn't know the port that a symmetric router made for it: it takes the client for
    // one that came by itself.
    EXPECT_EQ(world.host_path(),
              client_nat == NatKind::SYMMETRIC ? LUND_PATH_DIRECT : LUND_PATH_P2P);
  } else {
    EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
    EXPECT_EQ(world.host_path(), LUND_PATH_RELAY);
  }
  // It stays so, for long after the mappings' first minutes.
  world.net().run_for_ms(300'000);
  ASSERT_TRUE(world.talking_again(2'000));
  EXPECT_EQ(world.client_path(), can_punch(host_nat, client_nat) ? LUND_PATH_P2P : LUND_PATH_RELAY);
}

constexpr NatKind KINDS[] = {NatKind::NONE, NatKind::FULL_CONE, NatKind::ADDRESS_RESTRICTED,
                             NatKind::PORT_RESTRICTED, NatKind::SYMMETRIC};
INSTANTIATE_TEST_SUITE_P(HostAndClient, RendezvousNat,
                         testing::Combine(testing::ValuesIn(KINDS), testing::ValuesIn(KINDS)),
                         [](const auto& kinds) {
                           return std::string(nat_kind_name(std::get<0>(kinds.param))) + "And" +
                                  nat_kind_name(std::get<1>(kinds.param));
                         });

TEST(RendezvousWorld, WithoutRelayAClientStillPunches) {
  World world({.path_mode = LUND_PATHS_DIRECT});
  ASSERT_TRUE(world.settle());
  EXPECT_EQ(world.client_path(), LUND_PATH_P2P);
  EXPECT_EQ(world.server->statistics().relayed, 0u);
}

void expect_a_session_by_relay(World& world) {
  EXPECT_TRUE(world.net().run_until([&] { return world.host_path() == LUND_PATH_RELAY; }, 5'000));
  EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
}

TEST(RendezvousWorld, ADevicePairsByKeyCodeAndPinThroughTheRelayAlone) {
  World world({.path_mode = LUND_PATHS_RELAY, .paired = false});
  world.net().run_for_ms(500);
  ASSERT_TRUE(world.engines().pair(world.engines().pin().c_str()));
  expect_a_session_by_relay(world);
}

TEST(RendezvousWorld, ADevicePairsByKeyCodeAndPasswordThroughTheRelayAlone) {
  World world({.path_mode = LUND_PATHS_RELAY, .paired = false, .password = "correct horse"});
  world.net().run_for_ms(500);
  ASSERT_TRUE(world.engines().pair("correct horse"));
  expect_a_session_by_relay(world);
}

TEST(RendezvousWorld, TheFirstSessionByRelayComesWithinAFewRoundTrips) {
  World world({.host_nat = NatKind::SYMMETRIC, .client_nat = NatKind::SYMMETRIC});
  world.net().run_for_ms(500);
  EXPECT_TRUE(world.engines().connect(500));
}

TEST(RendezvousWorld, ALanThatAppearsInTheFirstSecondsTakesTheSessionAtOnce) {
  World world({.host_nat = NatKind::SYMMETRIC, .client_nat = NatKind::SYMMETRIC, .lan = true});
  world.net().run_for_ms(500);
  ASSERT_TRUE(world.engines().connect());
  world.net().run_for_ms(500);
  ASSERT_EQ(world.client_path(), LUND_PATH_RELAY);
  world.net().link(world.engines().lan).down = false;
  EXPECT_TRUE(world.net().run_until([&] { return world.client_path() == LUND_PATH_LAN; }, 300));
  EXPECT_TRUE(world.net().run_until([&] { return world.host_path() == LUND_PATH_LAN; }, 50));
}

TEST(RendezvousWorld, ALanThatAppearsLaterTakesItAfterThreeSteadySeconds) {
  World world({.host_nat = NatKind::SYMMETRIC, .client_nat = NatKind::SYMMETRIC, .lan = true});
  ASSERT_TRUE(world.settle());
  ASSERT_EQ(world.client_path(), LUND_PATH_RELAY);
  world.net().link(world.engines().lan).down = false;
  world.engines().add_lan();
  world.net().run_for_ms(2'900);
  EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
  EXPECT_TRUE(world.net().run_until([&] { return world.client_path() == LUND_PATH_LAN; }, 1'000));
  EXPECT_TRUE(world.net().run_until([&] { return world.host_path() == LUND_PATH_LAN; }, 50));
}

TEST(RendezvousWorld, APunchedSessionFollowsANewMappingWhereTheHostsRouterLetsItIn) {
  World world({.host_nat = NatKind::FULL_CONE});
  ASSERT_TRUE(world.settle());
  world.engines().start_traffic(20'000);
  ASSERT_TRUE(world.talking_again(1'000));
  world.client_nat.rebind();
  EXPECT_TRUE(world.talking_again(500));
  EXPECT_EQ(world.client_path(), LUND_PATH_P2P);
}

TEST(RendezvousWorld, APunchedSessionGoesOnByRelayWhereTheNewMappingIsNotLetIn) {
  World world({});
  ASSERT_TRUE(world.settle());
  ASSERT_EQ(world.client_path(), LUND_PATH_P2P);
  world.engines().start_traffic(20'000);
  ASSERT_TRUE(world.talking_again(1'000));
  world.client_nat.rebind();
  EXPECT_TRUE(world.talking_again(17'000));  // 15 s to the next BIND, and the silence before
  EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
}

// A session by relay, talking.
class RendezvousWorldRelayed : public testing::Test {
 protected:
  RendezvousWorldRelayed() {
    EXPECT_TRUE(world.settle());
    EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
    session = world.engines().status().session_id;
    world.engines().start_traffic(20'000);
    EXPECT_TRUE(world.talking_again(1'000));
  }
  // It goes on within so long, as the same session and by relay still.
  void expect_to_go_on(std::uint64_t limit_ms) {
    EXPECT_TRUE(world.talking_again(limit_ms));
    EXPECT_EQ(world.engines().status().session_id, session);
    EXPECT_EQ(world.client_path(), LUND_PATH_RELAY);
    EXPECT_EQ(world.host_path(), LUND_PATH_RELAY);
  }

  World world{{.host_nat = NatKind::SYMMETRIC, .client_nat = NatKind::SYMMETRIC}};
  std::uint32_t session = 0;
};

TEST_F(RendezvousWorldRelayed, AServerKilledAndStartedAgainIsFoundAgain) {
  world.server.reset();
  EXPECT_TRUE(world.silent_for_ms(3'000));
  world.start_server();
  // The host's next refresh within 20 s, the client's look-up up to 3 s behind it.
  expect_to_go_on(25'000);
  EXPECT_EQ(world.server->statistics().hosts, 1u);
  EXPECT_EQ(world.server->statistics().allocations, 1u);
}

TEST_F(RendezvousWorldRelayed, AServerThatMovedIsFollowed) {
  const lund_rv_endpoint there = endpoint("203.0.113.60:9877");
  world.move_server(there);
  expect_to_go_on(5'000);
  EXPECT_TRUE(lund_rv_endpoint_equal(world.engines().status().addr, there));
}

TEST_F(RendezvousWorldRelayed, AClientsNewMappingBindsAgainWithinFifteenSeconds) {
  world.client_nat.rebind();
  expect_to_go_on(16'000);
}

TEST_F(RendezvousWorldRelayed, AHostsNewMappingBindsAgainWithinFifteenSeconds) {
  world.host_nat.rebind();
  expect_to_go_on(16'000);
}

TEST_F(RendezvousWorldRelayed, AClientAtANewAddressLooksUpAnewWithinFifteenSeconds) {
  world.client_nat.rebind_to(endpoint("192.0.2.121"));
  expect_to_go_on(16'000);
}

TEST_F(RendezvousWorldRelayed, AHostAtANewAddressBindsOnceItHasRegisteredThere) {
  world.host_nat.rebind_to(endpoint("198.51.100.108"));
  // A refresh within 20 s, then a BIND within 15 s.
  expect_to_go_on(35'000);
}

TEST_F(RendezvousWorldRelayed, ASecondClientWaitsUntilTheFirstHasGone) {
  lund_client_config config;
  lund_keypair_generate(&config.identity);
  config.has_host_key = 1;
  std::memcpy(config.host_key, world.engines().host_keypair.public_key, LUND_KEY_SIZE);
  lund_relay_server relay;
  lund_relay_server_set(&relay, SERVER_NAME, SERVER.port,
                        reinterpret_cast<const std::uint8_t*>(KEY), std::strlen(KEY));
  relay.endpoint = SERVER;
  lund_relay_config_add(&config.relays, &relay);
  struct Second {
    NetSim* net;
    int node;
    std::vector<std::string> log;
  } second{&world.net(), 0, {}};
  config.user = &second;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
    const auto* self = static_cast<Second*>(user);
    self->net->send(self->node, *to, bytes, size);
  };
  config.log = [](void* user, const char* text) {
    static_cast<Second*>(user)->log.emplace_back(text);
  };
  lund_client* client = lund_client_create(&config);
  second.node = world.net().add_node(
      [client](const NetSim::Datagram& datagram) {
        std::uint8_t out[2048];
        lund_client_receive(client, datagram.bytes.data(), datagram.bytes.size(), datagram.from,
                            out, sizeof out, nullptr, nullptr);
      },
      [client] { return lund_client_tick(client); });
  world.net().attach(second.node, world.engines().wan, endpoint("192.0.2.200:5"));
  lund_client_connect(client);
  world.net().run_for_ms(10'000);
  EXPECT_TRUE(std::any_of(second.log.begin(), second.log.end(), [](const std::string& line) {
    return line.find("lookup on relay.example.org:9877 failed (status 0)") != line.npos;
  }));
  EXPECT_GE(world.server->statistics().busy, 3u);
  expect_to_go_on(1'000);

  world.engines().stop_traffic();
  const std::uint64_t notified = world.server->statistics().notifications;
  lund_client_session_close(world.engines().client, 0);
  world.net().run_for_ms(8'000);
  EXPECT_GT(world.server->statistics().notifications, notified);
  lund_client_destroy(client);
}

}  // namespace
