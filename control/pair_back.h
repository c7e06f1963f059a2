// How an offer to be reached in return (lund_pair_back) carries the offering host's addresses:
// `back_value` is its UDP port, each of `back_values` an IPv4 address whose first byte is the
// value's lowest, so that the four bytes stand on the wire in their usual order. Pure.
#pragma once

#include <cstdint>

#include "connection/netsock.h"

std::uint32_t pair_back_value(const lund_rv_endpoint& ipv4);
lund_rv_endpoint pair_back_address(std::uint32_t value, std::uint16_t port);
