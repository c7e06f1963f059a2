#include "connection/netsock.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "connection/clock.h"
#include "socket_types.h"

namespace {

constexpr int PATIENCE_MS = 5'000;  // a loopback datagram that takes longer is lost

struct Socket {
  explicit Socket(int family = 4, const char* address = nullptr, std::uint16_t port = 0) {
    lund_rv_endpoint bound;
    if (address != nullptr && lund_addr_parse_ip(&bound, address) != 0) return;
    handle = lund_udp_open(family, address != nullptr ? &bound : nullptr, port);
  }
  ~Socket() { lund_udp_close(handle); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  lund_rv_endpoint at(const char* address) const {
    lund_rv_endpoint out;
    EXPECT_EQ(lund_addr_parse_ip(&out, address), 0);
    out.port = lund_udp_local_port(handle);
    return out;
  }
  int send(const lund_rv_endpoint& to, const std::string& text) const {
    return lund_udp_send(handle, to, text.data(), text.size());
  }

  lund_socket handle = LUND_NO_SOCKET;
};

struct Received {
  int size;
  std::string text;
  lund_rv_endpoint from;
};
Received receive(const Socket& socket, std::size_t capacity = 2048) {
  EXPECT_EQ(lund_udp_wait(&socket.handle, 1, PATIENCE_MS), 1);
  std::vector<char> buffer(capacity);
  Received got = {};
  got.size = lund_udp_recv(socket.handle, buffer.data(), buffer.size(), &got.from);
  if (got.size > 0) got.text.assign(buffer.data(), static_cast<std::size_t>(got.size));
  return got;
}

int int_option(const Socket& socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof(value);
  getsockopt(static_cast<int>(socket.handle), level, option, reinterpret_cast<char*>(&value),
             &size);
  return value;
}

}  // namespace

TEST(NetsockSockaddr, Ipv4RoundTripsAsSixteenBytes) {
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse(&address, "1.2.3.4:0x", 1), -1);
  ASSERT_EQ(lund_addr_parse(&address, "1.2.3.4:258", 1), 0);
  sockaddr_storage name{};
  ASSERT_EQ(lund_addr_to_sockaddr(address, &name, sizeof(name), false), 16u);
  EXPECT_EQ(name.ss_family, AF_INET);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&name);
  EXPECT_EQ(std::vector<std::uint8_t>(bytes + 2, bytes + 8),
            (std::vector<std::uint8_t>{1, 2, 1, 2, 3, 4}));
  lund_rv_endpoint back;
  ASSERT_EQ(lund_addr_from_sockaddr(&back, reinterpret_cast<sockaddr*>(&name), 16), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(address, back));
}

TEST(NetsockSockaddr, MappedIpv6ComesBackAsFamilyFour) {
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse(&address, "[::ffff:10.0.0.1]:5", 0), 0);
  ASSERT_EQ(address.family, 6);
  sockaddr_storage name{};
  ASSERT_EQ(lund_addr_to_sockaddr(address, &name, sizeof(name), false), 28u);
  lund_rv_endpoint back;
  ASSERT_EQ(lund_addr_from_sockaddr(&back, reinterpret_cast<sockaddr*>(&name), 28), 0);
  ASSERT_EQ(lund_addr_parse(&address, "10.0.0.1:5", 0), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(address, back));
  EXPECT_EQ(back.family, 4);
}

TEST(NetsockSockaddr, ForcedIpv6IsMappedForFamilyFour) {
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse(&address, "10.0.0.1:5", 0), 0);
  sockaddr_storage forced{}, mapped{};
  ASSERT_EQ(lund_addr_to_sockaddr(address, &forced, sizeof(forced), true), 28u);
  ASSERT_EQ(lund_addr_parse(&address, "[::ffff:10.0.0.1]:5", 0), 0);
  ASSERT_EQ(lund_addr_to_sockaddr(address, &mapped, sizeof(mapped), false), 28u);
  EXPECT_EQ(std::memcmp(&forced, &mapped, 28), 0);
}

TEST(NetsockSockaddr, ShortSizesAndNoFamilyAreRefused) {
  lund_rv_endpoint address;
  sockaddr_storage name{};
  EXPECT_EQ(lund_addr_to_sockaddr(address, &name, sizeof(name), false), 0u);
  EXPECT_EQ(lund_addr_to_sockaddr(address, &name, sizeof(name), true), 0u);
  address.family = 4;
  EXPECT_EQ(lund_addr_to_sockaddr(address, &name, 15, false), 0u);
  EXPECT_EQ(lund_addr_to_sockaddr(address, &name, 27, true), 0u);
  auto* raw = reinterpret_cast<sockaddr*>(&name);
  EXPECT_EQ(lund_addr_from_sockaddr(&address, raw, sizeof(name)), -1);  // AF_UNSPEC
  name.ss_family = AF_INET;
  EXPECT_EQ(lund_addr_from_sockaddr(&address, raw, 15), -1);
  name.ss_family = AF_INET6;
  EXPECT_EQ(lund_addr_from_sockaddr(&address, raw, 27), -1);
  EXPECT_EQ(lund_addr_from_sockaddr(&address, nullptr, 28), -1);
}

TEST(NetsockUdp, DatagramArrivesWithItsSender) {
  const Socket a, b;
  ASSERT_NE(a.handle, LUND_NO_SOCKET);
  ASSERT_NE(lund_udp_local_port(a.handle), 0);
  ASSERT_EQ(a.send(b.at("127.0.0.1"), "hello"), 0);
  const Received got = receive(b);
  EXPECT_EQ(got.text, "hello");
  EXPECT_TRUE(lund_rv_endpoint_equal(got.from, a.at("127.0.0.1")));
}

TEST(NetsockUdp, EmptyDatagramIsDeliveredAsZeroBytes) {
  const Socket a, b;
  ASSERT_EQ(a.send(b.at("127.0.0.1"), ""), 0);
  const Received got = receive(b);
  EXPECT_EQ(got.size, 0);
  EXPECT_EQ(got.from.family, 4);
}

TEST(NetsockUdp, DatagramLongerThanTheBufferGivesZeroAndIsGone) {
  const Socket a, b;
  ASSERT_EQ(a.send(b.at("127.0.0.1"), std::string(100, 'x')), 0);
  ASSERT_EQ(a.send(b.at("127.0.0.1"), "next"), 0);
  EXPECT_EQ(receive(b, 99).size, 0);
  EXPECT_EQ(receive(b, 99).text, "next");
}

TEST(NetsockUdp, DatagramOfExactlyTheBufferIsWhole) {
  const Socket a, b;
  ASSERT_EQ(a.send(b.at("127.0.0.1"), std::string(100, 'x')), 0);
  EXPECT_EQ(receive(b, 100).size, 100);
}

TEST(NetsockUdp, ReceiveWithNothingThereFailsAtOnce) {
  const Socket a;
  char byte = 0;
  lund_rv_endpoint from;
  from.family = 4;
  EXPECT_EQ(lund_udp_recv(a.handle, &byte, 1, &from), -1);
  EXPECT_EQ(from.family, 0);
}

TEST(NetsockUdp, DualStackSocketTalksToIpv4InBothDirections) {
  const Socket dual(6), plain(4);
  if (dual.handle == LUND_NO_SOCKET) GTEST_SKIP() << "no IPv6 here";
  ASSERT_EQ(dual.send(plain.at("127.0.0.1"), "out"), 0);
  const Received out = receive(plain);
  EXPECT_EQ(out.text, "out");
  EXPECT_EQ(out.from.family, 4);
  ASSERT_EQ(plain.send(dual.at("127.0.0.1"), "back"), 0);
  const Received back = receive(dual);
  EXPECT_EQ(back.text, "back");
  EXPECT_TRUE(lund_rv_endpoint_equal(back.from, plain.at("127.0.0.1")));
}

TEST(NetsockUdp, DualStackSocketTalksToIpv6) {
  const Socket a(6), b(6);
  if (a.handle == LUND_NO_SOCKET) GTEST_SKIP() << "no IPv6 here";
  if (a.send(b.at("::1"), "six") != 0) GTEST_SKIP() << "no IPv6 loopback here";
  const Received got = receive(b);
  EXPECT_EQ(got.text, "six");
  EXPECT_TRUE(lund_rv_endpoint_equal(got.from, a.at("::1")));
}

TEST(NetsockUdp, Ipv4SocketCannotReachIpv6) {
  const Socket a;
  EXPECT_EQ(a.send(a.at("::1"), "x"), -1);
}

TEST(NetsockUdp, SendToNoFamilyFails) {
  const Socket a;
  EXPECT_EQ(a.send(lund_rv_endpoint{}, "x"), -1);
}

TEST(NetsockUdp, DatagramTooLargeForUdpFails) {
  const Socket a;
  EXPECT_EQ(a.send(a.at("127.0.0.1"), std::string(70'000, 'x')), -1);
}

TEST(NetsockUdp, PortUnreachableDoesNotFailALaterReceive) {
  const Socket a, b;
  lund_rv_endpoint nobody;
  {
    const Socket closed;
    nobody = closed.at("127.0.0.1");
  }
  ASSERT_EQ(a.send(nobody, "lost"), 0);
  ASSERT_EQ(a.send(nobody, "lost too"), 0);  // the first one's ICMP answer is back by now
  ASSERT_EQ(b.send(a.at("127.0.0.1"), "alive"), 0);
  EXPECT_EQ(receive(a).text, "alive");
}

TEST(NetsockUdp, TakenPortFailsToOpen) {
  const Socket first(4, "127.0.0.1");
  const Socket second(4, "127.0.0.1", lund_udp_local_port(first.handle));
  EXPECT_EQ(second.handle, LUND_NO_SOCKET);
}

TEST(NetsockUdp, BindsToTheGivenAddressOnly) {
  const Socket bound(4, "127.0.0.2"), other(4, "127.0.0.1");
  ASSERT_NE(bound.handle, LUND_NO_SOCKET);
  ASSERT_EQ(bound.send(other.at("127.0.0.1"), "x"), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(receive(other).from, bound.at("127.0.0.2")));
}

TEST(NetsockUdp, AddressOfAnotherMachineFailsToBind) {
  const Socket foreign(4, "192.0.2.1");
  EXPECT_EQ(foreign.handle, LUND_NO_SOCKET);
}

TEST(NetsockUdp, BuffersTakeABurstOfVideo) {
  const Socket a;
  // The system may cut what an unprivileged process asks for.
  const int granted = int_option(a, SOL_SOCKET, SO_RCVBUF);
  if (granted < 0x400000) GTEST_SKIP() << "limited to " << granted << " by the system";
  EXPECT_GE(int_option(a, SOL_SOCKET, SO_SNDBUF), 0x400000);
}

TEST(NetsockUdp, LocalPortOfNoSocketIsZero) {
  EXPECT_EQ(lund_udp_local_port(LUND_NO_SOCKET), 0);
}

TEST(NetsockUdp, WaitTimesOutAfterItsTime) {
  const Socket a;
  const std::uint64_t start_us = lund_now_us();
  EXPECT_EQ(lund_udp_wait(&a.handle, 1, 30), 0);
  EXPECT_GE(lund_now_us() - start_us, 29'000u);
  EXPECT_EQ(lund_udp_wait(&a.handle, 1, 0), 0);
  EXPECT_EQ(lund_udp_wait(&a.handle, 1, -5), 0);
}

TEST(NetsockUdp, WaitSeesAnyOfItsSockets) {
  const Socket a, b;
  const std::array<lund_socket, 3> both = {a.handle, b.handle, a.handle};
  EXPECT_EQ(lund_udp_wait(both.data(), 3, 0), 0);
  ASSERT_EQ(a.send(b.at("127.0.0.1"), "x"), 0);
  EXPECT_EQ(lund_udp_wait(both.data(), 3, PATIENCE_MS), 1);
}

TEST(NetsockUdp, WaitSkipsDuplicatesBeyondSixtyFour) {
  const Socket a;
  const std::vector<lund_socket> same(100, a.handle);
  EXPECT_EQ(lund_udp_wait(same.data(), 100, 0), 0);
}

TEST(NetsockUdp, WaitRefusesSixtyFiveSocketsNoneAndAnInvalidOne) {
  std::vector<lund_socket> many;
  for (int i = 0; i < 65; ++i) many.push_back(lund_udp_open(4, nullptr, 0));
  EXPECT_EQ(lund_udp_wait(many.data(), 64, 0), 0);
  EXPECT_EQ(lund_udp_wait(many.data(), 65, 0), -1);
  EXPECT_EQ(lund_udp_wait(many.data(), 0, 0), -1);
  const lund_socket none = LUND_NO_SOCKET;
  EXPECT_EQ(lund_udp_wait(&none, 1, 0), -1);
  for (const lund_socket one : many) lund_udp_close(one);
  EXPECT_EQ(lund_udp_wait(many.data(), 1, 0), -1);
}

TEST(NetsockResolve, LiteralsNeedNoLookup) {
  lund_rv_endpoint out;
  ASSERT_EQ(lund_net_resolve("127.0.0.1", 5, &out), 0);
  EXPECT_EQ(out.port, 5);
  ASSERT_EQ(lund_net_resolve("[::1]:7", 5, &out), 0);
  EXPECT_EQ(out.family, 6);
  EXPECT_EQ(out.port, 7);
}

TEST(NetsockResolve, LocalhostResolvesToIpv4WithTheCallersPort) {
  lund_rv_endpoint out;
  ASSERT_EQ(lund_net_resolve("localhost", 5, &out), 0);
  EXPECT_EQ(out.family, 4);
  EXPECT_EQ(out.address[0], 127);
  EXPECT_EQ(out.port, 5);
  ASSERT_EQ(lund_net_resolve("localhost:7", 5, &out), 0);
  EXPECT_EQ(out.port, 7);
}

TEST(NetsockResolve, MalformedNamesFailWithoutALookup) {
  lund_rv_endpoint out;
  const std::string long_name(256, 'a');
  for (const char* text : {static_cast<const char*>(nullptr), "", ":80", "localhost:0",
                           "localhost:", "localhost:65536", "localhost:8x", long_name.c_str()})
    EXPECT_EQ(lund_net_resolve(text, 5, &out), -1) << (text != nullptr ? text : "null");
}

TEST(NetsockLocal, EndpointsCarryThePortAndNoLoopback) {
  lund_rv_endpoint found[16];
  const int count = lund_net_local_endpoints(found, 16, 4321);
  ASSERT_GE(count, 0);
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(found[i].family, 4);
    EXPECT_EQ(found[i].port, 4321);
    EXPECT_NE(found[i].address[0], 127);
  }
  EXPECT_EQ(lund_net_local_endpoints(found, 0, 4321), 0);
  EXPECT_LE(lund_net_local_endpoints(found, 1, 4321), 1);
}
