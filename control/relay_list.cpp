#include "control/relay_list.h"

#include <cstdio>
#include <future>
#include <iostream>

#include "connection/conn.h"
#include "connection/resolver.h"
#include "control/host_commands.h"

namespace {

bool is_listed(const lund_relay_config& relays, const lund_relay_server& server) {
  for (int i = 0; i < relays.count; ++i)
    if (lund_relay_server_same(&relays.servers[i], &server)) return true;
  return false;
}

}  // namespace

std::string relay_name(const lund_relay_server& server) {
  char name[300];
  lund_relay_server_name(name, sizeof name, &server);
  return name;
}

ListChange add_relays(lund_relay_config* relays, const std::vector<std::string>& links,
                      std::string* text) {
  lund_relay_config changed(*relays);
  std::string lines;
  for (std::size_t i = 0; i < links.size(); ++i) {
    lund_relay_config parsed;
    lund_relay_server& server = parsed.servers[0];
    if (lund_relay_link_parse(&server, links[i].c_str()) != 0) {
      *text = "link " + std::to_string(i + 1) +
              " is no relay link (lunderhaze-relay://host[:port]#key)";
      return ListChange::BadArgument;
    }
    const bool known = is_listed(changed, server);
    if (lund_relay_config_add(&changed, &server) < 0) {
      *text = std::to_string(LUND_RELAYS_MAX) + " relay servers are listed already";
      return ListChange::Full;
    }
    lines += relay_name(server) + (known ? ": replaced\n" : ": added\n");
  }
  *relays = changed;
  *text = lines;
  return ListChange::Done;
}

ListChange remove_relay(lund_relay_config* relays, const std::string& which, std::string* text) {
  int found = -1;
  int matches = 0;
  const auto number = parse_number(which, 1, static_cast<std::uint32_t>(relays->count));
  for (int i = 0; i < relays->count; ++i) {
    const lund_relay_server& server = relays->servers[i];
    const bool exact = conn_strieq(which.c_str(), relay_name(server).c_str());
    if (!exact && !conn_strieq(which.c_str(), server.host) &&
        number != static_cast<std::uint32_t>(i + 1))
      continue;
    found = i;
    if (exact) {
      matches = 1;
      break;
    }
    ++matches;
  }
  if (matches != 1) {
    *text = matches == 0 ? "no such relay server is listed"
                         : "several relay servers have that name: say host:port";
    return ListChange::BadArgument;
  }
  *text = relay_name(relays->servers[found]) + ": removed\n";
  lund_relay_config_remove(relays, found);
  return ListChange::Done;
}

std::string relay_lines(const lund_relay_config& relays) {
  std::string lines;
  for (int i = 0; i < relays.count; ++i)
    lines += std::to_string(i + 1) + "  " + relay_name(relays.servers[i]) + "\n";
  return lines.empty() ? "no relay servers\n" : lines;
}

std::vector<std::string> read_links(std::istream& in) {
  std::vector<std::string> links;
  for (std::string line; std::getline(in, line);)
    if (line.find_first_not_of(" \t\r") != std::string::npos) links.push_back(line);
  return links;
}

std::vector<std::string> with_standard_input(const std::vector<std::string>& links) {
  std::vector<std::string> all;
  for (const std::string& link : links) {
    if (link != "-") {
      all.push_back(link);
      continue;
    }
    for (std::string& line : read_links(std::cin)) all.push_back(std::move(line));
  }
  return all;
}

std::vector<RelayCheck> check_relays(const lund_relay_config& relays, int timeout_ms) {
  std::vector<std::future<RelayCheck>> running;
  running.reserve(LUND_RELAYS_MAX);
  for (int i = 0; i < relays.count; ++i) {
    running.push_back(std::async(std::launch::async, [server = &relays.servers[i], timeout_ms] {
      RelayCheck check;
      check.result = lund_relay_check(server, timeout_ms, &check.rtt_us);
      return check;
    }));
  }
  std::vector<RelayCheck> checks;
  checks.reserve(running.size());
  for (auto& check : running) checks.push_back(check.get());
  return checks;
}

std::string check_line(const std::string& name, const RelayCheck& check) {
  char reachable[64];
  std::snprintf(reachable, sizeof reachable, "reachable (%.1f ms)",
                static_cast<double>(check.rtt_us) / 1e3);
  switch (check.result) {
    case LUND_RELAY_REACHABLE:
      return name + ": " + reachable;
    case LUND_RELAY_NO_ANSWER:
      return name + ": no answer: offline, blocked, or wrong secret";
    case LUND_RELAY_NO_NAME:
      return name + ": name not found";
    default:
      return name + ": could not be asked: a failure of this computer";
  }
}
