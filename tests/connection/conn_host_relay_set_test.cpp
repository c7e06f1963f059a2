// A new set of rendezvous servers under a running engine: who stays as it was, and who starts over.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/served_host.h"
#include "tests/support/wiped.h"

namespace {

constexpr std::uint32_t ALLOCATION = 0xA110;
const lund_rv_endpoint CLIENT = peer::at("203.0.113.7:6000");

class HostRelaySet : public ::testing::Test, protected served_host {
 protected:
  void set(const lund_relay_config& relays) { lund_host_set_relay(rig.host, &relays); }
  // A client at CLIENT, with a bound allocation.
  void announce(const server_peer& server) {
    hear(server, server.notify(CLIENT, ALLOCATION));
    hear(server, server.bound(ALLOCATION));
    forget();
  }
  int entries() const {
    int count = 0;
    for (const lund_host_work& work : rig.host->work) count += static_cast<int>(work.used);
    return count;
  }
};

}  // namespace

TEST_F(HostRelaySet, TheSameSetKeepsTheRegistrationAndSendsNothingEarly) {
  register_with(a);
  register_with(b);
  set(peer::relays_of({a, b}));
  EXPECT_EQ(rig.lines, std::vector<std::string>{"relay servers: 2"});
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_EQ(status(1).state, LUND_SERVER_REGISTERED);
  rig.wait_us(20 * SECOND_US - 1);
  EXPECT_TRUE(rig.sent.empty());
  rig.wait_us(1);
  const auto messages = take(a);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(a.accepts(messages[0])) << "the refresh proves the challenge that was kept";
  EXPECT_TRUE(rig.events().empty());
}

TEST_F(HostRelaySet, TheSameSetKeepsPunchAndAllocation) {
  register_with(a);
  hear(a, a.notify(CLIENT, ALLOCATION));
  hear(a, a.bound(ALLOCATION));
  forget();
  set(peer::relays_of({a, b}));
  rig.wait_us(50'000);
  EXPECT_EQ(take_punches().size(), 1U);
  ASSERT_EQ(entries(), 1);
  EXPECT_EQ(rig.host->work[0].bound, 1U);
  EXPECT_EQ(rig.host->work[0].active, 1U);
}

TEST_F(HostRelaySet, AKeptServerTakesRegistrationAndWorkToItsNewIndex) {
  register_with(a);
  register_with(b);
  announce(b);
  set(peer::relays_of({b, a}));
  EXPECT_STREQ(status(0).host, "b.example");
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_EQ(status(1).state, LUND_SERVER_REGISTERED);
  ASSERT_EQ(entries(), 1);
  EXPECT_EQ(rig.host->work[0].server, 0);
  rig.wait_us(15 * SECOND_US);
  const auto messages = take(b);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].type, LUND_RV_BIND);
  EXPECT_EQ(messages[0].allocation, ALLOCATION);
  hear(b, b.bound(ALLOCATION, 1));
  EXPECT_EQ(entries(), 0) << "the server's word still reaches its entry";
}

TEST_F(HostRelaySet, AServerThatIsGoneTakesItsWorkAlongAndIsNotHeard) {
  register_with(a);
  register_with(b);
  announce(a);
  announce(b);
  set(peer::relays_of({b}));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  lund_server_status status;
  EXPECT_EQ(lund_host_server_status(rig.host, 1, &status), -1);
  ASSERT_EQ(entries(), 1);
  EXPECT_EQ(rig.host->work[1].server, 0);
  rig.sent.clear();
  hear(a, a.challenge());
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostRelaySet, AServerPutBeforeTheOthersIsRegisteredWithAtTheNextTickAlone) {
  register_with(a);
  register_with(b);
  announce(a);
  const server_peer c("c.example", "198.51.100.3:9877", 0xC3);
  set(peer::relays_of({c, a, b}));
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(status(1).state, LUND_SERVER_REGISTERED);
  EXPECT_EQ(rig.host->work[0].server, 1);
  virtual_time::advance_us(3 * SECOND_US);  // the punch is over
  lund_host_tick(rig.host);
  ASSERT_EQ(rig.sent.size(), 1U);
  EXPECT_EQ(take(c).size(), 1U);
}

TEST_F(HostRelaySet, AChangedKeyStartsOver) {
  register_with(a);
  announce(a);
  const server_peer rekeyed("a.example", "198.51.100.1:9877", 0xAA);
  set(peer::relays_of({rekeyed, b}));
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(entries(), 0);
  hear(a, a.challenge());
  EXPECT_TRUE(rig.sent.empty()) << "the former key means nothing now";
  lund_host_tick(rig.host);
  EXPECT_EQ(take(rekeyed).size(), 1U);
  hear(rekeyed, rekeyed.challenge());
  EXPECT_EQ(take(rekeyed).size(), 1U);
}

TEST_F(HostRelaySet, AChangedPortStartsOver) {
  register_with(a);
  set(peer::relays_of({server_peer("a.example", "198.51.100.1:9878", 0xA1)}));
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
}

TEST_F(HostRelaySet, AChangedAddressStartsOver) {
  register_with(a);
  announce(a);
  set(peer::relays_of({server_peer("a.example", "198.51.100.9:9877", 0xA1)}));
  EXPECT_EQ(status(0).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(entries(), 0);
}

TEST_F(HostRelaySet, ANameInOtherLettersIsTheSameServer) {
  register_with(a);
  set(peer::relays_of({server_peer("A.Example", "198.51.100.1:9877", 0xA1)}));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_STREQ(status(0).host, "A.Example");
}

TEST_F(HostRelaySet, ANameWithoutAnAddressTakesTheOneItHad) {
  register_with(a);
  lund_relay_config relays = peer::relays_of({a});
  relays.servers[0].endpoint = {};
  set(relays);
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_TRUE(lund_rv_endpoint_equal(status(0).endpoint, a.address));
}

TEST_F(HostRelaySet, ANameThatWasNotFoundIsNotFoundStill) {
  lund_relay_config relays = peer::relays_of({a});
  relays.servers[0].endpoint = {};
  set({});
  set(relays);
  lund_host_server_resolved(rig.host, "a.example", 9877, nullptr);
  set(relays);
  EXPECT_EQ(status(0).state, LUND_SERVER_NO_NAME);
  rig.lines.clear();
  lund_host_server_resolved(rig.host, "a.example", 9877, nullptr);
  EXPECT_TRUE(rig.lines.empty()) << "told once";
}

TEST_F(HostRelaySet, EachFormerServerIsTakenOverOnce) {
  register_with(a);
  announce(a);
  set(peer::relays_of({a, a}));
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_EQ(status(1).state, LUND_SERVER_CONNECTING);
  EXPECT_EQ(entries(), 1);
}

TEST_F(HostRelaySet, AnEmptySetEndsAllServerWork) {
  register_with(a);
  announce(a);
  set({});
  EXPECT_EQ(rig.lines, std::vector<std::string>{"relay servers: 0"});
  EXPECT_EQ(entries(), 0);
  rig.sent.clear();
  rig.wait_us(60 * SECOND_US);
  EXPECT_TRUE(rig.sent.empty());
}

TEST_F(HostRelaySet, KeysOfFormerServersAreGoneFromTheEngine) {
  const auto engine = bytes_in(*rig.host);
  ASSERT_TRUE(contains(engine, a.net_key));
  ASSERT_TRUE(contains(engine, b.net_key));
  set(peer::relays_of({b}));
  EXPECT_FALSE(contains(engine, a.net_key));
  EXPECT_TRUE(contains(engine, b.net_key));
  set({});
  EXPECT_FALSE(contains(engine, b.net_key));
}

TEST_F(HostRelaySet, ServersThatAreNotValidLeaveNoHole) {
  lund_relay_config relays = peer::relays_of({a, b});
  relays.servers[0].host[0] = '\0';
  register_with(b);
  set(relays);
  EXPECT_STREQ(status(0).host, "b.example");
  EXPECT_EQ(status(0).state, LUND_SERVER_REGISTERED);
  EXPECT_TRUE(rig.logged("relay servers: 1"));
}
