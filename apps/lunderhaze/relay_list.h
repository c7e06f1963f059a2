// What the program does with the list of relay servers, and how it says so. A server is shown as
// host:port; its key never is, nor the link that holds it. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connection/lists.h"

// A list whose keys are wiped with its scope.
struct RelayList {
  lund_relay_config config;
  RelayList() = default;
  explicit RelayList(const lund_relay_config& from) : config(from) {}
  ~RelayList() { lund_secure_wipe(&config, sizeof config); }
  RelayList(const RelayList&) = delete;
  RelayList& operator=(const RelayList&) = delete;
};

std::string relay_name(const lund_relay_server& server);

enum class ListChange {
  Done,
  BadArgument,
  Full,
};
// All the links or none. `text`: a line for each, or what is wrong.
ListChange add_relays(lund_relay_config* relays, const std::vector<std::string>& links,
                      std::string* text);
// `which`: host:port, a host that stands in the list once, or the number that the list shows.
ListChange remove_relay(lund_relay_config* relays, const std::string& which, std::string* text);

std::string relay_lines(const lund_relay_config& relays);  // numbered from 1

// "relay.example:9877: reachable (12.3 ms)"; `result` is a lund_relay_check_result.
std::string check_line(const std::string& name, int result, std::uint64_t rtt_us);
