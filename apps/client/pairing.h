// Pairing with a host, and looking for hosts on the LAN.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/client/host_link.h"
#include "connection/protocol.h"

enum class PairEnd { Paired, WrongSecret, Locked, NotAvailable, NoAnswer };

// `kind` as lund_client_pair takes it. Blocks until it is decided; `text` says what went wrong, and
// `host` (key, name, address) whom it was with.
PairEnd pair_with_host(HostLink& link, const std::string& secret, std::uint32_t kind,
                       lund_host_entry* host, std::string* text);

struct FoundHost {
  lund_rv_endpoint address;
  lund_discover_reply reply;
};

// Asks by broadcast on every network and by datagram on `port` of this computer; waits `wait_ms`.
std::vector<FoundHost> discover_hosts(std::uint16_t port, int wait_ms, std::string* error);
