// The marks as they arrive on the wire, and what happens where the system refuses them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

#include "host/udp.h"

namespace {

constexpr int EF_TOS = 46 << 2;
constexpr int CS5_TOS = 40 << 2;
constexpr int RECEIVE_TIMEOUT_MS = 10'000;

// Marks at or above this one are refused, as by a security policy.
std::atomic<int> refused_from_tos{INT_MAX};

int tos_of(const msghdr* message) {
  auto* header = const_cast<msghdr*>(message);
  for (cmsghdr* entry = CMSG_FIRSTHDR(header); entry != nullptr;
       entry = CMSG_NXTHDR(header, entry)) {
    if (entry->cmsg_level != IPPROTO_IP || entry->cmsg_type != IP_TOS) continue;
    int tos = 0;  // a byte when received, an int when sent
    std::memcpy(&tos, CMSG_DATA(entry), entry->cmsg_len - CMSG_LEN(0));
    return tos;
  }
  return 0;
}

}  // namespace

// Stands before the C library's: every datagram of this program passes here.
extern "C" ssize_t sendmsg(int descriptor, const msghdr* message, int flags) {
  if (tos_of(message) >= refused_from_tos) {
    errno = EPERM;
    return -1;
  }
  return syscall(SYS_sendmsg, descriptor, message, flags);
}

namespace {

class Receiver {
 public:
  Receiver() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(socket_, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on));
    sockaddr_in local = loopback();
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof(local)), 0);
  }
  ~Receiver() { close(socket_); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  lund_rv_endpoint address() const {
    sockaddr_in local{};
    socklen_t size = sizeof(local);
    getsockname(socket_, reinterpret_cast<sockaddr*>(&local), &size);
    lund_rv_endpoint address;
    lund_addr_from_sockaddr(&address, reinterpret_cast<sockaddr*>(&local), sizeof(local));
    return address;
  }

  // The TOS byte of the next datagram; -1 when none comes.
  int receive_tos() {
    pollfd polled{socket_, POLLIN, 0};
    if (poll(&polled, 1, RECEIVE_TIMEOUT_MS) != 1) return -1;
    char buffer[64];
    iovec bytes{buffer, sizeof(buffer)};
    alignas(cmsghdr) char control[256];
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    return recvmsg(socket_, &message, 0) < 0 ? -1 : tos_of(&message);
  }

 private:
  static sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  int socket_;
};

class UdpMarking : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(socket_.open(0, nullptr)); }
  void TearDown() override { refused_from_tos = INT_MAX; }

  int tos_at(Receiver& receiver) {
    EXPECT_TRUE(socket_.send("x", 1, receiver.address()));
    return receiver.receive_tos();
  }
  int tos_from_at(std::uint32_t source_ip, Receiver& receiver) {
    EXPECT_TRUE(socket_.send_from("x", 1, receiver.address(), source_ip));
    return receiver.receive_tos();
  }

  UdpSocket socket_;
  Receiver client_;
  Receiver other_;
};

TEST_F(UdpMarking, NothingIsMarkedUntilAPeerIsSet) {
  EXPECT_EQ(tos_at(client_), 0);
}

TEST_F(UdpMarking, OnlyTrafficToThePeerCarriesDscp46) {
  socket_.qos_set_peer(client_.address());
  EXPECT_EQ(tos_at(client_), EF_TOS);
  EXPECT_EQ(tos_at(other_), 0);
  EXPECT_EQ(tos_at(client_), EF_TOS);
}

TEST_F(UdpMarking, ADatagramWithASourceAddressIsMarkedToo) {
  socket_.qos_set_peer(client_.address());
  EXPECT_EQ(tos_from_at(htonl(INADDR_LOOPBACK), client_), EF_TOS);
  EXPECT_EQ(tos_from_at(htonl(0xC0000201), client_), EF_TOS);  // 192.0.2.1 isn't ours
  EXPECT_EQ(tos_from_at(htonl(INADDR_LOOPBACK), other_), 0);
}

TEST_F(UdpMarking, AnotherPeerReplacesTheFormer) {
  socket_.qos_set_peer(client_.address());
  socket_.qos_set_peer(other_.address());
  EXPECT_EQ(tos_at(client_), 0);
  EXPECT_EQ(tos_at(other_), EF_TOS);
}

TEST_F(UdpMarking, ClearingEndsTheMarksAndIsHarmlessWithoutAny) {
  socket_.qos_clear();
  socket_.qos_set_peer(client_.address());
  socket_.qos_clear();
  socket_.qos_clear();
  EXPECT_EQ(tos_at(client_), 0);
}

TEST_F(UdpMarking, TheMarkEndsWithTheSocket) {
  socket_.qos_set_peer(client_.address());
  socket_.close();
  ASSERT_TRUE(socket_.open(0, nullptr));
  EXPECT_EQ(tos_at(client_), 0);
}

TEST_F(UdpMarking, ARefusedEfFallsBackToTheVideoClassWithoutLosingADatagram) {
  refused_from_tos = EF_TOS;
  socket_.qos_set_peer(client_.address());
  EXPECT_EQ(tos_at(client_), 0);  // the one that found out
  EXPECT_EQ(tos_at(client_), CS5_TOS);
  EXPECT_EQ(tos_from_at(htonl(INADDR_LOOPBACK), client_), CS5_TOS);
}

TEST_F(UdpMarking, WhereEveryMarkIsRefusedTheStreamGoesOnUnmarked) {
  refused_from_tos = 1;
  socket_.qos_set_peer(client_.address());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(tos_at(client_), 0);
}

TEST_F(UdpMarking, ADatagramThatFailsForAnotherReasonKeepsTheMark) {
  socket_.qos_set_peer(client_.address());
  const std::string huge(65'536, 'x');
  EXPECT_FALSE(socket_.send(huge.data(), huge.size(), client_.address()));
  EXPECT_EQ(tos_at(client_), EF_TOS);
}

// As behind a firewall that lets nothing out for a while: the mark isn't to blame.
TEST_F(UdpMarking, WhereUnmarkedDatagramsAreRefusedTooTheMarkStays) {
  socket_.qos_set_peer(client_.address());
  refused_from_tos = 0;
  EXPECT_FALSE(socket_.send("x", 1, client_.address()));
  refused_from_tos = INT_MAX;
  EXPECT_EQ(tos_at(client_), EF_TOS);
}

TEST(UdpInterrupted, ASignalEndsAReceiveAsMerelyInterrupted) {
  struct sigaction action {};
  struct sigaction former {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &former), 0);
  UdpSocket socket;
  ASSERT_TRUE(socket.open(0, nullptr));
  std::atomic<bool> ended{false};
  std::thread receiver([&] {
    std::uint8_t buffer[16];
    Peer peer;
    EXPECT_EQ(socket.recv(buffer, sizeof(buffer), &peer), -1);
    EXPECT_TRUE(UdpSocket::interrupted(socket.last_error()));
    ended = true;
  });
  // A signal that comes before the call blocks is lost, hence repeated.
  while (!ended) {
    pthread_kill(receiver.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  receiver.join();
  EXPECT_FALSE(UdpSocket::interrupted(EBADF));
  sigaction(SIGUSR1, &former, nullptr);
}

TEST(UdpErrorText, NamesTheStepAndTheErrorNumber) {
  UdpSocket first;
  ASSERT_TRUE(first.open(0, nullptr));
  Receiver receiver;
  lund_rv_endpoint taken = receiver.address();
  UdpSocket second;
  std::string error;
  EXPECT_FALSE(second.open(taken.port, &error));
  EXPECT_EQ(error, "bind failed (errno " + std::to_string(EADDRINUSE) + ")");
}

}  // namespace
