// What `--host` means, and what the engine is told of it: key, code, addresses to try, and what to
// look for on the LAN.
#pragma once

#include <string>

#include "apps/client/host_link.h"
#include "control/client_store.h"

struct HostChoice {
  enum class Kind { Address, Code, Name };
  Kind kind = Kind::Name;
  std::string text;
  lund_rv_endpoint address;  // of an address
};

// A key code is one only as it is shown ("7K2M-Q9TX", in either case), or without the dash when it
// has a digit: a computer's name may well consist of such letters.
HostChoice parse_host(const std::string& text);

// Whom a pairing asks on the LAN; `known` may be null.
LanWanted wanted_for_pairing(const HostChoice& choice, const lund_host_entry* known,
                             std::uint32_t path_mode);
// Whom a connection does.
LanWanted wanted_for_connecting(const lund_host_entry& host, std::uint32_t path_mode);

// What the text is when no host answers and nothing explains it.
std::string nobody_answered(const HostChoice& choice);

// The addresses that are stored, as paths to try; `chosen` before them when it is an address.
void add_candidates(HostLink& link, const HostChoice& chosen, const lund_host_entry* host);
