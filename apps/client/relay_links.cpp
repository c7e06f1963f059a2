#include "apps/client/relay_links.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace client_app {

namespace {

const lund_relay_server* find(const lund_relay_config& relays, const lund_relay_server& server) {
  const auto* end = relays.servers + relays.count;
  const auto* found = std::find_if(relays.servers, end, [&](const lund_relay_server& other) {
    return lund_relay_server_same(&other, &server);
  });
  return found == end ? nullptr : found;
}

bool is_remembered(const lund_relay_config& relays, const lund_relay_server& server) {
  const lund_relay_server* known = find(relays, server);
  return known && known->key_size == server.key_size &&
         std::memcmp(known->key, server.key, server.key_size) == 0;
}

}  // namespace

bool given_relays(const std::vector<std::string>& links, const std::filesystem::path& file,
                  lund_relay_config* relays, std::string* error) {
  std::vector<std::string> all = with_standard_input(links);
  if (!file.empty()) {
    std::ifstream in(file);
    if (!in) {
      *error = "cannot read " + file.string();
      return false;
    }
    for (std::string& link : read_links(in)) all.push_back(std::move(link));
  }
  const bool good = add_relays(relays, all, error) == ListChange::Done;
  for (std::string& link : all) lund_secure_wipe(link.data(), link.size());
  return good;
}

void relays_to_use(const lund_relay_config& given, const lund_relay_config& remembered,
                   lund_relay_config* all) {
  *all = given;
  for (int i = 0; i < remembered.count; ++i)
    if (!find(given, remembered.servers[i]))
      lund_relay_config_add(all, &remembered.servers[i]);  // a full list leaves out the rest
}

std::string remember_relays(const lund_relay_config& given, ClientStore* store) {
  std::string lines;
  std::string error;
  const auto add = [&](lund_relay_config* relays) {
    for (int i = 0; i < given.count; ++i) {
      const lund_relay_server& server = given.servers[i];
      if (is_remembered(*relays, server)) continue;
      lines += "relay server " + relay_name(server) +
               (lund_relay_config_add(relays, &server) >= 0
                    ? " is remembered\n"
                    : " is not remembered: there are 8 already\n");
    }
    return !lines.empty();
  };
  if (given.count == 0) return {};
  return store->change_relays(add, &error) ? lines : error + "\n";
}

}  // namespace client_app
