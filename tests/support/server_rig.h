// A client engine with two rendezvous servers, played by the test message by message. Both have an
// address from the start, and are asked about the host whose keys ClientRig holds.
#pragma once

#include "tests/support/client_rig.h"
#include "tests/support/server_peer.h"

// An engine's record as it stands, to be compared with itself later.
template <class Record>
std::vector<std::uint8_t> bytes_of(const Record& record) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
  return {bytes, bytes + sizeof record};
}

class ServerRig : public ClientRig {
 public:
  static inline const server_peer SERVERS[2] = {{"203.0.113.50", "203.0.113.50:9877", 0xA1},
                                                {"203.0.113.51", "203.0.113.51:9877", 0xB2}};

  explicit ServerRig(const std::function<void(lund_client_config&)>& adjust = {});

  lund_client_server& state(int server = 0) { return client->servers[server]; }

  // What was sent to the server with its tag, decoded, since it was last asked for.
  std::vector<lund_rv_message> asked(std::uint8_t type, int server = 0);
  int say(const lund_rv_message& message, int server = 0);  // to the client, with the tag
  int punch(const lund_rv_endpoint& from, const lund_rv_message& message);  // without one

  // A good answer to the look-up under way: the host at HOST_WAN, without LAN endpoints. The tokens
  // differ by server and allocation.
  lund_rv_message result(std::uint32_t allocation = 0xA110C, int server = 0);
  lund_rv_message failure(std::uint8_t status, int server = 0);  // to that look-up
  lund_rv_message bound(std::uint8_t status = 0, int server = 0);
  lund_rv_message host_punch(std::uint32_t nonce = 7, int server = 0);  // with the server's token

  // Connects, and lets the server find the host.
  void find(int server = 0);
  // For `ms` from now, ticks exactly when the engine asks for it. The times, in ms from now, at
  // which the server was sent something of this type; what else was sent stays in `sent`.
  std::vector<std::uint64_t> times_of(std::uint8_t type, std::uint64_t ms, int server = 0);
};
