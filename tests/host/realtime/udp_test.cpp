#include "host/udp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int RECEIVE_TIMEOUT_MS = 10'000;  // only a datagram that got lost reaches it

std::uint32_t ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  return std::bit_cast<std::uint32_t>(std::array<std::uint8_t, 4>{a, b, c, d});
}

lund_rv_endpoint endpoint(const std::string& text, std::uint16_t port) {
  lund_rv_endpoint address;
  EXPECT_EQ(lund_addr_parse(&address, text.c_str(), port), 0);
  return address;
}

// A plain socket on the other side.
class Remote {
 public:
  Remote() : socket_(lund_udp_open(4, nullptr, 0)) {}
  ~Remote() { lund_udp_close(socket_); }

  std::uint16_t port() const { return lund_udp_local_port(socket_); }
  lund_rv_endpoint address() const { return endpoint("127.0.0.1", port()); }

  void send(const std::string& text, const lund_rv_endpoint& to) {
    ASSERT_EQ(lund_udp_send(socket_, to, text.data(), text.size()), 0);
  }

  std::string receive(lund_rv_endpoint* from = nullptr) {
    char buffer[2048];
    lund_rv_endpoint sender;
    if (lund_udp_wait(&socket_, 1, RECEIVE_TIMEOUT_MS) != 1) return "nothing came";
    const int size = lund_udp_recv(socket_, buffer, sizeof(buffer), &sender);
    if (from != nullptr) *from = sender;
    return size < 0 ? "error" : std::string(buffer, static_cast<std::size_t>(size));
  }

 private:
  lund_socket socket_;
};

bool send_text(UdpSocket& socket, const std::string& text, const lund_rv_endpoint& to) {
  return socket.send(text.data(), text.size(), to);
}

// The port that the system chose for a socket opened with 0.
std::uint16_t port_of(UdpSocket& socket) {
  Remote remote;
  lund_rv_endpoint from;
  EXPECT_TRUE(send_text(socket, "?", remote.address()));
  EXPECT_EQ(remote.receive(&from), "?");
  return from.port;
}

struct Opened {
  UdpSocket socket;
  std::uint16_t port = 0;
  Opened() {
    std::string error;
    EXPECT_TRUE(socket.open(0, &error)) << error;
    port = port_of(socket);
  }
  std::string receive(Peer* peer, int size = 2048) {
    std::vector<std::uint8_t> buffer(2048);
    const int received = socket.recv(buffer.data(), size, peer);
    return received < 0 ? "error" : std::string(buffer.begin(), buffer.begin() + received);
  }
};

TEST(UdpSocket, ADatagramComesWithItsSenderAndTheAddressItWasSentTo) {
  Opened opened;
  Remote remote;
  remote.send("hello", endpoint("127.0.0.1", opened.port));
  Peer peer;
  EXPECT_EQ(opened.receive(&peer), "hello");
  EXPECT_TRUE(lund_rv_endpoint_equal(peer.address, remote.address()));
  EXPECT_EQ(peer.str(), "127.0.0.1:" + std::to_string(remote.port()));
  EXPECT_EQ(peer.source_ip, ip(127, 0, 0, 1));
}

TEST(UdpSocket, TheAddressSentToIsKnownForEachDatagramApart) {
  Opened opened;
  Remote remote;
  Peer peer;
  remote.send("a", endpoint("127.0.0.5", opened.port));
  remote.send("b", endpoint("127.0.0.6", opened.port));
  EXPECT_EQ(opened.receive(&peer), "a");
  EXPECT_EQ(peer.source_ip, ip(127, 0, 0, 5));
  EXPECT_EQ(opened.receive(&peer), "b");
  EXPECT_EQ(peer.source_ip, ip(127, 0, 0, 6));
}

TEST(UdpSocket, SendFromLeavesByTheGivenAddress) {
  Opened opened;
  Remote remote;
  lund_rv_endpoint from;
  EXPECT_TRUE(opened.socket.send_from("x", 1, remote.address(), ip(127, 0, 0, 9)));
  EXPECT_EQ(remote.receive(&from), "x");
  EXPECT_TRUE(lund_rv_endpoint_equal(from, endpoint("127.0.0.9", opened.port)));
}

TEST(UdpSocket, SendFromWithSourceZeroBehavesAsSend) {
  Opened opened;
  Remote remote;
  lund_rv_endpoint from;
  EXPECT_TRUE(opened.socket.send_from("x", 1, remote.address(), 0));
  EXPECT_EQ(remote.receive(&from), "x");
  EXPECT_TRUE(lund_rv_endpoint_equal(from, endpoint("127.0.0.1", opened.port)));
}

TEST(UdpSocket, SendFromAnAddressThatIsNotOursStillSends) {
  Opened opened;
  Remote remote;
  lund_rv_endpoint from;
  EXPECT_TRUE(opened.socket.send_from("x", 1, remote.address(), ip(192, 0, 2, 1)));
  EXPECT_EQ(remote.receive(&from), "x");
  EXPECT_TRUE(lund_rv_endpoint_equal(from, endpoint("127.0.0.1", opened.port)));
}

TEST(UdpSocket, ADatagramTooLongForTheBufferIsLostAndGivesZero) {
  Opened opened;
  Remote remote;
  Peer peer;
  remote.send("12345678", endpoint("127.0.0.1", opened.port));
  remote.send("next", endpoint("127.0.0.1", opened.port));
  EXPECT_EQ(opened.receive(&peer, 7), "");
  EXPECT_EQ(opened.receive(&peer, 7), "next");
}

TEST(UdpSocket, ADatagramThatJustFitsIsWhole) {
  Opened opened;
  Remote remote;
  Peer peer;
  remote.send("1234567", endpoint("127.0.0.1", opened.port));
  EXPECT_EQ(opened.receive(&peer, 7), "1234567");
}

TEST(UdpSocket, AnUnreachablePeerDoesNotFailTheNextReceive) {
  Opened opened;
  std::uint16_t dead_port = 0;
  {
    Remote gone;
    dead_port = gone.port();
  }
  send_text(opened.socket, "anyone?", endpoint("127.0.0.1", dead_port));
  send_text(opened.socket, "self", endpoint("127.0.0.1", opened.port));
  Peer peer;
  EXPECT_EQ(opened.receive(&peer), "self");
}

TEST(UdpSocket, ADatagramThatTheSystemRefusesIsFalse) {
  Opened opened;
  const std::vector<std::uint8_t> huge(65'536);
  Remote remote;
  EXPECT_FALSE(opened.socket.send(huge.data(), huge.size(), remote.address()));
  EXPECT_FALSE(opened.socket.send("x", 1, endpoint("::1", remote.port())));
  EXPECT_FALSE(opened.socket.send("x", 1, lund_rv_endpoint{}));
}

TEST(UdpSocket, ATakenPortFailsInTheBindStepAndLeavesTheSocketClosed) {
  Opened opened;
  UdpSocket second;
  std::string error;
  EXPECT_FALSE(second.open(opened.port, &error));
  EXPECT_TRUE(error.starts_with("bind failed (")) << error;
  EXPECT_FALSE(second.is_open());
  EXPECT_FALSE(second.open(opened.port, nullptr));
  opened.socket.close();
  EXPECT_TRUE(second.open(opened.port, &error)) << error;
}

TEST(UdpSocket, AClosedSocketNeitherSendsNorReceives) {
  UdpSocket socket;
  Remote remote;
  Peer peer;
  std::uint8_t buffer[16];
  EXPECT_FALSE(socket.is_open());
  EXPECT_FALSE(send_text(socket, "x", remote.address()));
  EXPECT_FALSE(socket.send_from("x", 1, remote.address(), ip(127, 0, 0, 1)));
  EXPECT_EQ(socket.recv(buffer, sizeof(buffer), &peer), -1);
}

TEST(UdpSocket, ClosingTwiceIsHarmless) {
  Opened opened;
  opened.socket.close();
  opened.socket.close();
  EXPECT_FALSE(opened.socket.is_open());
}

// Whether the thread blocks already or is on its way there, the call must end: both come about in
// this many rounds. The port must be free again as soon as the receiver has left.
TEST(UdpSocket, CloseEndsABlockedReceiveAndTheSocketOpensAgainOnTheSamePort) {
  UdpSocket socket;
  ASSERT_TRUE(socket.open(0, nullptr));
  const std::uint16_t port = port_of(socket);
  for (int round = 0; round < 200; ++round) {
    std::atomic<bool> receiving{false};
    std::thread receiver([&] {
      std::uint8_t buffer[16];
      Peer peer;
      receiving = true;
      EXPECT_EQ(socket.recv(buffer, sizeof(buffer), &peer), -1);
      EXPECT_FALSE(socket.is_open());
    });
    while (!receiving) std::this_thread::yield();
    for (int i = 0; i < round; ++i) std::this_thread::yield();
    socket.close();
    receiver.join();
    std::string error;
    ASSERT_TRUE(socket.open(port, &error)) << error;
  }
}

TEST(UdpSocket, SendersMayRunWhileTheSocketClosesAndOpens) {
  UdpSocket socket;
  Remote remote;
  const lund_rv_endpoint to = remote.address();
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  senders.reserve(3);
  for (int i = 0; i < 3; ++i) {
    senders.emplace_back([&] {
      while (!stop) {
        send_text(socket, "x", to);
        socket.send_from("x", 1, to, ip(127, 0, 0, 1));
        socket.qos_set_peer(to);
      }
    });
  }
  std::string error;
  for (int round = 0; round < 300 && error.empty(); ++round) {
    EXPECT_TRUE(socket.open(0, &error)) << error;
    socket.close();
  }
  stop = true;
  for (std::thread& sender : senders) sender.join();
}

TEST(Ipv4String, IsDottedDecimalFromNetworkOrder) {
  EXPECT_EQ(ipv4_string(ip(192, 168, 1, 250)), "192.168.1.250");
  EXPECT_EQ(ipv4_string(0), "0.0.0.0");
}

TEST(Peer, OneNeverFilledReadsAsZeros) {
  EXPECT_EQ(Peer{}.str(), "0.0.0.0:0");
  EXPECT_EQ(Peer{}.source_ip, 0u);
}

}  // namespace
