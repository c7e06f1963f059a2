#include "apps/rendezvous/serve.h"

#include <array>

namespace {

constexpr std::size_t DATAGRAM_MAX_BYTES = 2048;  // the protocol's longest is 1400
constexpr int DATAGRAMS_A_TURN = 256;

}  // namespace

bool receive_some(lund_socket socket, RendezvousServer& server) {
  std::array<std::uint8_t, DATAGRAM_MAX_BYTES> datagram;
  lund_rv_endpoint from;
  for (int i = 0; i < DATAGRAMS_A_TURN; ++i) {
    const int size = lund_udp_recv(socket, datagram.data(), datagram.size(), &from);
    if (size < 0) return false;
    if (size > 0) server.receive(datagram.data(), static_cast<std::size_t>(size), from);
  }
  return true;
}

RendezvousServer::Send send_by(lund_socket socket) {
  return [socket](const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size) {
    return lund_udp_send(socket, to, bytes, size) == 0;
  };
}
