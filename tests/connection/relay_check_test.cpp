// The reachability check on a network that is only this file: its waits advance the virtual clock,
// and answers arrive to the microsecond.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "connection/clock.h"
#include "connection/rendezvous.h"
#include "connection/resolver.h"
#include "tests/support/virtual_time.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr lund_socket HANDLE = 5;
const std::uint8_t KEY[] = {'k', 'e', 'y'};

struct Sent {
  std::uint64_t at_us;  // since the test's start
  lund_rv_endpoint to;
  lund_rv_message lookup;
};

struct Network {
  struct Arrival {
    std::uint64_t at_us;  // lund_now_us
    std::vector<std::uint8_t> datagram;
    lund_rv_endpoint from;
  };

  Network() {
    lund_rv_net_key(net_key, KEY, sizeof KEY);
    lund_addr_parse(&server, "203.0.113.5:9877", 0);
  }
  void answer_in(std::uint64_t us, const lund_rv_message& message,
                 std::optional<lund_rv_endpoint> from = {}) {
    std::vector<std::uint8_t> datagram(LUND_RV_MESSAGE_MAX);
    datagram.resize(lund_rv_encode(datagram.data(), datagram.size(), net_key, &message));
    const std::uint64_t at_us = lund_now_us() + us;
    arrivals.insert(std::ranges::upper_bound(arrivals, at_us, {}, &Arrival::at_us),
                    {at_us, datagram, from.value_or(server)});
  }
  std::vector<std::uint64_t> sent_ms() const {
    std::vector<std::uint64_t> times;
    for (const Sent& one : sent) times.push_back(one.at_us / 1000);
    return times;
  }

  std::uint8_t net_key[32];
  lund_rv_endpoint server;
  std::function<void(Network&, const Sent&)> on_lookup;  // may be empty
  bool opens = true, sends = true, waits = true;
  std::vector<Sent> sent;
  std::vector<Arrival> arrivals;
  std::vector<int> opened_families;
  int closed = 0;
};
Network* network = nullptr;

}  // namespace

int lund_net_init() {
  return 0;
}
int lund_net_local_endpoints(lund_rv_endpoint*, int, std::uint16_t) {
  return 0;
}
lund_socket lund_udp_open(int family, const lund_rv_endpoint* bind_address, std::uint16_t port) {
  EXPECT_EQ(bind_address, nullptr);
  EXPECT_EQ(port, 0);
  network->opened_families.push_back(family);
  return network->opens ? HANDLE : LUND_NO_SOCKET;
}
void lund_udp_close(lund_socket socket) {
  if (socket == HANDLE) ++network->closed;
}
std::uint16_t lund_udp_local_port(lund_socket) {
  return 0;
}
int lund_udp_send(lund_socket, const lund_rv_endpoint& to, const void* bytes, std::size_t size) {
  if (!network->sends) return -1;
  Sent sent{lund_now_us() - virtual_time::START_US, to, {}};
  EXPECT_EQ(
      lund_rv_decode(static_cast<const std::uint8_t*>(bytes), size, network->net_key, &sent.lookup),
      0);
  network->sent.push_back(sent);
  if (network->on_lookup) network->on_lookup(*network, sent);
  return 0;
}
int lund_udp_recv(lund_socket, void* buffer, std::size_t capacity, lund_rv_endpoint* from) {
  if (network->arrivals.empty() || network->arrivals.front().at_us > lund_now_us()) return -1;
  const Network::Arrival arrival = network->arrivals.front();
  network->arrivals.erase(network->arrivals.begin());
  const std::size_t size = std::min(capacity, arrival.datagram.size());
  std::copy_n(arrival.datagram.begin(), size, static_cast<std::uint8_t*>(buffer));
  *from = arrival.from;
  return static_cast<int>(size);
}
int lund_udp_wait(const lund_socket*, int, int timeout_ms) {
  EXPECT_GT(timeout_ms, 0);
  if (!network->waits || timeout_ms <= 0) return -1;
  const std::uint64_t now_us = lund_now_us();
  const std::uint64_t limit_us = static_cast<std::uint64_t>(timeout_ms) * 1000;
  const bool comes =
      !network->arrivals.empty() && network->arrivals.front().at_us <= now_us + limit_us;
  if (!comes)
    virtual_time::advance_us(limit_us);
  else if (network->arrivals.front().at_us > now_us)
    virtual_time::advance_us(network->arrivals.front().at_us - now_us);
  return comes ? 1 : 0;
}

namespace {

// Hosts as they are given, without the checks that a link goes through. "relay:0" fails without a
// look-up: no test may leave this computer.
lund_relay_config relays_of(const std::vector<std::string>& hosts) {
  lund_relay_config config;
  for (const std::string& host : hosts)
    host.copy(config.servers[config.count++].host, sizeof lund_relay_server::host - 1);
  return config;
}

class RelayCheckTest : public testing::Test {
 protected:
  RelayCheckTest() {
    virtual_time::reset();
    network = &net;
    EXPECT_EQ(lund_relay_server_set(&server, "203.0.113.5", 9877, KEY, sizeof KEY), 0);
  }
  ~RelayCheckTest() override { network = nullptr; }

  int check(int timeout_ms) { return lund_relay_check(&server, timeout_ms, &rtt_us); }
  static std::uint64_t passed_ms() { return (lund_now_us() - virtual_time::START_US) / 1000; }
  // Answers the attempt of this number alone, in this way.
  void answer_attempt(std::size_t index, std::uint64_t in_us, std::uint8_t type,
                      std::uint32_t nonce_offset = 0, std::optional<lund_rv_endpoint> from = {}) {
    net.on_lookup = [=](Network& self, const Sent& sent) {
      if (self.sent.size() != index + 1) return;
      lund_rv_message message;
      message.type = type;
      message.status = 1;
      message.nonce = sent.lookup.nonce + nonce_offset;
      self.answer_in(in_us, message, from);
    };
  }

  Network net;
  lund_relay_server server;
  std::uint64_t rtt_us = 77;
};

}  // namespace

TEST_F(RelayCheckTest, TheFirstAnswerEndsItWithItsRoundTrip) {
  answer_attempt(0, 42'123, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
  EXPECT_EQ(rtt_us, 42'123u);
  EXPECT_EQ(net.sent.size(), 1u);
  EXPECT_EQ(net.closed, 1);
}

TEST_F(RelayCheckTest, AnErrorIsAnAnswer) {
  answer_attempt(0, 1'000, LUND_RV_ERROR);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
}

TEST_F(RelayCheckTest, TheLookupIsSentAtEachThirdOfTheTime) {
  EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER);
  EXPECT_THAT(net.sent_ms(), ElementsAre(0, 500, 1'000));
  EXPECT_EQ(passed_ms(), 1'500u);
  EXPECT_EQ(rtt_us, 0u);
  EXPECT_EQ(net.closed, 1);
}

TEST_F(RelayCheckTest, ThirdsThatAreNoWholeMillisecondsAreRoundedUp) {
  EXPECT_EQ(check(1'000), LUND_RELAY_NO_ANSWER);
  EXPECT_THAT(net.sent_ms(), ElementsAre(0, 334, 667));
  EXPECT_EQ(passed_ms(), 1'000u);
}

TEST_F(RelayCheckTest, ATimeThatIsNotPositiveMeans1500Ms) {
  for (const int timeout_ms : {0, -1}) {
    virtual_time::reset();
    net.sent.clear();
    EXPECT_EQ(check(timeout_ms), LUND_RELAY_NO_ANSWER);
    EXPECT_THAT(net.sent_ms(), ElementsAre(0, 500, 1'000));
    EXPECT_EQ(passed_ms(), 1'500u);
  }
}

TEST_F(RelayCheckTest, AttemptsAreOneLookupUnderConsecutiveNonces) {
  EXPECT_EQ(check(300), LUND_RELAY_NO_ANSWER);
  ASSERT_EQ(net.sent.size(), 3u);
  const lund_rv_message& first = net.sent[0].lookup;
  for (std::uint32_t i = 0; i < 3; ++i) {
    const lund_rv_message& lookup = net.sent[i].lookup;
    EXPECT_TRUE(lund_rv_endpoint_equal(net.sent[i].to, net.server));
    EXPECT_EQ(lookup.type, LUND_RV_LOOKUP);
    EXPECT_EQ(lookup.nonce, first.nonce + i);
    EXPECT_EQ(lookup.target_size, 16);
    EXPECT_EQ(std::memcmp(lookup.target, first.target, 16), 0);
    EXPECT_EQ(lookup.lan_count, 0);
  }
}

TEST_F(RelayCheckTest, EachCheckAsksForAnotherNobodyUnderOtherNonces) {
  check(3);
  check(3);
  ASSERT_EQ(net.sent.size(), 6u);
  EXPECT_NE(std::memcmp(net.sent[0].lookup.target, net.sent[3].lookup.target, 16), 0);
  EXPECT_NE(net.sent[0].lookup.nonce, net.sent[3].lookup.nonce);
}

TEST_F(RelayCheckTest, TheRoundTripIsThatOfTheAnsweredAttempt) {
  answer_attempt(1, 20'000, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
  EXPECT_EQ(rtt_us, 20'000u);
  EXPECT_EQ(passed_ms(), 520u);
}

TEST_F(RelayCheckTest, ALateAnswerToTheFirstAttemptCountsFromThatOne) {
  answer_attempt(0, 1'100'000, LUND_RV_ERROR);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
  EXPECT_EQ(rtt_us, 1'100'000u);
  EXPECT_EQ(net.sent.size(), 3u);
}

TEST_F(RelayCheckTest, AnAnswerAtTheLastMomentCountsAndOneAfterItDoesNot) {
  answer_attempt(2, 499'999, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
  net = Network();
  answer_attempt(2, 500'001, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER);
}

TEST_F(RelayCheckTest, AnAnswerWithANonceThatHasNotBeenSentIsIgnored) {
  constexpr std::uint32_t BEFORE = 0xFFFF'FFFF;
  for (const std::uint32_t offset : {BEFORE, 1u, 3u, 0x8000'0000u}) {
    net = Network();
    answer_attempt(0, 1'000, LUND_RV_LOOKUP_RESULT, offset);
    EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER) << offset;
    EXPECT_EQ(rtt_us, 0u);
  }
  net = Network();
  answer_attempt(2, 1'000, LUND_RV_LOOKUP_RESULT, 1);
  EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER);
}

TEST_F(RelayCheckTest, AnAnswerOfAnotherTypeIsIgnored) {
  for (const std::uint8_t type : {LUND_RV_LOOKUP, LUND_RV_PUNCH_NOTIFY, LUND_RV_BOUND}) {
    net = Network();
    net.on_lookup = [=](Network& self, const Sent& sent) {
      lund_rv_message message = sent.lookup;
      message.type = type;
      self.answer_in(1'000, message);
    };
    EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER) << int{type};
  }
}

TEST_F(RelayCheckTest, AnAnswerUnderAWrongKeyIsIgnored) {
  net.on_lookup = [](Network& self, const Sent& sent) {
    lund_rv_message message = sent.lookup;
    message.type = LUND_RV_LOOKUP_RESULT;
    self.answer_in(1'000, message);
    self.arrivals.back().datagram.back() ^= 1;  // the tag's last byte
  };
  EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER);
  EXPECT_EQ(net.sent.size(), 3u);
  EXPECT_EQ(passed_ms(), 1'500u);
}

TEST_F(RelayCheckTest, AnAnswerFromAnotherAddressIsIgnored) {
  for (const char* other : {"203.0.113.6:9877", "203.0.113.5:9878", "[2001:db8::5]:9877"}) {
    lund_rv_endpoint from;
    ASSERT_EQ(lund_addr_parse(&from, other, 0), 0);
    net = Network();
    answer_attempt(0, 1'000, LUND_RV_LOOKUP_RESULT, 0, from);
    EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER) << other;
  }
}

TEST_F(RelayCheckTest, AFloodOfOtherDatagramsDoesNotHoldItUp) {
  for (std::uint64_t i = 0; i < 3'000; ++i) net.answer_in(i * 1'000, {}, net.server);
  EXPECT_EQ(check(1'500), LUND_RELAY_NO_ANSWER);
  EXPECT_THAT(net.sent_ms(), ElementsAre(0, 500, 1'000));
  EXPECT_EQ(passed_ms(), 1'500u);
}

TEST_F(RelayCheckTest, TheSocketIsOfTheServersFamily) {
  check(3);
  ASSERT_EQ(lund_relay_server_set(&server, "2001:db8::5", 9877, KEY, sizeof KEY), 0);
  check(3);
  EXPECT_THAT(net.opened_families, ElementsAre(4, 6));
}

TEST_F(RelayCheckTest, WithoutAnAddressThereIsNoServer) {
  for (const char* host : {"", "relay:0"}) {
    std::strcpy(server.host, host);
    EXPECT_EQ(check(1'500), LUND_RELAY_NO_NAME);
    EXPECT_EQ(rtt_us, 0u);
  }
  EXPECT_THAT(net.opened_families, IsEmpty());
}

TEST_F(RelayCheckTest, NoServerAndAKeySizeOutside1To128AreLocalFailures) {
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{129}, ~std::uint64_t{0}}) {
    server.key_size = size;
    EXPECT_EQ(check(1'500), LUND_RELAY_LOCAL_FAILURE);
    EXPECT_EQ(rtt_us, 0u);
  }
  rtt_us = 77;
  EXPECT_EQ(lund_relay_check(nullptr, 1'500, &rtt_us), LUND_RELAY_LOCAL_FAILURE);
  EXPECT_EQ(rtt_us, 0u);
  EXPECT_THAT(net.opened_families, IsEmpty());
}

TEST_F(RelayCheckTest, AKeyOf128BytesIsUsedWhole) {
  server.key_size = LUND_RELAY_KEY_MAX;
  server.key[127] = 9;
  lund_rv_net_key(net.net_key, server.key, LUND_RELAY_KEY_MAX);
  answer_attempt(0, 1'000, LUND_RV_LOOKUP_RESULT);
  EXPECT_EQ(check(1'500), LUND_RELAY_REACHABLE);
}

TEST_F(RelayCheckTest, ASocketThatDoesNotOpenSendOrWaitIsALocalFailure) {
  net.opens = false;
  EXPECT_EQ(check(1'500), LUND_RELAY_LOCAL_FAILURE);
  net = Network();
  net.sends = false;
  EXPECT_EQ(check(1'500), LUND_RELAY_LOCAL_FAILURE);
  net = Network();
  net.waits = false;
  EXPECT_EQ(check(1'500), LUND_RELAY_LOCAL_FAILURE);
  EXPECT_EQ(net.closed, 1);
}

TEST(RelayResolve, ALiteralsEndpointIsItsOwn) {
  lund_relay_config config = relays_of({"192.0.2.1", "2001:db8::1"});
  EXPECT_EQ(lund_relay_resolve(&config.servers[0]), 0);
  EXPECT_EQ(lund_relay_resolve(&config.servers[1]), 0);
  char text[LUND_ADDR_TEXT];
  lund_addr_format(text, sizeof text, config.servers[0].endpoint);
  EXPECT_STREQ(text, "192.0.2.1:9877");
  lund_addr_format(text, sizeof text, config.servers[1].endpoint);
  EXPECT_STREQ(text, "[2001:db8::1]:9877");
}

TEST(RelayResolve, AFailureLeavesTheLastAddress) {
  lund_relay_config config = relays_of({"relay:0"});
  ASSERT_EQ(lund_addr_parse(&config.servers[0].endpoint, "192.0.2.9:5", 0), 0);
  const lund_rv_endpoint before = config.servers[0].endpoint;
  EXPECT_EQ(lund_relay_resolve(&config.servers[0]), -1);
  EXPECT_TRUE(lund_rv_endpoint_equal(config.servers[0].endpoint, before));
}

TEST(RelayResolve, AConfigurationCountsTheServersWithAnAddress) {
  lund_relay_config config = relays_of({"192.0.2.1", "relay:0", "2001:db8::1"});
  EXPECT_EQ(lund_relay_config_resolve(&config), 2);
  EXPECT_EQ(config.servers[1].endpoint.family, 0);
  lund_relay_config none;
  EXPECT_EQ(lund_relay_config_resolve(&none), 0);
}
