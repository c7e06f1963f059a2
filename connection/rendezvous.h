// The rendezvous wire format: eleven message types made by table from fourteen field codes, with a
// keyed hash towards servers and none between peers. Stateless; the record belongs to the caller.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connection/netsock.h"

enum lund_rv_type : std::uint8_t {
  LUND_RV_REGISTER = 96,
  LUND_RV_CHALLENGE = 97,
  LUND_RV_REGISTERED = 98,
  LUND_RV_LOOKUP = 99,
  LUND_RV_LOOKUP_RESULT = 100,
  LUND_RV_PUNCH_NOTIFY = 101,
  LUND_RV_PUNCH = 102,
  LUND_RV_PUNCH_ACK = 103,
  LUND_RV_BIND = 104,
  LUND_RV_BOUND = 105,
  LUND_RV_ERROR = 106,
};
inline constexpr std::uint8_t LUND_RV_FIRST = 96;
inline constexpr std::uint8_t LUND_RV_LAST = 111;  // up to here the range is reserved

inline constexpr int LUND_RV_LAN_MAX = 4;
inline constexpr std::size_t LUND_RV_MESSAGE_MAX = 256;  // every encoded message fits
inline constexpr std::size_t LUND_RV_ENDPOINT_SIZE = 19;

struct lund_rv_message {
  std::uint8_t type = 0;
  std::uint8_t status = 0;
  std::uint8_t side = 0;         // 0 host, 1 client
  std::uint8_t target_size = 0;  // 5 to 16
  std::uint16_t lease_seconds = 0;
  std::uint32_t allocation = 0;
  std::uint32_t nonce = 0;
  std::uint8_t key[32] = {};
  std::uint8_t token[16] = {};
  std::uint8_t proof[16] = {};
  std::uint8_t punch_token[16] = {};
  std::uint8_t target[16] = {};
  lund_rv_endpoint observed;
  lund_rv_endpoint peer;
  int lan_count = 0;
  lund_rv_endpoint lan[LUND_RV_LAN_MAX];
};

// The 32-byte key of the message tags, from the raw key of a relay link.
void lund_rv_net_key(std::uint8_t out[32], const std::uint8_t* key, std::size_t key_size);

// Length, or 0 for an unknown type, more than 4 LAN endpoints, or a short buffer. `net_key` null:
// no tag.
std::size_t lund_rv_encode(std::uint8_t* out, std::size_t capacity, const std::uint8_t* net_key,
                           const lund_rv_message* message);

// 0, LUND_ERR_MALFORMED, or LUND_ERR_AUTH for a bad tag; the record is zeroed on failure.
int lund_rv_decode(const std::uint8_t* datagram, std::size_t size, const std::uint8_t* net_key,
                   lund_rv_message* message);

// Shows a server that the registering party holds the secret of `own_public`, and binds the LAN
// endpoints. LUND_OK, or LUND_ERR_WEAK_KEY for a low-order server key.
int lund_rv_register_proof(std::uint8_t proof_out[16], const std::uint8_t own_secret[32],
                           const std::uint8_t server_public[32], const std::uint8_t challenge[16],
                           const std::uint8_t own_public[32], const lund_rv_endpoint* lan,
                           int lan_count);
