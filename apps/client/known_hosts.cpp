#include "apps/client/known_hosts.h"

#include <algorithm>

namespace {

bool has_address(const FoundHost& found, const lund_rv_endpoint& address) {
  return std::ranges::any_of(found.addresses, [&](const lund_rv_endpoint& other) {
    return lund_rv_endpoint_equal(other, address);
  });
}

bool is_same(const FoundHost& found, const lund_host_entry& host) {
  return host.lan_id != 0 ? host.lan_id == found.reply.lan_id
                          : has_address(found, host.lan_endpoint);
}

}  // namespace

std::vector<lund_host_entry> updated_by(const std::vector<FoundHost>& found,
                                        const lund_host_list& known) {
  std::vector<lund_host_entry> changed;
  for (int i = 0; i < known.count; ++i) {
    lund_host_entry host = known.entries[i];
    const auto it =
        std::ranges::find_if(found, [&](const FoundHost& other) { return is_same(other, host); });
    if (it == found.end()) continue;
    const bool moved = !has_address(*it, host.lan_endpoint);
    if (!moved && host.lan_id == it->reply.lan_id) continue;
    host.lan_id = it->reply.lan_id;
    if (moved) host.lan_endpoint = it->addresses.front();
    changed.push_back(host);
  }
  return changed;
}

void learn(const PathHistory& paths, const LanSearch& lan, std::uint64_t now_s,
           lund_host_entry* host) {
  if (const auto address = paths.last_lan()) {
    host->lan_endpoint = *address;
    if (const std::uint32_t lan_id = lan.lan_id_at(*address)) host->lan_id = lan_id;
  }
  if (const auto address = paths.last_outside()) host->wan_endpoint = *address;
  host->last_used = now_s;
}
