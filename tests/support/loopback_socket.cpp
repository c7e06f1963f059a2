#include "tests/support/loopback_socket.h"

#include <gtest/gtest.h>

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

LoopbackSocket::LoopbackSocket(const std::string& address) {
  lund_net_init();
  lund_addr_parse(&address_, address.c_str(), 0);
  socket_ = lund_udp_open(4, &address_, 0);
  EXPECT_NE(socket_, LUND_NO_SOCKET) << address;
  address_.port = lund_udp_local_port(socket_);
}

bool LoopbackSocket::send(const lund_rv_endpoint& to, const Bytes& bytes) const {
  return lund_udp_send(socket_, to, bytes.data(), bytes.size()) == 0;
}

std::optional<LoopbackSocket::Bytes> LoopbackSocket::receive(milliseconds deadline) const {
  const auto end = Clock::now() + deadline;
  Bytes out(2048);
  lund_rv_endpoint from;
  while (true) {
    const int size = lund_udp_recv(socket_, out.data(), out.size(), &from);
    if (size >= 0) {
      out.resize(static_cast<std::size_t>(size));
      return out;
    }
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    if (left.count() <= 0) return std::nullopt;
    lund_udp_wait(&socket_, 1, static_cast<int>(left.count()));
  }
}
