#include "control/pair_back.h"

#include "connection/byte_order.h"

std::uint32_t pair_back_value(const lund_rv_endpoint& ipv4) {
  return load_le<std::uint32_t>(ipv4.address.data());
}

lund_rv_endpoint pair_back_address(std::uint32_t value, std::uint16_t port) {
  lund_rv_endpoint address;
  address.family = 4;
  address.port = port;
  store_le(address.address.data(), value);
  return address;
}
