#include "tests/support/sim_nat.h"

#include <algorithm>

const char* nat_kind_name(NatKind kind) {
  switch (kind) {
    case NatKind::NONE:
      return "None";
    case NatKind::FULL_CONE:
      return "FullCone";
    case NatKind::ADDRESS_RESTRICTED:
      return "AddressRestricted";
    case NatKind::PORT_RESTRICTED:
      return "PortRestricted";
    case NatKind::SYMMETRIC:
      return "Symmetric";
  }
  return "";
}

SimNat::SimNat(NatKind kind, const lund_rv_endpoint& inner, const lund_rv_endpoint& public_address)
    : kind_(kind), inner_(inner), public_(public_address) {}

bool SimNat::leave(NetSim::Datagram& datagram) {
  if (kind_ == NatKind::NONE || !lund_rv_endpoint_equal(datagram.from, inner_)) return true;
  const Key destination = key_of(datagram.to);
  const auto [mapping, is_new] =
      ports_.try_emplace(kind_ == NatKind::SYMMETRIC ? destination : Key{}, next_port_);
  if (is_new) next_port_ = static_cast<std::uint16_t>(next_port_ + 7);
  sent_to_.emplace(mapping->second, destination);
  datagram.from = public_;
  datagram.from.port = mapping->second;
  return true;
}

bool SimNat::arrive(NetSim::Datagram& datagram) {
  if (kind_ == NatKind::NONE) return true;
  if (lund_rv_endpoint_equal(datagram.to, inner_)) return false;  // nobody outside can reach it
  if (datagram.to.family != public_.family || datagram.to.address != public_.address) return true;
  if (!lets_in(datagram.to.port, datagram.from)) return false;
  datagram.to = inner_;
  return true;
}

bool SimNat::lets_in(std::uint16_t port, const lund_rv_endpoint& from) const {
  const auto used = [&](const auto& test) {
    return std::any_of(sent_to_.begin(), sent_to_.end(),
                       [&](const auto& one) { return one.first == port && test(one.second); });
  };
  switch (kind_) {
    case NatKind::FULL_CONE:
      return used([](const Key&) { return true; });
    case NatKind::ADDRESS_RESTRICTED:
      return used([&](const Key& to) { return to.first == from.address; });
    default:
      return used([&](const Key& to) { return to == key_of(from); });
  }
}

void SimNat::rebind() {
  ports_.clear();
  sent_to_.clear();
  next_port_ = static_cast<std::uint16_t>(next_port_ + 1000);
}

void SimNat::rebind_to(const lund_rv_endpoint& public_address) {
  rebind();
  public_ = public_address;
}
