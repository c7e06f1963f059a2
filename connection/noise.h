// The Noise IK handshake (Noise_IK_25519_ChaChaPoly_BLAKE2b, The Noise Protocol Framework rev. 34):
// two datagrams of 112 and 60 bytes give both sides a lund_session. Low-level functions speak in
// Noise's terms, the lund_hs_ wrappers in datagrams. The state belongs to the caller; nothing here
// locks, logs or allocates.
#pragma once

#include "connection/secure.h"

inline constexpr std::size_t LUND_HS_INIT_SIZE = 112;
inline constexpr std::size_t LUND_HS_RESP_SIZE = 60;
inline constexpr std::size_t LUND_HS_REJECT_SIZE = 9;

enum lund_hs_reject : std::uint8_t { LUND_REJECT_UNKNOWN_DEVICE = 1, LUND_REJECT_BUSY = 2 };

struct lund_noise_ik {
  std::uint8_t role = 0;   // 1 initiator, 2 responder
  std::uint8_t stage = 0;  // 1 start, 2 first message done, 3 finished, 4 failed
  std::uint8_t has_key = 0;
  std::uint64_t nonce = 0;
  std::uint8_t ck[64] = {};
  std::uint8_t h[64] = {};
  std::uint8_t k[LUND_KEY_SIZE] = {};
  lund_keypair s;
  lund_keypair e;
  std::uint8_t rs[LUND_KEY_SIZE] = {};
  std::uint8_t re[LUND_KEY_SIZE] = {};
};

// `remote_public` is null for the responder.
void lund_noise_ik_init(lund_noise_ik* state, bool initiator, const std::uint8_t* prologue,
                        std::size_t prologue_size, const lund_keypair* local_keypair,
                        const std::uint8_t* remote_public);

// The four message functions give a lund_result: LUND_ERR_STATE out of turn, LUND_ERR_BUFFER for a
// short output, LUND_ERR_MALFORMED for a short message, LUND_ERR_AUTH, LUND_ERR_WEAK_KEY.
// `fixed_ephemeral_secret` is null but in tests with known answers. read2 works on a copy, so that
// a forged reply leaves the state able to take the true one; a failure of the others that has
// touched the state leaves a dead one (stage 4) without secrets.
int lund_noise_ik_write1(lund_noise_ik* state, const std::uint8_t* fixed_ephemeral_secret,
                         const std::uint8_t* payload, std::size_t payload_size, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size);  // payload + 96
int lund_noise_ik_read1(lund_noise_ik* state, const std::uint8_t* message, std::size_t size,
                        std::uint8_t* payload_out, std::size_t payload_capacity,
                        std::size_t* payload_size);
int lund_noise_ik_write2(lund_noise_ik* state, const std::uint8_t* fixed_ephemeral_secret,
                         const std::uint8_t* payload, std::size_t payload_size, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size);  // payload + 48
int lund_noise_ik_read2(lund_noise_ik* state, const std::uint8_t* message, std::size_t size,
                        std::uint8_t* payload_out, std::size_t payload_capacity,
                        std::size_t* payload_size);
// key1 is the initiator's sending key, key2 the responder's.
void lund_noise_split(const lund_noise_ik* state, std::uint8_t key1_out[LUND_KEY_SIZE],
                      std::uint8_t key2_out[LUND_KEY_SIZE]);

// Builds the 112-byte HS_INIT with the timestamp (microseconds of UTC, the replay guard).
int lund_hs_client_start(lund_noise_ik* state, const lund_keypair* client_keypair,
                         const std::uint8_t host_public[LUND_KEY_SIZE], std::uint64_t timestamp,
                         std::uint8_t* out, std::size_t capacity, std::size_t* out_size);

// Takes an HS_RESP. Any failure leaves `state` as it was; success fills `session_out` and wipes it.
int lund_hs_client_finish(lund_noise_ik* state, const std::uint8_t* datagram, std::size_t size,
                          lund_session* session_out);

// Opens an HS_INIT; `state` then waits for lund_hs_host_respond.
int lund_hs_host_read(lund_noise_ik* state, const lund_keypair* host_keypair,
                      const std::uint8_t* datagram, std::size_t size,
                      std::uint8_t client_public_out[LUND_KEY_SIZE], std::uint64_t* timestamp_out);

// Builds the 60-byte HS_RESP and the session; session id 0 draws a random one. Wipes `state`.
int lund_hs_host_respond(lund_noise_ik* state, std::uint32_t session_id, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size, lund_session* session_out);

std::size_t lund_hs_encode_reject(std::uint8_t* out, std::size_t capacity, std::uint8_t reason);
int lund_hs_decode_reject(const std::uint8_t* datagram, std::size_t size, std::uint8_t* reason_out);
