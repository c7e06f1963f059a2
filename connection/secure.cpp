#include "connection/secure.h"

#include <monocypher.h>

#include <cstring>
#include <string_view>

#include "connection/byte_order.h"
#include "connection/protocol.h"

namespace {

constexpr std::uint8_t KEY_ID_LABEL[] = {'l', 'u', 'n', 'd', 'e', 'r', 'h', 'a', 'z', 'e',
                                         '-', 'k', 'e', 'y', '-', 'i', 'd', '-', 'v', '1'};
// Crockford's base 32: no I, L, O, U, so that a code survives being read aloud.
constexpr std::string_view CODE_ALPHABET = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr int CODE_LETTERS = 8;
constexpr int CODE_BITS = 5 * CODE_LETTERS;

constexpr std::size_t COUNTER_AT = 8;
constexpr std::size_t BODY_AT = 16;
constexpr std::size_t SEAL_OVERHEAD = BODY_AT - LUND_HEADER_SIZE + LUND_MAC_SIZE;
constexpr std::uint64_t COUNTER_LIMIT = std::uint64_t{1} << 60;

constexpr std::uint64_t WORD_BITS = 64;
constexpr std::uint64_t WINDOW_BITS = 2048;
constexpr std::uint64_t WINDOW_WORDS = WINDOW_BITS / WORD_BITS;
static_assert(sizeof(lund_session::recv_window) * 8 == WINDOW_BITS);

std::uint64_t& window_word(lund_session* session, std::uint64_t counter) {
  return session->recv_window[counter / WORD_BITS % WINDOW_WORDS];
}

constexpr std::uint64_t window_bit(std::uint64_t counter) {
  return std::uint64_t{1} << (counter % WORD_BITS);
}

// The bound is inclusive: the map holds exactly the 2048 counters below recv_next.
bool is_replay(lund_session* session, std::uint64_t counter) {
  if (counter >= session->recv_next) return false;
  if (session->recv_next - counter > WINDOW_BITS) return true;
  return (window_word(session, counter) & window_bit(counter)) != 0;
}

// Forgets the counters that leave the window as it moves up to hold `counter`.
void advance_window(lund_session* session, std::uint64_t counter) {
  if (counter - session->recv_next >= WINDOW_BITS) {
    std::memset(session->recv_window, 0, sizeof session->recv_window);
  } else {
    for (std::uint64_t c = session->recv_next; c <= counter;) {
      if (c % WORD_BITS == 0 && counter - c >= WORD_BITS - 1) {
        window_word(session, c) = 0;
        c += WORD_BITS;
      } else {
        window_word(session, c) &= ~window_bit(c);
        ++c;
      }
    }
  }
  session->recv_next = counter + 1;
}

// A letter as a person may have typed it; -1 for none of the alphabet.
int code_value(char letter) {
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  if (letter == 'O') letter = '0';
  if (letter == 'I' || letter == 'L') letter = '1';
  const std::size_t found = CODE_ALPHABET.find(letter);
  return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

void init_aead(crypto_aead_ctx* context, const std::uint8_t key[LUND_KEY_SIZE],
               std::uint64_t counter) {
  std::uint8_t nonce[12] = {};
  store_le(nonce + 4, counter);
  crypto_aead_init_ietf(context, key, nonce);
}

}  // namespace

lund_session& lund_session::operator=(const lund_session& other) {
  if (this == &other) return *this;
  session_id = other.session_id;
  initiator = other.initiator;
  std::memcpy(send_key, other.send_key, sizeof send_key);
  std::memcpy(recv_key, other.recv_key, sizeof recv_key);
  send_counter.store(other.send_counter.load());
  recv_next = other.recv_next;
  std::memcpy(recv_window, other.recv_window, sizeof recv_window);
  std::memcpy(peer_key, other.peer_key, sizeof peer_key);
  std::memcpy(handshake_hash, other.handshake_hash, sizeof handshake_hash);
  return *this;
}

void lund_secure_wipe(void* pointer, std::size_t size) {
  crypto_wipe(pointer, size);
}

void lund_wipe_stack() {
  std::uint8_t below[65'536];
  crypto_wipe(below, sizeof below);
}

void lund_keypair_from_secret(lund_keypair* keypair, const std::uint8_t secret[LUND_KEY_SIZE]) {
  std::memmove(keypair->secret, secret, LUND_KEY_SIZE);
  crypto_x25519_public_key(keypair->public_key, keypair->secret);
}

int lund_keypair_generate(lund_keypair* keypair) {
  std::uint8_t secret[LUND_KEY_SIZE];
  const int result = lund_random_bytes(secret, sizeof secret);
  if (result == LUND_OK) lund_keypair_from_secret(keypair, secret);
  crypto_wipe(secret, sizeof secret);
  return result;
}

void lund_key_id(std::uint8_t out[LUND_KEY_ID_SIZE], const std::uint8_t public_key[LUND_KEY_SIZE]) {
  std::uint8_t input[sizeof KEY_ID_LABEL + LUND_KEY_SIZE];
  std::memcpy(input, KEY_ID_LABEL, sizeof KEY_ID_LABEL);
  std::memcpy(input + sizeof KEY_ID_LABEL, public_key, LUND_KEY_SIZE);
  crypto_blake2b(out, LUND_KEY_ID_SIZE, input, sizeof input);
}

void lund_key_code(char out[LUND_KEY_CODE_TEXT], const std::uint8_t public_key[LUND_KEY_SIZE]) {
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, public_key);
  std::uint64_t bits = 0;
  for (int i = 0; i < CODE_BITS / 8; ++i) bits = bits << 8 | id[i];
  for (int i = 0; i < CODE_LETTERS; ++i) {
    if (i == CODE_LETTERS / 2) *out++ = '-';
    *out++ = CODE_ALPHABET[bits >> (CODE_BITS - 5 * (i + 1)) & 31];
  }
  *out = '\0';
}

int lund_key_code_parse(std::uint8_t out[5], const char* text) {
  std::uint64_t bits = 0;
  int letters = 0;
  for (; *text != '\0'; ++text) {
    if (*text == '-' || *text == ' ') continue;
    const int value = code_value(*text);
    if (value < 0 || letters == CODE_LETTERS) return -1;
    bits = bits << 5 | static_cast<std::uint64_t>(value);
    ++letters;
  }
  if (letters != CODE_LETTERS) return -1;
  for (int i = 0; i < CODE_BITS / 8; ++i)
    out[i] = static_cast<std::uint8_t>(bits >> (CODE_BITS - 8 * (i + 1)));
  return 0;
}

void lund_hex_encode(char* out, const std::uint8_t* bytes, std::size_t size) {
  constexpr char DIGITS[] = "0123456789abcdef";
  for (std::size_t i = 0; i < size; ++i) {
    *out++ = DIGITS[bytes[i] >> 4];
    *out++ = DIGITS[bytes[i] & 15];
  }
  *out = '\0';
}

int lund_hex_decode(std::uint8_t* out, std::size_t size, const char* text) {
  for (std::size_t i = 0; i < size; ++i) {
    const int high = hex_value(text[2 * i]);
    if (high < 0) return -1;
    const int low = hex_value(text[2 * i + 1]);
    if (low < 0) return -1;
    out[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return text[2 * size] == '\0' ? 0 : -1;
}

void lund_aead_encrypt(const std::uint8_t key[LUND_KEY_SIZE], std::uint64_t counter,
                       const std::uint8_t* ad, std::size_t ad_size, const std::uint8_t* plain,
                       std::size_t size, std::uint8_t* cipher_out,
                       std::uint8_t mac_out[LUND_MAC_SIZE]) {
  crypto_aead_ctx context;
  init_aead(&context, key, counter);
  crypto_aead_write(&context, cipher_out, mac_out, ad, ad_size, plain, size);
  crypto_wipe(&context, sizeof context);
}

int lund_aead_decrypt(const std::uint8_t key[LUND_KEY_SIZE], std::uint64_t counter,
                      const std::uint8_t* ad, std::size_t ad_size, const std::uint8_t* cipher,
                      std::size_t size, const std::uint8_t mac[LUND_MAC_SIZE],
                      std::uint8_t* plain_out) {
  crypto_aead_ctx context;
  init_aead(&context, key, counter);
  const int failed = crypto_aead_read(&context, plain_out, mac, ad, ad_size, cipher, size);
  crypto_wipe(&context, sizeof context);
  return failed ? LUND_ERR_AUTH : LUND_OK;
}

std::size_t lund_seal(lund_session* session, const std::uint8_t* plain, std::size_t plain_size,
                      std::uint8_t* out, std::size_t out_capacity) {
  if (plain_size < LUND_HEADER_SIZE || plain[0] != LUND_MAGIC || plain[1] != LUND_VERSION_PLAIN ||
      out_capacity < SEAL_OVERHEAD || out_capacity - SEAL_OVERHEAD < plain_size)
    return 0;
  // A counter at its limit stays advanced: only some 2^64 further calls could wrap it.
  const std::uint64_t counter = session->send_counter.fetch_add(1);
  if (counter >= COUNTER_LIMIT) return 0;

  const std::size_t body_size = plain_size - LUND_HEADER_SIZE;
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_SEALED;
  out[2] = plain[2];
  out[3] = plain[3];
  store_le(out + 4, session->session_id);
  store_le(out + COUNTER_AT, counter);
  lund_aead_encrypt(session->send_key, counter, out, LUND_HEADER_SIZE, plain + LUND_HEADER_SIZE,
                    body_size, out + BODY_AT, out + BODY_AT + body_size);
  return plain_size + SEAL_OVERHEAD;
}

int lund_open(lund_session* session, const std::uint8_t* sealed, std::size_t sealed_size,
              std::uint8_t* out, std::size_t out_capacity, std::size_t* out_size) {
  *out_size = 0;
  if (sealed_size < LUND_HEADER_SIZE + SEAL_OVERHEAD || sealed[0] != LUND_MAGIC ||
      sealed[1] != LUND_VERSION_SEALED)
    return LUND_ERR_MALFORMED;
  const std::size_t plain_size = sealed_size - SEAL_OVERHEAD;
  if (out_capacity < plain_size) return LUND_ERR_BUFFER;
  if (load_le<std::uint32_t>(sealed + 4) != session->session_id) return LUND_ERR_SESSION;
  const auto counter = load_le<std::uint64_t>(sealed + COUNTER_AT);
  if (is_replay(session, counter)) return LUND_ERR_REPLAY;

  // In place, the ciphertext is first moved to where the plain text shall be; header and tag stay.
  const std::size_t body_size = plain_size - LUND_HEADER_SIZE;
  const std::uint8_t* cipher = sealed + BODY_AT;
  if (out == sealed) {
    std::memmove(out + LUND_HEADER_SIZE, cipher, body_size);
    cipher = out + LUND_HEADER_SIZE;
  }
  const int result =
      lund_aead_decrypt(session->recv_key, counter, sealed, LUND_HEADER_SIZE, cipher, body_size,
                        sealed + sealed_size - LUND_MAC_SIZE, out + LUND_HEADER_SIZE);
  if (result != LUND_OK) return result;

  if (counter >= session->recv_next) advance_window(session, counter);
  window_word(session, counter) |= window_bit(counter);

  std::memmove(out, sealed, LUND_HEADER_SIZE);
  out[1] = LUND_VERSION_PLAIN;
  *out_size = plain_size;
  return LUND_OK;
}

void lund_session_wipe(lund_session* session) {
  crypto_wipe(session, sizeof *session);
}
