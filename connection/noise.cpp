#include "connection/noise.h"

#include <monocypher.h>

#include <cassert>
#include <cstring>

#include "connection/byte_order.h"
#include "connection/protocol.h"

namespace {

constexpr char PROTOCOL_NAME[] = "Noise_IK_25519_ChaChaPoly_BLAKE2b";
constexpr std::uint8_t PROLOGUE[] = {'l', 'u', 'n', 'd', 'e', 'r', 'h', 'a',
                                     'z', 'e', '-', 'i', 'k', '-', 'v', '1'};
constexpr std::size_t HASH_SIZE = 64;
constexpr std::size_t HASH_BLOCK = 128;

constexpr std::size_t ENCRYPTED_KEY_SIZE = LUND_KEY_SIZE + LUND_MAC_SIZE;
constexpr std::size_t MESSAGE1_OVERHEAD = LUND_KEY_SIZE + ENCRYPTED_KEY_SIZE + LUND_MAC_SIZE;
constexpr std::size_t MESSAGE2_OVERHEAD = LUND_KEY_SIZE + LUND_MAC_SIZE;

constexpr std::size_t TIMESTAMP_SIZE = 8;
constexpr std::size_t SESSION_ID_SIZE = 4;
static_assert(LUND_HEADER_SIZE + MESSAGE1_OVERHEAD + TIMESTAMP_SIZE == LUND_HS_INIT_SIZE);
static_assert(LUND_HEADER_SIZE + MESSAGE2_OVERHEAD + SESSION_ID_SIZE == LUND_HS_RESP_SIZE);

// Magic, version, type, flags; bytes 4 to 7 hold a session id in HS_RESP and are zero otherwise.
constexpr std::uint8_t INIT_HEADER[LUND_HEADER_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN,
                                                        LUND_PKT_HS_INIT};
constexpr std::uint8_t RESP_HEADER[LUND_HEADER_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN,
                                                        LUND_PKT_HS_RESP};
constexpr std::uint8_t REJECT_HEADER[LUND_HEADER_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN,
                                                          LUND_PKT_HS_REJECT};

enum role : std::uint8_t { INITIATOR = 1, RESPONDER = 2 };
enum stage : std::uint8_t { START = 1, FIRST_DONE = 2, FINISHED = 3, FAILED = 4 };

bool is_at(const lund_noise_ik* state, role wanted_role, stage wanted_stage) {
  return state->role == wanted_role && state->stage == wanted_stage;
}

// A dead state keeps no secret.
int fail(lund_noise_ik* state, int result) {
  crypto_wipe(state, sizeof *state);
  state->stage = FAILED;
  return result;
}

void mix_hash(lund_noise_ik* state, const std::uint8_t* data, std::size_t size) {
  crypto_blake2b_ctx context;
  crypto_blake2b_init(&context, HASH_SIZE);
  crypto_blake2b_update(&context, state->h, HASH_SIZE);
  crypto_blake2b_update(&context, data, size);
  crypto_blake2b_final(&context, state->h);
}

void begin_padded(crypto_blake2b_ctx* context, const std::uint8_t key[HASH_SIZE],
                  std::uint8_t pad) {
  std::uint8_t block[HASH_BLOCK];
  std::memset(block, pad, sizeof block);
  for (std::size_t i = 0; i < HASH_SIZE; ++i) block[i] = static_cast<std::uint8_t>(key[i] ^ pad);
  crypto_blake2b_init(context, HASH_SIZE);
  crypto_blake2b_update(context, block, sizeof block);
  crypto_wipe(block, sizeof block);
}

// RFC 2104's HMAC, which Noise asks for in place of BLAKE2's own keyed mode. crypto_blake2b_final
// wipes its context.
void hmac(std::uint8_t out[HASH_SIZE], const std::uint8_t key[HASH_SIZE], const std::uint8_t* first,
          std::size_t first_size, const std::uint8_t* second, std::size_t second_size) {
  std::uint8_t inner[HASH_SIZE];
  crypto_blake2b_ctx context;
  begin_padded(&context, key, 0x36);
  crypto_blake2b_update(&context, first, first_size);
  crypto_blake2b_update(&context, second, second_size);
  crypto_blake2b_final(&context, inner);
  begin_padded(&context, key, 0x5C);
  crypto_blake2b_update(&context, inner, sizeof inner);
  crypto_blake2b_final(&context, out);
  crypto_wipe(inner, sizeof inner);
}

void hkdf2(std::uint8_t out1[HASH_SIZE], std::uint8_t out2[HASH_SIZE],
           const std::uint8_t ck[HASH_SIZE], const std::uint8_t* input, std::size_t input_size) {
  constexpr std::uint8_t ONE = 1;
  constexpr std::uint8_t TWO = 2;
  std::uint8_t temp[HASH_SIZE];
  hmac(temp, ck, input, input_size, nullptr, 0);
  hmac(out1, temp, &ONE, 1, nullptr, 0);
  hmac(out2, temp, out1, HASH_SIZE, &TWO, 1);
  crypto_wipe(temp, sizeof temp);
}

// The derivation is carried through for a weak key too; only then is it reported.
int mix_dh(lund_noise_ik* state, const std::uint8_t secret[LUND_KEY_SIZE],
           const std::uint8_t public_key[LUND_KEY_SIZE]) {
  constexpr std::uint8_t ZERO[LUND_KEY_SIZE] = {};
  std::uint8_t shared[LUND_KEY_SIZE];
  std::uint8_t key[HASH_SIZE];
  crypto_x25519(shared, secret, public_key);
  const bool weak = crypto_verify32(shared, ZERO) == 0;
  hkdf2(state->ck, key, state->ck, shared, sizeof shared);
  std::memcpy(state->k, key, LUND_KEY_SIZE);
  state->has_key = 1;
  state->nonce = 0;
  crypto_wipe(shared, sizeof shared);
  crypto_wipe(key, sizeof key);
  return weak ? LUND_ERR_WEAK_KEY : LUND_OK;
}

// Writes size + 16 bytes.
void encrypt_and_hash(lund_noise_ik* state, const std::uint8_t* plain, std::size_t size,
                      std::uint8_t* out) {
  assert(state->has_key);
  lund_aead_encrypt(state->k, state->nonce++, state->h, HASH_SIZE, plain, size, out, out + size);
  mix_hash(state, out, size + LUND_MAC_SIZE);
}

// Takes size + 16 bytes, gives size.
int decrypt_and_hash(lund_noise_ik* state, const std::uint8_t* cipher, std::size_t size,
                     std::uint8_t* out) {
  assert(state->has_key);
  const int result = lund_aead_decrypt(state->k, state->nonce, state->h, HASH_SIZE, cipher, size,
                                       cipher + size, out);
  if (result != LUND_OK) return result;
  ++state->nonce;
  mix_hash(state, cipher, size + LUND_MAC_SIZE);
  return LUND_OK;
}

int make_ephemeral(lund_noise_ik* state, const std::uint8_t* fixed_secret, std::uint8_t* out) {
  if (fixed_secret) {
    lund_keypair_from_secret(&state->e, fixed_secret);
  } else if (const int result = lund_keypair_generate(&state->e); result != LUND_OK) {
    return result;
  }
  std::memcpy(out, state->e.public_key, LUND_KEY_SIZE);
  mix_hash(state, out, LUND_KEY_SIZE);
  return LUND_OK;
}

void take_remote_ephemeral(lund_noise_ik* state, const std::uint8_t* message) {
  std::memcpy(state->re, message, LUND_KEY_SIZE);
  mix_hash(state, state->re, LUND_KEY_SIZE);
}

int read2_in_place(lund_noise_ik* state, const std::uint8_t* message, std::size_t size,
                   std::uint8_t* payload_out) {
  take_remote_ephemeral(state, message);
  if (mix_dh(state, state->e.secret, state->re) != LUND_OK) return LUND_ERR_WEAK_KEY;
  if (mix_dh(state, state->s.secret, state->re) != LUND_OK) return LUND_ERR_WEAK_KEY;
  return decrypt_and_hash(state, message + LUND_KEY_SIZE, size - MESSAGE2_OVERHEAD, payload_out);
}

void make_session(const lund_noise_ik* state, std::uint32_t session_id, lund_session* session) {
  lund_session_wipe(session);
  session->session_id = session_id;
  session->initiator = state->role == INITIATOR;
  std::uint8_t* const key1 = session->initiator ? session->send_key : session->recv_key;
  std::uint8_t* const key2 = session->initiator ? session->recv_key : session->send_key;
  lund_noise_split(state, key1, key2);
  std::memcpy(session->peer_key, state->rs, LUND_KEY_SIZE);
  std::memcpy(session->handshake_hash, state->h, HASH_SIZE);
}

int draw_session_id(std::uint32_t* session_id) {
  while (*session_id == 0) {
    if (lund_random_bytes(session_id, sizeof *session_id) != LUND_OK) return LUND_ERR_RANDOM;
  }
  return LUND_OK;
}

}  // namespace

void lund_noise_ik_init(lund_noise_ik* state, bool initiator, const std::uint8_t* prologue,
                        std::size_t prologue_size, const lund_keypair* local_keypair,
                        const std::uint8_t* remote_public) {
  assert(initiator == (remote_public != nullptr));
  *state = lund_noise_ik{};
  state->role = initiator ? INITIATOR : RESPONDER;
  static_assert(sizeof PROTOCOL_NAME - 1 <= HASH_SIZE);
  std::memcpy(state->h, PROTOCOL_NAME, sizeof PROTOCOL_NAME - 1);
  std::memcpy(state->ck, state->h, HASH_SIZE);
  mix_hash(state, prologue, prologue_size);
  state->s = *local_keypair;
  if (initiator) std::memcpy(state->rs, remote_public, LUND_KEY_SIZE);
  mix_hash(state, initiator ? state->rs : state->s.public_key, LUND_KEY_SIZE);
  state->stage = START;
}

// -> e, es, s, ss
int lund_noise_ik_write1(lund_noise_ik* state, const std::uint8_t* fixed_ephemeral_secret,
                         const std::uint8_t* payload, std::size_t payload_size, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size) {
  *out_size = 0;
  if (!is_at(state, INITIATOR, START)) return LUND_ERR_STATE;
  if (capacity < MESSAGE1_OVERHEAD || capacity - MESSAGE1_OVERHEAD < payload_size)
    return LUND_ERR_BUFFER;
  if (const int result = make_ephemeral(state, fixed_ephemeral_secret, out); result != LUND_OK)
    return result;
  if (mix_dh(state, state->e.secret, state->rs) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  encrypt_and_hash(state, state->s.public_key, LUND_KEY_SIZE, out + LUND_KEY_SIZE);
  if (mix_dh(state, state->s.secret, state->rs) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  encrypt_and_hash(state, payload, payload_size, out + LUND_KEY_SIZE + ENCRYPTED_KEY_SIZE);
  state->stage = FIRST_DONE;
  *out_size = payload_size + MESSAGE1_OVERHEAD;
  return LUND_OK;
}

int lund_noise_ik_read1(lund_noise_ik* state, const std::uint8_t* message, std::size_t size,
                        std::uint8_t* payload_out, std::size_t payload_capacity,
                        std::size_t* payload_size) {
  *payload_size = 0;
  if (!is_at(state, RESPONDER, START)) return LUND_ERR_STATE;
  if (size < MESSAGE1_OVERHEAD) return LUND_ERR_MALFORMED;
  const std::size_t plain_size = size - MESSAGE1_OVERHEAD;
  if (payload_capacity < plain_size) return LUND_ERR_BUFFER;
  state->stage = FAILED;
  take_remote_ephemeral(state, message);
  if (mix_dh(state, state->s.secret, state->re) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  if (decrypt_and_hash(state, message + LUND_KEY_SIZE, LUND_KEY_SIZE, state->rs) != LUND_OK)
    return fail(state, LUND_ERR_AUTH);
  if (mix_dh(state, state->s.secret, state->rs) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  if (decrypt_and_hash(state, message + LUND_KEY_SIZE + ENCRYPTED_KEY_SIZE, plain_size,
                       payload_out) != LUND_OK)
    return fail(state, LUND_ERR_AUTH);
  state->stage = FIRST_DONE;
  *payload_size = plain_size;
  return LUND_OK;
}

// <- e, ee, se
int lund_noise_ik_write2(lund_noise_ik* state, const std::uint8_t* fixed_ephemeral_secret,
                         const std::uint8_t* payload, std::size_t payload_size, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size) {
  *out_size = 0;
  if (!is_at(state, RESPONDER, FIRST_DONE)) return LUND_ERR_STATE;
  if (capacity < MESSAGE2_OVERHEAD || capacity - MESSAGE2_OVERHEAD < payload_size)
    return LUND_ERR_BUFFER;
  if (const int result = make_ephemeral(state, fixed_ephemeral_secret, out); result != LUND_OK)
    return result;
  if (mix_dh(state, state->e.secret, state->re) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  if (mix_dh(state, state->e.secret, state->rs) != LUND_OK) return fail(state, LUND_ERR_WEAK_KEY);
  encrypt_and_hash(state, payload, payload_size, out + LUND_KEY_SIZE);
  state->stage = FINISHED;
  *out_size = payload_size + MESSAGE2_OVERHEAD;
  return LUND_OK;
}

int lund_noise_ik_read2(lund_noise_ik* state, const std::uint8_t* message, std::size_t size,
                        std::uint8_t* payload_out, std::size_t payload_capacity,
                        std::size_t* payload_size) {
  *payload_size = 0;
  if (!is_at(state, INITIATOR, FIRST_DONE)) return LUND_ERR_STATE;
  if (size < MESSAGE2_OVERHEAD) return LUND_ERR_MALFORMED;
  if (payload_capacity < size - MESSAGE2_OVERHEAD) return LUND_ERR_BUFFER;
  lund_noise_ik attempt = *state;
  const int result = read2_in_place(&attempt, message, size, payload_out);
  if (result == LUND_OK) {
    attempt.stage = FINISHED;
    *state = attempt;
    *payload_size = size - MESSAGE2_OVERHEAD;
  }
  crypto_wipe(&attempt, sizeof attempt);
  return result;
}

void lund_noise_split(const lund_noise_ik* state, std::uint8_t key1_out[LUND_KEY_SIZE],
                      std::uint8_t key2_out[LUND_KEY_SIZE]) {
  assert(state->stage == FINISHED);
  std::uint8_t out1[HASH_SIZE];
  std::uint8_t out2[HASH_SIZE];
  hkdf2(out1, out2, state->ck, nullptr, 0);
  std::memcpy(key1_out, out1, LUND_KEY_SIZE);
  std::memcpy(key2_out, out2, LUND_KEY_SIZE);
  crypto_wipe(out1, sizeof out1);
  crypto_wipe(out2, sizeof out2);
}

int lund_hs_client_start(lund_noise_ik* state, const lund_keypair* client_keypair,
                         const std::uint8_t host_public[LUND_KEY_SIZE], std::uint64_t timestamp,
                         std::uint8_t* out, std::size_t capacity, std::size_t* out_size) {
  *out_size = 0;
  if (capacity < LUND_HS_INIT_SIZE) return LUND_ERR_BUFFER;
  lund_noise_ik_init(state, true, PROLOGUE, sizeof PROLOGUE, client_keypair, host_public);
  std::uint8_t payload[TIMESTAMP_SIZE];
  store_le(payload, timestamp);
  std::memcpy(out, INIT_HEADER, LUND_HEADER_SIZE);
  std::size_t message_size = 0;
  const int result =
      lund_noise_ik_write1(state, nullptr, payload, sizeof payload, out + LUND_HEADER_SIZE,
                           capacity - LUND_HEADER_SIZE, &message_size);
  if (result != LUND_OK) return fail(state, result);
  *out_size = LUND_HEADER_SIZE + message_size;
  return LUND_OK;
}

int lund_hs_client_finish(lund_noise_ik* state, const std::uint8_t* datagram, std::size_t size,
                          lund_session* session_out) {
  if (size != LUND_HS_RESP_SIZE || std::memcmp(datagram, RESP_HEADER, 4) != 0)
    return LUND_ERR_MALFORMED;
  lund_noise_ik attempt = *state;
  std::uint8_t payload[SESSION_ID_SIZE];
  std::size_t payload_size = 0;
  int result = lund_noise_ik_read2(&attempt, datagram + LUND_HEADER_SIZE, size - LUND_HEADER_SIZE,
                                   payload, sizeof payload, &payload_size);
  if (result == LUND_OK) {
    const auto session_id = load_le<std::uint32_t>(payload);
    if (session_id != 0 && session_id == load_le<std::uint32_t>(datagram + 4)) {
      make_session(&attempt, session_id, session_out);
      crypto_wipe(state, sizeof *state);
    } else {
      result = LUND_ERR_AUTH;
    }
  }
  crypto_wipe(&attempt, sizeof attempt);
  return result;
}

int lund_hs_host_read(lund_noise_ik* state, const lund_keypair* host_keypair,
                      const std::uint8_t* datagram, std::size_t size,
                      std::uint8_t client_public_out[LUND_KEY_SIZE], std::uint64_t* timestamp_out) {
  if (size != LUND_HS_INIT_SIZE || std::memcmp(datagram, INIT_HEADER, LUND_HEADER_SIZE) != 0)
    return LUND_ERR_MALFORMED;
  lund_noise_ik_init(state, false, PROLOGUE, sizeof PROLOGUE, host_keypair, nullptr);
  std::uint8_t payload[TIMESTAMP_SIZE];
  std::size_t payload_size = 0;
  const int result =
      lund_noise_ik_read1(state, datagram + LUND_HEADER_SIZE, size - LUND_HEADER_SIZE, payload,
                          sizeof payload, &payload_size);
  if (result != LUND_OK) return result;
  std::memcpy(client_public_out, state->rs, LUND_KEY_SIZE);
  *timestamp_out = load_le<std::uint64_t>(payload);
  return LUND_OK;
}

int lund_hs_host_respond(lund_noise_ik* state, std::uint32_t session_id, std::uint8_t* out,
                         std::size_t capacity, std::size_t* out_size, lund_session* session_out) {
  *out_size = 0;
  if (capacity < LUND_HS_RESP_SIZE) return LUND_ERR_BUFFER;
  if (draw_session_id(&session_id) != LUND_OK) return LUND_ERR_RANDOM;
  std::memcpy(out, RESP_HEADER, LUND_HEADER_SIZE);
  store_le(out + 4, session_id);
  std::size_t message_size = 0;
  const int result =
      lund_noise_ik_write2(state, nullptr, out + 4, SESSION_ID_SIZE, out + LUND_HEADER_SIZE,
                           capacity - LUND_HEADER_SIZE, &message_size);
  if (result != LUND_OK) return result;
  make_session(state, session_id, session_out);
  crypto_wipe(state, sizeof *state);
  *out_size = LUND_HEADER_SIZE + message_size;
  return LUND_OK;
}

std::size_t lund_hs_encode_reject(std::uint8_t* out, std::size_t capacity, std::uint8_t reason) {
  if (capacity < LUND_HS_REJECT_SIZE) return 0;
  std::memcpy(out, REJECT_HEADER, LUND_HEADER_SIZE);
  out[LUND_HEADER_SIZE] = reason;
  return LUND_HS_REJECT_SIZE;
}

int lund_hs_decode_reject(const std::uint8_t* datagram, std::size_t size,
                          std::uint8_t* reason_out) {
  if (size != LUND_HS_REJECT_SIZE || std::memcmp(datagram, REJECT_HEADER, LUND_HEADER_SIZE) != 0)
    return LUND_ERR_MALFORMED;
  *reason_out = datagram[LUND_HEADER_SIZE];
  return LUND_OK;
}
