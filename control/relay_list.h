// What a program does with its user's list of relay servers, and how it says so. A server is shown
// as host:port; its key never is, nor the link that holds it. Pure, but for check_relays.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "connection/lists.h"

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

// One link a line, blank lines skipped. A link on the command line can be seen by every user of the
// computer; a file or standard input is for those to whom that matters.
std::vector<std::string> read_links(std::istream& in);
// Links of a command line, with "-" replaced by those on standard input.
std::vector<std::string> with_standard_input(const std::vector<std::string>& links);

// How one server answered: a lund_relay_check_result.
struct RelayCheck {
  int result = 0;
  std::uint64_t rtt_us = 0;
};
inline constexpr int RELAY_CHECK_MS = 1'500;  // what a server is given to answer
// All at once, a thread each; blocks for `timeout_ms` and the resolver's time.
std::vector<RelayCheck> check_relays(const lund_relay_config& relays, int timeout_ms);

// "relay.example:9877: reachable (12.3 ms)".
std::string check_line(const std::string& name, const RelayCheck& check);
