// Pairing with a host, offering it to be reached in return, and looking for hosts on the LAN.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "apps/client/host_link.h"
#include "connection/protocol.h"

enum class PairEnd { Paired, WrongSecret, Locked, NotAvailable, NoAnswer, Stopped };

struct PairRequest {
  std::string secret;
  std::uint32_t kind = 0;  // as lund_client_pair takes it
  std::string nobody;      // the text when no host answers and nothing explains it
  const std::atomic<bool>* stop = nullptr;

  PairRequest() = default;
  ~PairRequest() { lund_secure_wipe(secret.data(), secret.size()); }
  PairRequest(const PairRequest&) = delete;
  PairRequest& operator=(const PairRequest&) = delete;
};

// Blocks until it is decided; `text` says what went wrong, and `host` gets key, name and the
// address that it was reached at, unless that is a relay's.
PairEnd pair_with_host(HostLink& link, const PairRequest& request, lund_host_entry* host,
                       std::string* text);

enum class BackEnd {
  Accepted,
  NoAnswer,  // nobody there has accepted in time, or the session was lost
  Stopped,
};

// Over the session that follows pairing: offers the host at the other end to connect to this
// computer's own host on `port`, until somebody there accepts. Blocks for 40 s at most.
BackEnd offer_way_back(HostLink& link, const std::string& own_name, std::uint16_t port,
                       const std::atomic<bool>& stop);

// Asks by broadcast on every network and by datagram on `port` of this computer; waits `wait_ms`.
std::vector<FoundHost> discover_hosts(std::uint16_t port, int wait_ms, std::string* error);
