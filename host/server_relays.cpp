// Which relay servers a host has, and how it stands with each.
#include "control/log.h"
#include "control/text.h"
#include "host/server.h"

namespace {

constexpr std::int32_t ERROR_SERVER_FULL = 4;  // of LUND_RV_ERROR

std::string server_name(const lund_server_status& server) {
  const std::string host = server.host;
  const bool ipv6 = host.find(':') != host.npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(server.port);
}

std::string registered_text(std::uint32_t rtt_us) {
  char text[64];
  std::snprintf(text, sizeof text, "Registered (%.0f ms)", rtt_us / 1e3);
  return text;
}

std::string server_state(const lund_server_status& server) {
  switch (server.state) {
    case LUND_SERVER_RESOLVING:
      return "Looking up the name...";
    case LUND_SERVER_NO_NAME:
      return "Name not found";
    case LUND_SERVER_CONNECTING:
      return "Connecting...";
    case LUND_SERVER_NO_ANSWER:
      return "No answer: offline, blocked, or wrong secret";
    case LUND_SERVER_REGISTERED:
      return registered_text(server.rtt_us);
    case LUND_SERVER_REFUSED:
      if (server.error == ERROR_SERVER_FULL) return "Server full";
      return "Refused (error " + std::to_string(server.error) + ")";
    default:
      return "-";
  }
}

}  // namespace

// What the old resolver still finds in between is told to the new set, which takes of it what names
// one of its own servers.
void HostServer::set_relays(const lund_relay_config& relays) {
  std::scoped_lock lock(host_mutex_);
  if (!host_) return;
  lund_host_set_relay(host_, &relays);
  lund_resolver_stop(resolver_);
  resolver_ = lund_resolver_start_host(host_, &relays);
  hlog("relay servers: %d (list changed)", relays.count);
}

std::vector<std::pair<std::string, std::string>> HostServer::relay_states() {
  std::scoped_lock lock(host_mutex_);
  std::vector<std::pair<std::string, std::string>> states;
  if (!host_) return states;
  lund_server_status server;
  for (int i = 0; lund_host_server_status(host_, i, &server) == 0; ++i)
    states.emplace_back(server_name(server), server_state(server));
  return states;
}

std::vector<std::string> HostServer::internet_status() {
  std::scoped_lock lock(host_mutex_);
  std::vector<std::string> lines;
  if (!host_) return lines;
  std::string public_address;  // as the first server that knows this host sees it
  lund_server_status server;
  for (int i = 0; lund_host_server_status(host_, i, &server) == 0; ++i) {
    if (server.state == LUND_SERVER_REGISTERED && public_address.empty())
      public_address = addr_string(server.public_endpoint);
    lines.push_back("Relay " + server_name(server) + ": " + server_state(server));
  }
  const std::string first = lines.empty() ? "Internet: no relay servers (LAN / direct only)"
                            : public_address.empty()
                                ? "Internet: not registered yet (LAN / direct only)"
                                : "Internet: reachable by key code (public " + public_address + ")";
  lines.insert(lines.begin(), first);
  return lines;
}
