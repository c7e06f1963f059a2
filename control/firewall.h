// This computer's firewall, as far as it stands between clients and the host's UDP port: one rule,
// for private networks alone, never for public ones. Changes need an administrator's rights and
// take 15 s at most, since another program makes them. Stateless; any thread, one writer at a time.
#pragma once

#include <cstdint>
#include <string>

// Lets clients in at the port, in place of a former rule whatever its port. `text` becomes what was
// done, or why it couldn't be: no firewall that is known here, none that is active, no rights.
bool add_firewall_rule(std::uint16_t port, std::string* text);

// True as well when there was none to remove.
bool remove_firewall_rule(std::string* text);

struct FirewallStatus {
  enum class State {
    None,     // no firewall that is known here is active
    Open,     // clients on private networks are let in at the port
    Closed,   // they aren't
    Unknown,  // it can't be told, as without an administrator's rights
  };
  State state = State::Unknown;
  std::string text;  // for a person
};
// Changes nothing. Takes 5 s at most.
FirewallStatus firewall_status(std::uint16_t port);
