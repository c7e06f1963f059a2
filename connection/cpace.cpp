#include "connection/cpace.h"

#include <monocypher-ed25519.h>
#include <monocypher.h>

#include <cstring>

#include "connection/cpace_field.h"
#include "connection/protocol.h"

namespace {

constexpr std::uint8_t GENERATOR_DSI[] = {'C', 'P', 'a', 'c', 'e', '2', '5', '5'};
constexpr std::uint8_t ISK_DSI[] = {'C', 'P', 'a', 'c', 'e', '2', '5', '5', '_', 'I', 'S', 'K'};
constexpr char CHANNEL[] = "lunderhaze-pair-v1";
constexpr char HOST_TO_CLIENT[] = "lunderhaze-pair-v1 host->client";
constexpr char CLIENT_TO_HOST[] = "lunderhaze-pair-v1 client->host";

constexpr std::size_t SHA512_BLOCK = 128;
constexpr int DEFAULT_MAX_ATTEMPTS = 10;
constexpr int MAX_ATTEMPTS_CEILING = 254;

constexpr std::size_t SID_AT = LUND_HEADER_SIZE;
constexpr std::size_t BODY_AT = SID_AT + LUND_PAIR_SID_SIZE;
constexpr std::size_t POINT_SIZE = 32;
constexpr std::size_t IDENTITY_MIN = LUND_KEY_SIZE + 1;  // key, name length, name
constexpr std::size_t IDENTITY_MAX = IDENTITY_MIN + LUND_NAME_MAX;

constexpr std::size_t INIT_SIZE = BODY_AT + POINT_SIZE;
constexpr std::size_t RESP_IDENTITY_AT = BODY_AT + POINT_SIZE;
constexpr std::size_t RESP_MIN = RESP_IDENTITY_AT + IDENTITY_MIN + LUND_MAC_SIZE;
constexpr std::size_t CONFIRM_MIN = BODY_AT + IDENTITY_MIN + LUND_MAC_SIZE;
constexpr std::size_t OK_SIZE = BODY_AT + 1 + LUND_MAC_SIZE;
constexpr std::size_t FAIL_SIZE = BODY_AT + 1;
static_assert(INIT_SIZE == 56 && RESP_MIN == 105 && CONFIRM_MIN == 73 && OK_SIZE == 41 &&
              FAIL_SIZE == 25);
static_assert(RESP_MIN + LUND_NAME_MAX <= LUND_PAIR_MESSAGE_MAX);

// Nonces under the keys of one exchange: each direction's identity, then the host's PAIR_OK.
constexpr std::uint64_t IDENTITY_NONCE = 0;
constexpr std::uint64_t OK_NONCE = 1;

constexpr int FINISHED = 1;
constexpr int CARRY_ON = 0;

// --- the CPace draft ----------------------------------------------------------------------------

std::size_t encode_leb128(std::uint8_t out[10], std::size_t value) {
  std::size_t size = 0;
  for (; value >= 0x80; value >>= 7) out[size++] = static_cast<std::uint8_t>(value | 0x80);
  out[size++] = static_cast<std::uint8_t>(value);
  return size;
}

void update_prefixed(crypto_sha512_ctx* context, const std::uint8_t* data, std::size_t size) {
  std::uint8_t length[10];
  crypto_sha512_update(context, length, encode_leb128(length, size));
  crypto_sha512_update(context, data, size);
}

// Zeros that bring the secret to the end of SHA-512's first block, so that the rest of the hash
// takes the same time for secrets of any length.
std::size_t zero_pad_size(std::size_t secret_size) {
  std::uint8_t length[10];
  const std::size_t used =
      encode_leb128(length, secret_size) + secret_size + sizeof GENERATOR_DSI + 2;
  return used < SHA512_BLOCK ? SHA512_BLOCK - used : 0;
}

// --- keys of an exchange ------------------------------------------------------------------------

const std::uint8_t* bytes_of(const char* text) {
  return reinterpret_cast<const std::uint8_t*>(text);
}

void derive_key(std::uint8_t out[LUND_KEY_SIZE], const std::uint8_t isk[64],
                const std::uint8_t sid[LUND_PAIR_SID_SIZE], const char* info) {
  crypto_sha512_hkdf(out, LUND_KEY_SIZE, isk, 64, sid, LUND_PAIR_SID_SIZE, bytes_of(info),
                     std::strlen(info));
}

void wipe_keys(lund_pair* pair) {
  crypto_wipe(pair->send_key, sizeof pair->send_key);
  crypto_wipe(pair->recv_key, sizeof pair->recv_key);
}

// Own generator, point and scalar; the point is computed from the secret afresh for each exchange.
int draw_point(lund_pair* pair) {
  if (lund_random_bytes(pair->scalar, sizeof pair->scalar) != LUND_OK) return LUND_ERR_RANDOM;
  std::uint8_t generator[32];
  lund_cpace_generator(generator, pair->secret, pair->secret_size, bytes_of(CHANNEL),
                       sizeof CHANNEL - 1, pair->sid, sizeof pair->sid);
  crypto_x25519(pair->point, pair->scalar, generator);
  crypto_wipe(generator, sizeof generator);
  return LUND_OK;
}

int derive_keys(lund_pair* pair, const std::uint8_t peer_point[POINT_SIZE]) {
  const bool client = pair->role == LUND_PAIR_CLIENT;
  std::uint8_t isk[64];
  const int result = lund_cpace_isk(isk, pair->sid, sizeof pair->sid, pair->scalar, peer_point,
                                    client ? pair->point : peer_point, nullptr, 0,
                                    client ? peer_point : pair->point, nullptr, 0);
  if (result == LUND_OK) {
    derive_key(pair->send_key, isk, pair->sid, client ? CLIENT_TO_HOST : HOST_TO_CLIENT);
    derive_key(pair->recv_key, isk, pair->sid, client ? HOST_TO_CLIENT : CLIENT_TO_HOST);
  }
  crypto_wipe(isk, sizeof isk);
  return result;
}

// --- messages -----------------------------------------------------------------------------------

void set_up(lund_pair* pair, lund_pair_role role, const lund_keypair* keypair, const char* name,
            const char* secret) {
  *pair = lund_pair{};
  pair->role = role;
  pair->keypair = *keypair;
  pair->name_size = static_cast<std::uint8_t>(strnlen(name, LUND_NAME_MAX));
  std::memcpy(pair->name, name, pair->name_size);
  pair->secret_size = static_cast<std::uint8_t>(strnlen(secret, LUND_PAIR_SECRET_MAX));
  std::memcpy(pair->secret, secret, pair->secret_size);
}

void write_head(std::uint8_t* out, lund_packet_type type,
                const std::uint8_t sid[LUND_PAIR_SID_SIZE]) {
  const std::uint8_t header[LUND_HEADER_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN, type};
  std::memcpy(out, header, sizeof header);
  std::memcpy(out + SID_AT, sid, LUND_PAIR_SID_SIZE);
}

// Own key and name, sealed behind the `at` bytes that stand in `last_message` already.
void store_identity(lund_pair* pair, std::size_t at) {
  std::uint8_t* const body = pair->last_message + at;
  const std::size_t size = IDENTITY_MIN + pair->name_size;
  std::memcpy(body, pair->keypair.public_key, LUND_KEY_SIZE);
  body[LUND_KEY_SIZE] = pair->name_size;
  std::memcpy(body + IDENTITY_MIN, pair->name, pair->name_size);
  lund_aead_encrypt(pair->send_key, IDENTITY_NONCE, pair->last_message, at, body, size, body,
                    body + size);
  pair->last_message_size = at + size + LUND_MAC_SIZE;
}

// Opens the identity behind the first `at` bytes into `clear`.
int open_identity(const lund_pair* pair, const std::uint8_t* datagram, std::size_t size,
                  std::size_t at, std::uint8_t clear[IDENTITY_MAX]) {
  return lund_aead_decrypt(pair->recv_key, IDENTITY_NONCE, datagram, at, datagram + at,
                           size - at - LUND_MAC_SIZE, datagram + size - LUND_MAC_SIZE, clear);
}

int take_identity(lund_pair* pair, const std::uint8_t* clear, std::size_t size) {
  const std::size_t name_size = clear[LUND_KEY_SIZE];
  if (name_size > LUND_NAME_MAX || size != IDENTITY_MIN + name_size) return LUND_ERR_MALFORMED;
  std::memcpy(pair->peer_key, clear, LUND_KEY_SIZE);
  std::memset(pair->peer_name, 0, sizeof pair->peer_name);
  std::memcpy(pair->peer_name, clear + IDENTITY_MIN, name_size);
  return LUND_OK;
}

// Where an answer goes, and a datagram that came.
struct exchange {
  const std::uint8_t* datagram;
  std::size_t size;
  std::uint8_t* out;
  std::size_t capacity;
  std::size_t* out_size;
};

int send_last(const lund_pair* pair, const exchange& io, int result) {
  if (io.capacity < pair->last_message_size) return LUND_ERR_BUFFER;
  std::memcpy(io.out, pair->last_message, pair->last_message_size);
  *io.out_size = pair->last_message_size;
  return result;
}

int send_fail(const exchange& io, lund_pair_fail reason, int result) {
  *io.out_size = lund_pair_encode_fail(io.out, io.capacity, io.datagram + SID_AT, reason);
  return result;
}

bool has_sid(const lund_pair* pair, const exchange& io) {
  return std::memcmp(io.datagram + SID_AT, pair->sid, LUND_PAIR_SID_SIZE) == 0;
}

// --- the host -----------------------------------------------------------------------------------

int begin_exchange(lund_pair* pair, const std::uint8_t client_point[POINT_SIZE]) {
  int result = draw_point(pair);
  if (result == LUND_OK) result = derive_keys(pair, client_point);
  crypto_wipe(pair->scalar, sizeof pair->scalar);
  return result;
}

int host_takes_init(lund_pair* pair, const exchange& io) {
  if (io.size != INIT_SIZE) return LUND_ERR_MALFORMED;
  const bool answered = pair->state == LUND_PAIR_RESP_SENT || pair->state == LUND_PAIR_DONE;
  if (answered && has_sid(pair, io)) return send_last(pair, io, CARRY_ON);
  if (pair->attempts >= pair->max_attempts)
    return send_fail(io, LUND_PAIR_FAIL_LOCKED, LUND_ERR_LOCKED);

  // A guess is counted before anything of it is known: the host can't tell a wrong secret from a
  // client that never confirms.
  pair->state = LUND_PAIR_IDLE;
  ++pair->attempts;
  wipe_keys(pair);
  pair->last_message_size = 0;
  std::memcpy(pair->sid, io.datagram + SID_AT, LUND_PAIR_SID_SIZE);
  if (const int result = begin_exchange(pair, io.datagram + BODY_AT); result != LUND_OK)
    return result;

  write_head(pair->last_message, LUND_PKT_PAIR_RESP, pair->sid);
  std::memcpy(pair->last_message + BODY_AT, pair->point, POINT_SIZE);
  store_identity(pair, RESP_IDENTITY_AT);
  pair->state = LUND_PAIR_RESP_SENT;
  return send_last(pair, io, CARRY_ON);
}

int host_takes_confirm(lund_pair* pair, const exchange& io) {
  if (io.size < CONFIRM_MIN || io.size > CONFIRM_MIN + LUND_NAME_MAX || !has_sid(pair, io))
    return LUND_ERR_MALFORMED;
  if (pair->state == LUND_PAIR_DONE) return send_last(pair, io, CARRY_ON);
  if (pair->state != LUND_PAIR_RESP_SENT) return LUND_ERR_STATE;

  std::uint8_t clear[IDENTITY_MAX];
  if (open_identity(pair, io.datagram, io.size, BODY_AT, clear) != LUND_OK) {
    pair->state = LUND_PAIR_IDLE;
    wipe_keys(pair);
    return send_fail(io, LUND_PAIR_FAIL_SECRET, LUND_ERR_AUTH);
  }
  if (take_identity(pair, clear, io.size - BODY_AT - LUND_MAC_SIZE) != LUND_OK)
    return LUND_ERR_MALFORMED;

  write_head(pair->last_message, LUND_PKT_PAIR_OK, pair->sid);
  std::uint8_t* const body = pair->last_message + BODY_AT;
  *body = 0;
  lund_aead_encrypt(pair->send_key, OK_NONCE, pair->last_message, BODY_AT, body, 1, body, body + 1);
  pair->last_message_size = OK_SIZE;
  pair->state = LUND_PAIR_DONE;
  wipe_keys(pair);
  return send_last(pair, io, FINISHED);
}

// --- the client ---------------------------------------------------------------------------------

int client_gives_up(lund_pair* pair, int result) {
  pair->state = LUND_PAIR_FAILED;
  crypto_wipe(pair->scalar, sizeof pair->scalar);
  wipe_keys(pair);
  return result;
}

int client_takes_resp(lund_pair* pair, const exchange& io) {
  if (io.size < RESP_MIN || io.size > RESP_MIN + LUND_NAME_MAX || !has_sid(pair, io))
    return LUND_ERR_MALFORMED;
  if (pair->state == LUND_PAIR_CONFIRM_SENT) return send_last(pair, io, CARRY_ON);
  if (pair->state != LUND_PAIR_INIT_SENT) return LUND_ERR_STATE;

  if (const int result = derive_keys(pair, io.datagram + BODY_AT); result != LUND_OK) return result;
  std::uint8_t clear[IDENTITY_MAX];
  if (open_identity(pair, io.datagram, io.size, RESP_IDENTITY_AT, clear) != LUND_OK)
    return client_gives_up(pair, LUND_ERR_AUTH);
  crypto_wipe(pair->scalar, sizeof pair->scalar);
  // Without its scalar the exchange can't take another answer: it is over.
  if (take_identity(pair, clear, io.size - RESP_IDENTITY_AT - LUND_MAC_SIZE) != LUND_OK)
    return client_gives_up(pair, LUND_ERR_MALFORMED);

  write_head(pair->last_message, LUND_PKT_PAIR_CONFIRM, pair->sid);
  store_identity(pair, BODY_AT);
  pair->state = LUND_PAIR_CONFIRM_SENT;
  return send_last(pair, io, CARRY_ON);
}

int client_takes_ok(lund_pair* pair, const exchange& io) {
  if (io.size != OK_SIZE || !has_sid(pair, io)) return LUND_ERR_MALFORMED;
  if (pair->state == LUND_PAIR_DONE) return CARRY_ON;
  if (pair->state != LUND_PAIR_CONFIRM_SENT) return LUND_ERR_STATE;
  std::uint8_t clear = 1;
  const std::uint8_t* const body = io.datagram + BODY_AT;
  if (lund_aead_decrypt(pair->recv_key, OK_NONCE, io.datagram, BODY_AT, body, 1, body + 1,
                        &clear) != LUND_OK ||
      clear != 0)
    return LUND_ERR_AUTH;
  pair->state = LUND_PAIR_DONE;
  wipe_keys(pair);
  return FINISHED;
}

int client_takes_fail(lund_pair* pair, const exchange& io) {
  if (io.size != FAIL_SIZE || !has_sid(pair, io)) return LUND_ERR_MALFORMED;
  if (pair->state != LUND_PAIR_INIT_SENT && pair->state != LUND_PAIR_CONFIRM_SENT)
    return LUND_ERR_STATE;
  const bool locked = io.datagram[BODY_AT] == LUND_PAIR_FAIL_LOCKED;
  return client_gives_up(pair, locked ? LUND_ERR_LOCKED : LUND_ERR_AUTH);
}

}  // namespace

void lund_cpace_generator(std::uint8_t point_out[32], const std::uint8_t* secret,
                          std::size_t secret_size, const std::uint8_t* ci, std::size_t ci_size,
                          const std::uint8_t* sid, std::size_t sid_size) {
  constexpr std::uint8_t ZEROS[SHA512_BLOCK] = {};
  std::uint8_t digest[64];
  crypto_sha512_ctx context;
  crypto_sha512_init(&context);
  update_prefixed(&context, GENERATOR_DSI, sizeof GENERATOR_DSI);
  update_prefixed(&context, secret, secret_size);
  update_prefixed(&context, ZEROS, zero_pad_size(secret_size));
  update_prefixed(&context, ci, ci_size);
  update_prefixed(&context, sid, sid_size);
  crypto_sha512_final(&context, digest);  // wipes the context

  digest[31] &= 0x7F;
  conn_field_reduce(digest);
  conn_field_fold(digest);
  crypto_elligator_map(point_out, digest);
  crypto_wipe(digest, sizeof digest);
}

int lund_cpace_isk(std::uint8_t isk_out[64], const std::uint8_t* sid, std::size_t sid_size,
                   const std::uint8_t scalar[32], const std::uint8_t peer_point[32],
                   const std::uint8_t point_a[32], const std::uint8_t* ad_a, std::size_t ad_a_size,
                   const std::uint8_t point_b[32], const std::uint8_t* ad_b,
                   std::size_t ad_b_size) {
  constexpr std::uint8_t ZERO[32] = {};
  std::uint8_t shared[32];
  crypto_x25519(shared, scalar, peer_point);
  if (crypto_verify32(shared, ZERO) == 0) return LUND_ERR_WEAK_KEY;
  crypto_sha512_ctx context;
  crypto_sha512_init(&context);
  update_prefixed(&context, ISK_DSI, sizeof ISK_DSI);
  update_prefixed(&context, sid, sid_size);
  update_prefixed(&context, shared, sizeof shared);
  update_prefixed(&context, point_a, POINT_SIZE);
  update_prefixed(&context, ad_a, ad_a_size);
  update_prefixed(&context, point_b, POINT_SIZE);
  update_prefixed(&context, ad_b, ad_b_size);
  crypto_sha512_final(&context, isk_out);
  crypto_wipe(shared, sizeof shared);
  return LUND_OK;
}

int lund_pair_client_start(lund_pair* pair, const lund_keypair* keypair, const char* name,
                           const char* secret, std::uint8_t* out, std::size_t capacity,
                           std::size_t* out_size) {
  *out_size = 0;
  set_up(pair, LUND_PAIR_CLIENT, keypair, name, secret);
  if (lund_random_bytes(pair->sid, sizeof pair->sid) != LUND_OK || draw_point(pair) != LUND_OK)
    return LUND_ERR_RANDOM;
  pair->state = LUND_PAIR_INIT_SENT;
  write_head(pair->last_message, LUND_PKT_PAIR_INIT, pair->sid);
  std::memcpy(pair->last_message + BODY_AT, pair->point, POINT_SIZE);
  pair->last_message_size = INIT_SIZE;
  return send_last(pair, {nullptr, 0, out, capacity, out_size}, LUND_OK);
}

void lund_pair_host_init(lund_pair* pair, const lund_keypair* keypair, const char* name,
                         const char* secret, int max_attempts) {
  set_up(pair, LUND_PAIR_HOST, keypair, name, secret);
  const bool valid = max_attempts >= 1 && max_attempts <= MAX_ATTEMPTS_CEILING;
  pair->max_attempts = static_cast<std::uint8_t>(valid ? max_attempts : DEFAULT_MAX_ATTEMPTS);
}

int lund_pair_handle(lund_pair* pair, const std::uint8_t* datagram, std::size_t size,
                     std::uint8_t* out, std::size_t capacity, std::size_t* out_size) {
  *out_size = 0;
  if (size < LUND_HEADER_SIZE) return LUND_ERR_MALFORMED;
  const std::uint8_t type = datagram[2];
  const std::uint8_t header[LUND_HEADER_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN, type};
  if (std::memcmp(datagram, header, sizeof header) != 0) return LUND_ERR_MALFORMED;
  const exchange io{datagram, size, out, capacity, out_size};
  if (pair->role == LUND_PAIR_HOST) {
    if (type == LUND_PKT_PAIR_INIT) return host_takes_init(pair, io);
    if (type == LUND_PKT_PAIR_CONFIRM) return host_takes_confirm(pair, io);
  } else if (pair->role == LUND_PAIR_CLIENT) {
    if (type == LUND_PKT_PAIR_RESP) return client_takes_resp(pair, io);
    if (type == LUND_PKT_PAIR_OK) return client_takes_ok(pair, io);
    if (type == LUND_PKT_PAIR_FAIL) return client_takes_fail(pair, io);
  }
  return LUND_ERR_MALFORMED;
}

std::size_t lund_pair_encode_fail(std::uint8_t* out, std::size_t capacity,
                                  const std::uint8_t sid[LUND_PAIR_SID_SIZE], std::uint8_t reason) {
  if (capacity < FAIL_SIZE) return 0;
  write_head(out, LUND_PKT_PAIR_FAIL, sid);
  out[BODY_AT] = reason;
  return FAIL_SIZE;
}

const std::uint8_t* lund_pair_last_message(const lund_pair* pair, std::size_t* size_out) {
  *size_out = pair->last_message_size;
  return pair->last_message_size ? pair->last_message : nullptr;
}

void lund_pair_wipe(lund_pair* pair) {
  crypto_wipe(pair, sizeof *pair);
}

void lund_pair_forget_secret(lund_pair* pair) {
  crypto_wipe(pair->secret, sizeof pair->secret);
  pair->secret_size = 0;
}
