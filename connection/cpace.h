// Pairing: CPace over X25519 with SHA-512 (draft-irtf-cfrg-cpace) on a short secret, then an
// exchange of the static public keys under keys of the shared secret. One lund_pair is one side of
// one exchange at a time; admission, attempt limits over time and retries are the engines'. Nothing
// here locks, logs or allocates.
#pragma once

#include "connection/secure.h"

inline constexpr std::size_t LUND_PAIR_SID_SIZE = 16;
inline constexpr std::size_t LUND_PAIR_MESSAGE_MAX = 192;
inline constexpr std::size_t LUND_PAIR_SECRET_MAX = 64;

enum lund_pair_fail : std::uint8_t {
  LUND_PAIR_FAIL_SECRET = 1,
  LUND_PAIR_FAIL_LOCKED = 2,
  LUND_PAIR_FAIL_UNAVAILABLE = 3,
};

enum lund_pair_role : std::uint8_t { LUND_PAIR_CLIENT = 1, LUND_PAIR_HOST = 2 };

enum lund_pair_state : std::uint8_t {
  LUND_PAIR_IDLE = 0,          // host: idle or failed
  LUND_PAIR_INIT_SENT = 1,     // client
  LUND_PAIR_CONFIRM_SENT = 2,  // client
  LUND_PAIR_RESP_SENT = 3,     // host
  LUND_PAIR_DONE = 4,
  LUND_PAIR_FAILED = 5,  // client
};

struct lund_pair {
  std::uint8_t role = 0;
  std::uint8_t state = 0;
  std::uint8_t attempts = 0;      // host: exchanges started on this secret
  std::uint8_t max_attempts = 0;  // host: 1 to 254
  std::uint8_t secret[LUND_PAIR_SECRET_MAX] = {};
  std::uint8_t secret_size = 0;
  std::uint8_t name_size = 0;
  char name[64] = {};
  lund_keypair keypair;
  std::uint8_t sid[LUND_PAIR_SID_SIZE] = {};
  std::uint8_t scalar[32] = {};
  std::uint8_t point[32] = {};
  std::uint8_t send_key[LUND_KEY_SIZE] = {};
  std::uint8_t recv_key[LUND_KEY_SIZE] = {};
  std::uint8_t last_message[LUND_PAIR_MESSAGE_MAX] = {};  // for retransmission, byte for byte
  std::size_t last_message_size = 0;
  std::uint8_t peer_key[LUND_KEY_SIZE] = {};
  char peer_name[64] = {};
};

// Builds PAIR_INIT (56 bytes). LUND_OK, LUND_ERR_RANDOM, or LUND_ERR_BUFFER with the message
// stored.
int lund_pair_client_start(lund_pair* pair, const lund_keypair* keypair, const char* name,
                           const char* secret, std::uint8_t* out, std::size_t capacity,
                           std::size_t* out_size);

// `max_attempts` outside 1..254 means 10.
void lund_pair_host_init(lund_pair* pair, const lund_keypair* keypair, const char* name,
                         const char* secret, int max_attempts);

// Takes any pairing packet (flags 0); an answer, if any, stands in `out` with `*out_size` > 0.
// 1 finished, 0 carry on, or a negative lund_result.
int lund_pair_handle(lund_pair* pair, const std::uint8_t* datagram, std::size_t size,
                     std::uint8_t* out, std::size_t capacity, std::size_t* out_size);

// 25, or 0 when it doesn't fit.
std::size_t lund_pair_encode_fail(std::uint8_t* out, std::size_t capacity,
                                  const std::uint8_t sid[LUND_PAIR_SID_SIZE], std::uint8_t reason);

const std::uint8_t* lund_pair_last_message(const lund_pair* pair, std::size_t* size_out);
void lund_pair_wipe(lund_pair* pair);
// An exchange that has begun may end; no other can begin.
void lund_pair_forget_secret(lund_pair* pair);

// The draft's calculate_generator for X25519 and SHA-512.
void lund_cpace_generator(std::uint8_t point_out[32], const std::uint8_t* secret,
                          std::size_t secret_size, const std::uint8_t* ci, std::size_t ci_size,
                          const std::uint8_t* sid, std::size_t sid_size);

// The draft's intermediate session key in the initiator/responder setting; point A is the client's.
// LUND_OK or LUND_ERR_WEAK_KEY.
int lund_cpace_isk(std::uint8_t isk_out[64], const std::uint8_t* sid, std::size_t sid_size,
                   const std::uint8_t scalar[32], const std::uint8_t peer_point[32],
                   const std::uint8_t point_a[32], const std::uint8_t* ad_a, std::size_t ad_a_size,
                   const std::uint8_t point_b[32], const std::uint8_t* ad_b, std::size_t ad_b_size);
