// The lab itself, by plain datagrams: each kind of router maps and filters as RFC 4787 says of its
// class, so that what the programs do behind it says something about real routers.
#include "tests/support/linux/net_lab.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <ostream>
#include <set>

#include "connection/netsock.h"

namespace {

constexpr std::uint16_t PORT = 9876;
constexpr int ARRIVES_MS = 5000;  // what is to arrive is there in less than one

lund_rv_endpoint endpoint(const std::string& address, std::uint16_t port) {
  lund_rv_endpoint result;
  EXPECT_EQ(lund_addr_parse(&result, address.c_str(), port), 0) << address;
  return result;
}

std::string text(const lund_rv_endpoint& address) {
  char out[LUND_ADDR_TEXT];
  return {out, lund_addr_format(out, sizeof out, address)};
}

struct Datagram {
  std::string bytes;
  std::string from;
};

// A UDP socket that lives in a node.
class Udp {
 public:
  Udp(const NetLab& lab, const std::string& node, std::uint16_t port = PORT) {
    lab.call(node, [&] { socket_ = lund_udp_open(4, nullptr, port); });
    EXPECT_NE(socket_, LUND_NO_SOCKET) << node;
  }
  ~Udp() { lund_udp_close(socket_); }
  Udp(const Udp&) = delete;
  Udp& operator=(const Udp&) = delete;

  void send(const lund_rv_endpoint& to, const std::string& bytes) {
    lund_udp_send(socket_, to, bytes.data(), bytes.size());
  }
  void send(const std::string& address, std::uint16_t port, const std::string& bytes) {
    send(endpoint(address, port), bytes);
  }
  // "" when nothing comes.
  Datagram receive(int wait_ms = ARRIVES_MS) {
    char buffer[256];
    if (lund_udp_wait(&socket_, 1, wait_ms) != 1) return {};
    lund_rv_endpoint from;
    const int size = lund_udp_recv(socket_, buffer, sizeof buffer, &from);
    return {{buffer, static_cast<std::size_t>(std::max(size, 0))}, text(from)};
  }

 private:
  lund_socket socket_ = LUND_NO_SOCKET;
};

// An inner host and two outer ones, the second with two sockets.
class NetLabTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!NetLab::missing().empty()) GTEST_SKIP() << NetLab::missing();
    lab_.emplace();
    lab_->add_internet_host("one", "198.51.100.10");
    lab_->add_internet_host("two", "203.0.113.20");
    one_.emplace(*lab_, "one");
    two_.emplace(*lab_, "two");
    two_other_port_.emplace(*lab_, "two", OTHER_PORT);
  }
  void behind(Nat kind) {
    lab_->add_site("site", kind, PUBLIC, "192.168.1.1");
    lab_->add_site_host("inner", "site", "192.168.1.10");
    inner_.emplace(*lab_, "inner");
  }
  // What the outer hosts see as the source of a datagram from within.
  std::string seen_by_one() {
    inner_->send("198.51.100.10", PORT, "to one");
    return one_->receive().from;
  }
  std::string seen_by_two() {
    inner_->send("203.0.113.20", PORT, "to two");
    return two_->receive().from;
  }
  std::string seen_by_two_at_another_port() {
    inner_->send("203.0.113.20", OTHER_PORT, "to two's other");
    return two_other_port_->receive().from;
  }
  // What is sent afterwards and arrives shows that what was sent before it won't: on one path
  // nothing overtakes.
  void expect_only_the_answer(const std::string& mapped) {
    one_->send(endpoint(mapped, 0), "answer");
    EXPECT_EQ(inner_->receive().bytes, "answer");
    EXPECT_EQ(inner_->receive(0).bytes, "");
  }

  static constexpr char PUBLIC[] = "198.51.100.77";
  static constexpr char MAPPED[] = "198.51.100.77:9876";
  static constexpr std::uint16_t OTHER_PORT = 5000;
  std::optional<NetLab> lab_;
  std::optional<Udp> one_, two_, two_other_port_, inner_;
};

TEST_F(NetLabTest, WithoutARouterAnAddressIsSeenAsItIs) {
  two_->send("198.51.100.10", PORT, "hello");
  const Datagram received = one_->receive();
  EXPECT_EQ(received.bytes, "hello");
  EXPECT_EQ(received.from, "203.0.113.20:9876");
}

TEST_F(NetLabTest, AFullConeMapsIndependentOfTheEndpoint) {
  behind(Nat::FULL_CONE);
  EXPECT_EQ(seen_by_one(), MAPPED);
  EXPECT_EQ(seen_by_two(), MAPPED);
  EXPECT_EQ(seen_by_two_at_another_port(), MAPPED);
}

TEST_F(NetLabTest, AFullConeFiltersIndependentOfTheEndpoint) {
  behind(Nat::FULL_CONE);
  two_->send(PUBLIC, PORT, "unasked");  // before anything went out
  const Datagram received = inner_->receive();
  EXPECT_EQ(received.bytes, "unasked");
  EXPECT_EQ(received.from, "203.0.113.20:9876");
  EXPECT_EQ(seen_by_one(), MAPPED);
  two_other_port_->send(PUBLIC, PORT, "from another port");
  EXPECT_EQ(inner_->receive().bytes, "from another port");
}

TEST_F(NetLabTest, PortRestrictedMapsIndependentOfTheEndpointAndKeepsThePort) {
  behind(Nat::PORT_RESTRICTED);
  EXPECT_EQ(seen_by_one(), MAPPED);
  EXPECT_EQ(seen_by_two(), MAPPED);
  EXPECT_EQ(seen_by_two_at_another_port(), MAPPED);
}

TEST_F(NetLabTest, PortRestrictedFiltersByAddressAndPort) {
  behind(Nat::PORT_RESTRICTED);
  EXPECT_EQ(seen_by_one(), MAPPED);
  two_->send(PUBLIC, PORT, "from an address not asked");
  Udp one_other_port(*lab_, "one", OTHER_PORT);
  one_other_port.send(PUBLIC, PORT, "from a port not asked");
  expect_only_the_answer(MAPPED);
  EXPECT_EQ(lab_->turned_away("site"), 2);
}

TEST_F(NetLabTest, WhatCameUnaskedDoesNotTakeThePortOfALaterMapping) {
  behind(Nat::PORT_RESTRICTED);
  two_->send(PUBLIC, PORT, "too early");
  EXPECT_EQ(inner_->receive(0).bytes, "");
  EXPECT_EQ(seen_by_two(), MAPPED);
  EXPECT_EQ(lab_->turned_away("site"), 1);
  two_->send(PUBLIC, PORT, "now");
  EXPECT_EQ(inner_->receive().bytes, "now");
}

TEST_F(NetLabTest, TwoInnerHostsWithOnePortGetTwoMappings) {
  behind(Nat::PORT_RESTRICTED);
  lab_->add_site_host("second", "site", "192.168.1.11");
  Udp second(*lab_, "second");
  EXPECT_EQ(seen_by_one(), MAPPED);
  second.send("198.51.100.10", PORT, "me too");
  const Datagram received = one_->receive();
  EXPECT_EQ(received.bytes, "me too");
  EXPECT_NE(received.from, MAPPED);
  one_->send(endpoint(received.from, 0), "to the second");
  EXPECT_EQ(second.receive().bytes, "to the second");
  EXPECT_EQ(inner_->receive(0).bytes, "");
}

TEST_F(NetLabTest, SymmetricMapsByAddressAndPort) {
  behind(Nat::SYMMETRIC);
  const std::string for_one = seen_by_one();
  const std::string for_two = seen_by_two();
  EXPECT_NE(for_one, for_two);
  EXPECT_EQ(seen_by_one(), for_one);  // and stays with one destination
  EXPECT_EQ(seen_by_two(), for_two);
  // Of 20,000 ports the same one is drawn for all of these by luck once in 10^17 runs.
  std::set<std::string> for_other_ports = {for_two};
  for (std::uint16_t port = OTHER_PORT + 1; port < OTHER_PORT + 5; ++port) {
    Udp other(*lab_, "two", port);
    inner_->send("203.0.113.20", port, "to two's other");
    for_other_ports.insert(other.receive().from);
  }
  EXPECT_GT(for_other_ports.size(), 1U);
}

TEST_F(NetLabTest, SymmetricFiltersByAddressAndPort) {
  behind(Nat::SYMMETRIC);
  const std::string for_one = seen_by_one();
  two_->send(endpoint(for_one, 0), "from an address not asked");
  Udp one_other_port(*lab_, "one", OTHER_PORT);
  one_other_port.send(endpoint(for_one, 0), "from a port not asked");
  expect_only_the_answer(for_one);
  EXPECT_EQ(lab_->turned_away("site"), 2);
}

// Two inner hosts behind routers of these kinds that know of each other what an outer host saw.
struct Punch {
  Nat first, second;
  bool succeeds;
};
std::string name_of(const Punch& punch) {
  return std::string(nat_name(punch.first)) + " and " + nat_name(punch.second);
}
void PrintTo(const Punch& punch, std::ostream* out) {
  *out << name_of(punch);
}
class PunchTest : public testing::TestWithParam<Punch> {
 protected:
  void SetUp() override {
    if (!NetLab::missing().empty()) GTEST_SKIP() << NetLab::missing();
  }
};

TEST_P(PunchTest, HolesOpenWhereTheClassesAllowIt) {
  NetLab lab;
  lab.add_internet_host("server", "203.0.113.20");
  lab.add_site("first-router", GetParam().first, "198.51.100.1", "192.168.1.1");
  lab.add_site("second-router", GetParam().second, "198.51.100.2", "192.168.2.1");
  lab.add_site_host("first", "first-router", "192.168.1.10");
  lab.add_site_host("second", "second-router", "192.168.2.10");
  Udp server(lab, "server");
  Udp first(lab, "first");
  Udp second(lab, "second");
  first.send("203.0.113.20", PORT, "here");
  const lund_rv_endpoint first_seen = endpoint(server.receive().from, 0);
  second.send("203.0.113.20", PORT, "here");
  const lund_rv_endpoint second_seen = endpoint(server.receive().from, 0);

  // Three rounds, each datagram answered to where it came from.
  bool heard = false;
  for (int round = 0; round < 3; ++round) {
    first.send(second_seen, "punch");
    second.send(first_seen, "punch");
    for (Udp* side : {&first, &second}) {
      for (Datagram got = side->receive(20); !got.bytes.empty(); got = side->receive(20)) {
        heard = heard || got.bytes == "answer";
        if (got.bytes == "punch") side->send(endpoint(got.from, 0), "answer");
      }
    }
  }
  EXPECT_EQ(heard, GetParam().succeeds);
}

INSTANTIATE_TEST_SUITE_P(All, PunchTest,
                         testing::Values(Punch{Nat::FULL_CONE, Nat::FULL_CONE, true},
                                         Punch{Nat::FULL_CONE, Nat::PORT_RESTRICTED, true},
                                         Punch{Nat::FULL_CONE, Nat::SYMMETRIC, true},
                                         Punch{Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED, true},
                                         Punch{Nat::PORT_RESTRICTED, Nat::SYMMETRIC, false},
                                         Punch{Nat::SYMMETRIC, Nat::SYMMETRIC, false}),
                         [](const auto& test) {
                           std::string name = name_of(test.param);
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

TEST_F(NetLabTest, AForgottenMappingIsDrawnAnew) {
  behind(Nat::SYMMETRIC);
  std::set<std::string> drawn;
  for (int times = 0; times < 5; ++times) {
    drawn.insert(seen_by_one());
    lab_->forget_mappings("site");
  }
  EXPECT_GT(drawn.size(), 1U);
}

TEST_F(NetLabTest, ARoutersNewPublicAddressIsSeenAtOnce) {
  behind(Nat::PORT_RESTRICTED);
  EXPECT_EQ(seen_by_one(), MAPPED);
  lab_->change_public_address("site", "203.0.113.99");
  EXPECT_EQ(seen_by_one(), "203.0.113.99:9876");
  expect_only_the_answer("203.0.113.99:9876");
}

TEST_F(NetLabTest, AnInnerHostsNewAddressIsMappedToo) {
  behind(Nat::PORT_RESTRICTED);
  EXPECT_EQ(seen_by_one(), MAPPED);
  lab_->change_address("inner", "eth0", "192.168.1.33");
  const std::string mapped = seen_by_one();
  EXPECT_NE(mapped, MAPPED);  // that port is still the old address'
  expect_only_the_answer(mapped);
}

TEST_F(NetLabTest, ANodeMayJoinAnotherSitesLan) {
  behind(Nat::PORT_RESTRICTED);
  lab_->join_lan("two", "site", "lan", "192.168.1.20");
  two_->send("192.168.1.10", PORT, "by the LAN");
  const Datagram received = inner_->receive();
  EXPECT_EQ(received.bytes, "by the LAN");
  EXPECT_EQ(received.from, "192.168.1.20:9876");
  EXPECT_EQ(seen_by_two(), MAPPED);  // as before
}

TEST_F(NetLabTest, ALinkThatWasDownCarriesAgainAfterwards) {
  behind(Nat::PORT_RESTRICTED);
  lab_->set_link("inner", "eth0", false);
  inner_->send("198.51.100.10", PORT, "into nothing");
  EXPECT_EQ(one_->receive(0).bytes, "");
  lab_->set_link("inner", "eth0", true);
  EXPECT_EQ(seen_by_one(), MAPPED);
  EXPECT_EQ(one_->receive(0).bytes, "");
}

TEST_F(NetLabTest, NothingPassesToOrFromABlockedAddress) {
  behind(Nat::FULL_CONE);
  lab_->block("site", "198.51.100.10");
  inner_->send("198.51.100.10", PORT, "from within");
  one_->send(PUBLIC, PORT, "from without");
  EXPECT_EQ(seen_by_two(), MAPPED);
  EXPECT_EQ(one_->receive(0).bytes, "");
  EXPECT_EQ(inner_->receive(0).bytes, "");
  lab_->unblock("site");
  EXPECT_EQ(seen_by_one(), MAPPED);
}

TEST_F(NetLabTest, ANameComesMovesAndGoes) {
  behind(Nat::PORT_RESTRICTED);
  lab_->serve_names("one");
  const auto address_of = [this](const std::string& name) {
    const RunResult result = run_program(lab_->inside("inner", {"getent", "ahostsv4", name}));
    return result.output.substr(0, result.output.find(' '));
  };
  EXPECT_EQ(address_of("relay.test"), "");
  lab_->set_name("relay.test", "203.0.113.20");
  EXPECT_EQ(address_of("relay.test"), "203.0.113.20");
  lab_->set_name("relay.test", "198.51.100.10");
  EXPECT_EQ(address_of("relay.test"), "198.51.100.10");
  lab_->set_name("relay.test", "");
  EXPECT_EQ(address_of("relay.test"), "");
}

TEST_F(NetLabTest, AProgramRunsInsideANode) {
  behind(Nat::PORT_RESTRICTED);
  EXPECT_NE(lab_->run("inner", {"ip", "address", "show"}).find("192.168.1.10/24"),
            std::string::npos);
}

TEST_F(NetLabTest, WhatAKilledRunLeftBehindGoesWithItsProcesses) {
  // The number of a process that has been: a lab's names hold it.
  ChildProcess ended({"true"});
  ASSERT_EQ(ended.wait(std::chrono::seconds(20)), 0);
  const std::string left = NetLab::prefix_of(ended.pid()) + "1-server";
  ASSERT_EQ(run_program({"ip", "netns", "add", left}).status, 0);
  ChildProcess orphan({"ip", "netns", "exec", left, "sleep", "1000"});
  // It is in there once the list shows it.
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (run_program({"ip", "netns", "pids", left}).output.empty() &&
         std::chrono::steady_clock::now() < until) {
  }
  NetLab another;
  EXPECT_FALSE(std::filesystem::exists("/run/netns/" + left));
  EXPECT_EQ(orphan.wait(std::chrono::seconds(20)), 128 + SIGKILL);
  EXPECT_TRUE(std::filesystem::exists("/run/netns/" + lab_->namespace_of("one")));
}

}  // namespace
