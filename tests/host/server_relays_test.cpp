// Relay servers of a host: what it tells about each, and about how it can be reached.
#include <gmock/gmock.h>

#include "control/keystore.h"
#include "host/server.h"
#include "tests/support/fake_resolver.h"
#include "tests/support/host_world.h"
#include "tests/support/server_peer.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

namespace {

class HostRelaysTest : public HostWorld {
 protected:
  void start_with(std::initializer_list<server_peer> servers) {
    ASSERT_TRUE(keystore::save_relays(peer::relays_of(servers)));
    start_host();
  }
  void hear(const server_peer& server, const peer::bytes& datagram) {
    char from[LUND_ADDR_TEXT];
    lund_addr_format(from, sizeof from, server.address);
    deliver(datagram, from);
  }
  // The server's whole part in a registration; the REGISTERED comes `rtt_ms` after its request.
  void register_with(const server_peer& server, const char* observed, std::uint64_t rtt_ms = 20) {
    host().conn_step();
    hear(server, server.challenge());
    host().conn_step();
    virtual_time::advance_ms(rtt_ms);
    hear(server, server.registered(peer::at(observed)));
  }
  // The state of the only server.
  std::string state() {
    const auto states = host().relay_states();
    EXPECT_EQ(states.size(), 1u);
    return states.empty() ? "" : states[0].second;
  }
  std::string internet() { return host().internet_status().at(0); }

  const server_peer a{"203.0.113.1", "203.0.113.1:9877", 0xA1};
  const server_peer b{"203.0.113.2", "203.0.113.2:4000", 0xB2};
  const server_peer named{"relay.example", "203.0.113.3:9877", 0xC3};
};

}  // namespace

// ---- One server's name and state

TEST_F(HostRelaysTest, AServerIsShownByHostAndPortAnIpv6HostInBrackets) {
  server_peer ipv6 = a;
  std::strcpy(ipv6.relay.host, "2001:db8::1");
  start_with({a, b, named, ipv6});
  EXPECT_THAT(host().relay_states(),
              ElementsAre(Pair("203.0.113.1:9877", "Connecting..."),
                          Pair("203.0.113.2:4000", "Connecting..."),
                          Pair("relay.example:9877", "Looking up the name..."),
                          Pair("[2001:db8::1]:9877", "Connecting...")));
}

TEST_F(HostRelaysTest, AServersNameIsLookedUpAndMayNotBeFound) {
  start_with({named});
  EXPECT_EQ(state(), "Looking up the name...");
  ASSERT_EQ(fake_resolvers().size(), 1u);
  fake_resolvers()[0]->found(0, nullptr);
  EXPECT_EQ(state(), "Name not found");
  fake_resolvers()[0]->found(0, "203.0.113.3");
  EXPECT_EQ(state(), "Connecting...");
  register_with(named, "198.51.100.7:9876");
  EXPECT_EQ(state(), "Registered (20 ms)");
}

TEST_F(HostRelaysTest, AServerThatLeavesThreeRequestsUnansweredDoesNotAnswer) {
  start_with({a});
  std::vector<std::string> states;
  for (int i = 0; i < 4'000 && states.size() < 2; i += 50) {
    host().conn_step();
    if (states.empty() || states.back() != state()) states.push_back(state());
    virtual_time::advance_ms(50);
  }
  EXPECT_THAT(states, ElementsAre("Connecting...", "No answer: offline, blocked, or wrong secret"));
}

TEST_F(HostRelaysTest, ARegistrationShowsItsRoundTripInWholeMilliseconds) {
  start_with({a});
  register_with(a, "198.51.100.7:9876", 7);
  EXPECT_EQ(state(), "Registered (7 ms)");
}

TEST_F(HostRelaysTest, AFullServerIsCalledFullAndAnyOtherErrorByItsNumber) {
  for (const auto& [code, text] :
       std::vector<std::pair<int, const char*>>{{4, "Server full"},
                                                {0, "Refused (error 0)"},
                                                {2, "Refused (error 2)"},
                                                {3, "Refused (error 3)"},
                                                {255, "Refused (error 255)"}}) {
    start_with({a});
    host().conn_step();
    hear(a, a.error(static_cast<std::uint8_t>(code)));
    EXPECT_EQ(state(), text);
    drop_host();
  }
}

// ---- The report

TEST_F(HostRelaysTest, WithoutAServerTheReportSaysSo) {
  start_host();
  EXPECT_THAT(host().internet_status(),
              ElementsAre("Internet: no relay servers (LAN / direct only)"));
  EXPECT_THAT(host().relay_states(), IsEmpty());
}

TEST_F(HostRelaysTest, WithServersButNoRegistrationTheReportSaysSo) {
  start_with({a, named});
  EXPECT_THAT(host().internet_status(),
              ElementsAre("Internet: not registered yet (LAN / direct only)",
                          "Relay 203.0.113.1:9877: Connecting...",
                          "Relay relay.example:9877: Looking up the name..."));
}

TEST_F(HostRelaysTest, OneRegistrationMakesTheHostReachable) {
  start_with({a, b});
  register_with(b, "198.51.100.8:4444", 31);
  EXPECT_THAT(host().internet_status(),
              ElementsAre("Internet: reachable by key code (public 198.51.100.8:4444)",
                          "Relay 203.0.113.1:9877: Connecting...",
                          "Relay 203.0.113.2:4000: Registered (31 ms)"));
}

TEST_F(HostRelaysTest,
       ThePublicAddressIsTheFirstRegisteredServersAlsoWhenTheSecondIsRegisteredToo) {
  start_with({named, a, b});
  register_with(b, "198.51.100.8:2");
  EXPECT_EQ(internet(), "Internet: reachable by key code (public 198.51.100.8:2)");
  register_with(a, "198.51.100.7:1");
  EXPECT_EQ(internet(), "Internet: reachable by key code (public 198.51.100.7:1)");
}

TEST_F(HostRelaysTest, AServerThatIsLostMakesTheHostUnreachableAgain) {
  start_with({a});
  register_with(a, "198.51.100.7:9876");
  std::vector<std::uint32_t> events;
  host().on_event = [&](const lund_conn_event& event) { events.push_back(event.type); };
  for (int i = 0; i < 70'000; i += 50) {
    virtual_time::advance_ms(50);
    host().conn_step();
  }
  EXPECT_THAT(events, ElementsAre(LUND_EV_SERVER_LOST));
  EXPECT_EQ(internet(), "Internet: not registered yet (LAN / direct only)");
  EXPECT_EQ(state(), "No answer: offline, blocked, or wrong secret");
}

// ---- The list changes

TEST_F(HostRelaysTest, TheStartCountsTheServersAndTellsTheResolver) {
  start_with({named, a});
  EXPECT_THAT(log(), Contains(HasSubstr("; 2 rendezvous servers; LAN ")));
  ASSERT_EQ(fake_resolvers().size(), 1u);
  const lund_relay_config& told = fake_resolvers()[0]->relays;
  ASSERT_EQ(told.count, 2);
  EXPECT_STREQ(told.servers[0].host, "relay.example");
  EXPECT_FALSE(fake_resolvers()[0]->stopped);
}

TEST_F(HostRelaysTest, AChangedListReplacesServersAndResolver) {
  start_with({named});
  log();
  host().set_relays(peer::relays_of({a, named, b}));
  EXPECT_TRUE(logged("relay servers: 3 (list changed)"));
  ASSERT_EQ(fake_resolvers().size(), 2u);
  EXPECT_TRUE(fake_resolvers()[0]->stopped);
  // The engine had its new set before the old resolver stopped.
  EXPECT_THAT(fake_resolvers()[0]->servers_at_stop,
              ElementsAre("203.0.113.1", "relay.example", "203.0.113.2"));
  EXPECT_FALSE(fake_resolvers()[1]->stopped);
  EXPECT_EQ(fake_resolvers()[1]->relays.count, 3);
  EXPECT_EQ(host().relay_states().size(), 3u);
}

TEST_F(HostRelaysTest, AListOfLiteralsNeedsNoResolver) {
  start_with({named});
  host().set_relays(peer::relays_of({a}));
  EXPECT_EQ(fake_resolvers().size(), 1u);
  EXPECT_TRUE(fake_resolvers()[0]->stopped);
  host().set_relays({});
  EXPECT_TRUE(logged("relay servers: 0 (list changed)"));
  EXPECT_EQ(internet(), "Internet: no relay servers (LAN / direct only)");
}

TEST_F(HostRelaysTest, AServerThatStaysKeepsItsRegistration) {
  start_with({a, b});
  register_with(a, "198.51.100.7:9876");
  host().set_relays(peer::relays_of({b, a}));
  EXPECT_THAT(host().relay_states(), ElementsAre(Pair("203.0.113.2:4000", "Connecting..."),
                                                 Pair("203.0.113.1:9877", "Registered (20 ms)")));
}

TEST_F(HostRelaysTest, AChangedListIsNotStored) {
  start_with({a});
  host().set_relays(peer::relays_of({a, b}));
  EXPECT_EQ(keystore::load_relays().count, 1);
}

TEST_F(HostRelaysTest, TheShutdownStopsTheResolverWhileTheEngineIsThere) {
  start_with({named});
  host().shutdown();
  ASSERT_EQ(fake_resolvers().size(), 1u);
  EXPECT_TRUE(fake_resolvers()[0]->stopped);
  EXPECT_THAT(fake_resolvers()[0]->servers_at_stop, ElementsAre("relay.example"));
}

TEST_F(HostRelaysTest, AfterTheShutdownNothingIsToldOrChanged) {
  start_with({a});
  host().shutdown();
  log();
  host().set_relays(peer::relays_of({named}));
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(fake_resolvers(), IsEmpty());
  EXPECT_THAT(host().relay_states(), IsEmpty());
  EXPECT_THAT(host().internet_status(), IsEmpty());
}
