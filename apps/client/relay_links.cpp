#include "apps/client/relay_links.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>

namespace client_app {

namespace {

constexpr char BLANKS[] = " \t\r\n";

bool same_key(const lund_relay_server& a, const lund_relay_server& b) {
  return a.key_size == b.key_size && std::memcmp(a.key, b.key, a.key_size) == 0;
}

const lund_relay_server* find(const lund_relay_config& relays, const lund_relay_server& server) {
  const auto* end = relays.servers + relays.count;
  const auto* found = std::find_if(relays.servers, end, [&](const lund_relay_server& other) {
    return lund_relay_server_same(&other, &server);
  });
  return found == end ? nullptr : found;
}

bool add_link(const std::string& link, const std::string& where, lund_relay_config* relays,
              std::string* error) {
  if (lund_relay_config_add_link(relays, link.c_str()) >= 0) return true;
  *error = relays->count == LUND_RELAYS_MAX
               ? "more than 8 relay servers"
               : where + " is not a relay link (lunderhaze-relay://host[:port]#key)";
  return false;
}

}  // namespace

std::string relay_name(const lund_relay_server& server) {
  char name[300];
  lund_relay_server_name(name, sizeof name, &server);
  return name;
}

bool read_relay_links(std::istream& in, const std::string& source, lund_relay_config* relays,
                      std::string* error) {
  std::string line;
  bool good = true;
  for (int number = 1; good && std::getline(in, line); ++number) {
    if (line.find_first_not_of(BLANKS) != std::string::npos)
      good = add_link(line, "line " + std::to_string(number) + " of " + source, relays, error);
    lund_secure_wipe(line.data(), line.size());
  }
  return good;
}

bool add_relay_link(const std::string& link, lund_relay_config* relays, std::string* error) {
  if (link == "-") return read_relay_links(std::cin, "standard input", relays, error);
  return add_link(link, "what was given", relays, error);
}

bool given_relays(const std::vector<std::string>& links, const std::filesystem::path& file,
                  lund_relay_config* relays, std::string* error) {
  for (const std::string& link : links)
    if (!add_relay_link(link, relays, error)) return false;
  if (file.empty()) return true;
  std::ifstream in(file);
  if (!in) {
    *error = "cannot read " + file.string();
    return false;
  }
  return read_relay_links(in, file.string(), relays, error);
}

lund_relay_config relays_to_use(const lund_relay_config& given,
                                const lund_relay_config& remembered) {
  lund_relay_config all = given;
  for (int i = 0; i < remembered.count; ++i)
    if (!find(given, remembered.servers[i]))
      lund_relay_config_add(&all, &remembered.servers[i]);  // a full list leaves out the rest
  return all;
}

void remember_relays(const lund_relay_config& given, ClientStore* store, std::string* text) {
  for (int i = 0; i < given.count; ++i) {
    const lund_relay_server& server = given.servers[i];
    const lund_relay_server* known = find(store->relays(), server);
    if (known && same_key(*known, server)) continue;
    std::string error;
    *text += store->put_relay(server, &error)
                 ? "relay server " + relay_name(server) + " is remembered\n"
                 : "relay server " + relay_name(server) + " is not remembered: " + error + "\n";
  }
}

}  // namespace client_app
