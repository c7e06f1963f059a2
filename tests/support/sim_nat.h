// A router that translates addresses, for NetSim, as RFC 4787 classes them. It stands in front of
// one node: what leaves gets the router's address and a port of its own, what arrives is let in by
// the rules of its kind. Deterministic.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>

#include "tests/support/netsim.h"

enum class NatKind {
  NONE,                // the inner address is the public one
  FULL_CONE,           // endpoint-independent mapping and filtering
  ADDRESS_RESTRICTED,  // address-dependent filtering
  PORT_RESTRICTED,     // address and port-dependent filtering
  SYMMETRIC,           // address and port-dependent mapping and filtering
};
const char* nat_kind_name(NatKind kind);

class SimNat {
 public:
  SimNat(NatKind kind, const lund_rv_endpoint& inner, const lund_rv_endpoint& public_address);

  // For NetSim's hooks; false drops the datagram.
  bool leave(NetSim::Datagram& datagram);
  bool arrive(NetSim::Datagram& datagram);

  // The router has forgotten its mappings: new ports from now on, and the old ones lead nowhere.
  void rebind();
  void rebind_to(const lund_rv_endpoint& public_address);  // of another public address too

 private:
  using Key = std::pair<std::array<std::uint8_t, 16>, std::uint16_t>;
  static Key key_of(const lund_rv_endpoint& address) { return {address.address, address.port}; }
  bool lets_in(std::uint16_t port, const lund_rv_endpoint& from) const;

  NatKind kind_;
  lund_rv_endpoint inner_, public_;
  std::uint16_t next_port_ = 40'000;
  std::map<Key, std::uint16_t> ports_;  // by destination; a cone's one under no destination
  std::set<std::pair<std::uint16_t, Key>> sent_to_;  // which port has sent where
};
