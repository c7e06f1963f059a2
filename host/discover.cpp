#include "host/discover.h"

#include <algorithm>
#include <cstring>

std::uint32_t discover_source(const std::vector<LocalInterface>& interfaces, const Peer& peer) {
  const auto is_destination = [&](const LocalInterface& local) {
    return local.address == peer.source_ip;
  };
  if (peer.source_ip != 0 && std::ranges::any_of(interfaces, is_destination)) return peer.source_ip;

  std::uint32_t sender = 0;  // network order, as the interfaces have it
  std::memcpy(&sender, peer.address.address.data(), sizeof sender);
  std::uint32_t found = 0;
  for (const LocalInterface& local : interfaces) {
    if (local.mask == 0 || ((local.address ^ sender) & local.mask) != 0) continue;
    if (local.ethernet) return local.address;
    if (found == 0) found = local.address;
  }
  return found;
}
