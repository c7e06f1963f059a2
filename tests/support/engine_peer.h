// A client put together by hand from the secure channel's parts, independent of the client engine:
// it drives a host engine packet by packet, and can do what no honest client does.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "connection/cpace.h"
#include "connection/lists.h"
#include "connection/netsock.h"
#include "connection/noise.h"
#include "connection/secure.h"

namespace peer {

using bytes = std::vector<std::uint8_t>;

lund_rv_endpoint at(const char* address);    // "192.168.1.20:5000"
lund_keypair keypair_of(std::uint8_t seed);  // the same for the same seed
bytes packet(std::uint8_t type, std::uint8_t flags = 0, const bytes& body = {});
bytes probe(std::uint8_t flags, std::uint32_t seq = 1);
bytes rekey(std::uint32_t session_id);
bytes info_request(std::uint32_t nonce);

bytes seal(lund_session& session, const bytes& plain);
std::optional<bytes> open(lund_session& session, const bytes& sealed);

}  // namespace peer

class engine_peer {
 public:
  engine_peer(std::uint8_t seed, const std::uint8_t host_public[LUND_KEY_SIZE]);

  const std::uint8_t* key() const { return keys.public_key; }

  // Handshake. Without a timestamp: one above all before, from the wall clock.
  peer::bytes hs_init();
  peer::bytes hs_init(std::uint64_t timestamp);
  bool hs_finish(const peer::bytes& answer);  // the new keys stand in `session`

  peer::bytes seal(const peer::bytes& plain) { return peer::seal(session, plain); }
  std::optional<peer::bytes> open(const peer::bytes& sealed) { return peer::open(session, sealed); }

  // Pairing. A password's secret is the verifier in hexadecimal.
  peer::bytes pair_init(const char* secret, std::uint32_t kind, const char* name = "Laptop");
  peer::bytes pair_take(const peer::bytes& datagram);  // the answer, empty if there is none

  lund_keypair keys;
  lund_session session;
  lund_pair pair;
  int pair_result = 0;

 private:
  std::uint8_t host_key_[LUND_KEY_SIZE];
  lund_noise_ik state_;
  std::uint64_t last_timestamp_ = 0;
};
