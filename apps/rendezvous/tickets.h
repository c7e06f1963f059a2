// What the server hands out and doesn't have to remember, because it can make it again from a
// secret of its own: challenges, and the tokens of a look-up. So nothing is kept for an address
// that may be spoofed. The secret is made at the start; a server that starts anew honours nothing
// older.
#pragma once

#include <array>
#include <cstdint>

#include "connection/netsock.h"
#include "connection/secure.h"

using Token = std::array<std::uint8_t, 16>;
using KeyId = std::array<std::uint8_t, LUND_KEY_ID_SIZE>;

enum Side : std::uint8_t { HOST_SIDE = 0, CLIENT_SIDE = 1 };

// All that the two sides of one look-up are given.
struct Grant {
  std::uint32_t allocation = 0;
  Token punch_token{};
  Token bind_tokens[2] = {};  // by Side; each side knows its own alone
};

class Tickets {
 public:
  Tickets();
  ~Tickets() { lund_secure_wipe(secret_, sizeof secret_); }
  Tickets(const Tickets&) = delete;
  Tickets& operator=(const Tickets&) = delete;

  bool ready() const { return ready_; }  // false when the random source failed

  // For this key at this address, good for 5 to 10 minutes.
  Token challenge(const lund_rv_endpoint& from, const std::uint8_t key[LUND_KEY_SIZE],
                  std::uint64_t now_us) const;
  bool is_current(const std::uint8_t challenge[16], const lund_rv_endpoint& from,
                  const std::uint8_t key[LUND_KEY_SIZE], std::uint64_t now_us) const;

  // The same for the same client's address and registration. The allocation is the registration's
  // number under a mask of the client's address, by which the server finds the host again.
  Grant grant(const lund_rv_endpoint& client, const KeyId& host, std::uint32_t registration) const;
  std::uint32_t registration_of(std::uint32_t allocation, const lund_rv_endpoint& client) const;

 private:
  Token challenge_of_epoch(const lund_rv_endpoint& from, const std::uint8_t key[LUND_KEY_SIZE],
                           std::uint64_t epoch) const;
  std::uint32_t mask(const lund_rv_endpoint& client) const;

  bool ready_;
  std::uint8_t secret_[32];
};
