// Addresses as keys of this server's tables, and the block of addresses that counts as one party.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "apps/rendezvous/siphash.h"
#include "connection/netsock.h"

// Whoever stands behind an address, as far as limits are concerned: an IPv4 address, or the /64 of
// an IPv6 address, within which one subscriber may take any.
struct AddressBlock {
  explicit AddressBlock(const lund_rv_endpoint& address) : family(address.family) {
    const std::size_t size = address.family == 4 ? 4 : bytes.size();
    std::copy_n(address.address.begin(), size, bytes.begin());
  }
  bool operator==(const AddressBlock&) const = default;

  std::uint8_t family;
  std::array<std::uint8_t, 8> bytes{};
};

struct AddressHash {
  SipKey key;
  std::size_t operator()(const AddressBlock& block) const {
    SipState state(key);
    state.add(load_le<std::uint64_t>(block.bytes.data()));
    state.add(block.family);
    return state.finish();
  }
  std::size_t operator()(const lund_rv_endpoint& address) const {
    SipState state(key);
    state.add(load_le<std::uint64_t>(address.address.data()));
    state.add(load_le<std::uint64_t>(address.address.data() + 8));
    state.add(std::uint64_t{address.port} << 8 | address.family);
    return state.finish();
  }
};

struct SameAddress {
  bool operator()(const lund_rv_endpoint& a, const lund_rv_endpoint& b) const {
    return lund_rv_endpoint_equal(a, b);
  }
};
