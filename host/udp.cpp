#include "host/udp.h"

#include <bit>

#include "control/adapters.h"

std::string ipv4_string(std::uint32_t ip) {
  return ipv4_text(ip);
}

std::string Peer::str() const {
  const std::array<std::uint8_t, 4> ip = {address.address[0], address.address[1],
                                          address.address[2], address.address[3]};
  return ipv4_string(std::bit_cast<std::uint32_t>(ip)) + ":" + std::to_string(address.port);
}
