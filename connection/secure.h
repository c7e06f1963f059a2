// Key material and sealed records: a device's X25519 identity, the texts and ids by which people
// and programs know it, and the AEAD record format of a session. Primitives come from Monocypher.
// Everything works on data of the caller; `lund_open` needs exclusive access to its session.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

enum lund_result : int {
  LUND_OK = 0,
  LUND_ERR_MALFORMED = -1,
  LUND_ERR_AUTH = -2,      // tag failed, or a wrong secret
  LUND_ERR_REPLAY = -3,    // counter already seen or too old
  LUND_ERR_STATE = -4,     // message not valid in this state
  LUND_ERR_LOCKED = -5,    // too many attempts
  LUND_ERR_BUFFER = -6,    // output buffer too small
  LUND_ERR_RANDOM = -7,    // the system's random source failed
  LUND_ERR_WEAK_KEY = -8,  // Diffie-Hellman result was all zero
  LUND_ERR_SESSION = -9,   // sealed record for another session
};

inline constexpr std::size_t LUND_KEY_SIZE = 32;
inline constexpr std::size_t LUND_KEY_ID_SIZE = 16;
inline constexpr std::size_t LUND_MAC_SIZE = 16;
inline constexpr std::size_t LUND_KEY_CODE_TEXT = 10;  // "7K2M-Q9TX" and its terminator

void lund_secure_wipe(void* pointer, std::size_t size);

// What calls have left on the stack, 64 KiB below the caller. For who has had secrets copied about:
// copying leaves them in vector registers, and the loader saves those on the stack where a
// library's function is called for the first time.
void lund_wipe_stack();

// One 64-byte value, the secret first. Each copy wipes its secret when it goes, also those that
// nobody has a name for.
struct lund_keypair {
  std::uint8_t secret[LUND_KEY_SIZE] = {};
  std::uint8_t public_key[LUND_KEY_SIZE] = {};
  ~lund_keypair() { lund_secure_wipe(secret, sizeof secret); }
};
static_assert(sizeof(lund_keypair) == 64);

// The keys and replay state of one side of a session. Holds no pointers; a copy is a value.
struct lund_session {
  std::uint32_t session_id = 0;  // stands in bytes 4 to 7 of each sealed record; never 0 in use
  std::uint8_t initiator = 0;
  std::uint8_t send_key[LUND_KEY_SIZE] = {};
  std::uint8_t recv_key[LUND_KEY_SIZE] = {};
  std::atomic<std::uint64_t> send_counter{0};  // next to use; atomic so that no nonce can repeat
  std::uint64_t recv_next = 0;                 // highest counter accepted plus 1
  std::uint64_t recv_window[32] = {};          // counter c is bit c % 64 of word (c / 64) % 32
  std::uint8_t peer_key[LUND_KEY_SIZE] = {};
  std::uint8_t handshake_hash[64] = {};

  lund_session() = default;
  lund_session(const lund_session& other) { *this = other; }
  lund_session& operator=(const lund_session& other);
};

// Fills from the system's cryptographic generator. LUND_OK, also for size 0, or LUND_ERR_RANDOM.
int lund_random_bytes(void* buffer, std::size_t size);

void lund_keypair_from_secret(lund_keypair* keypair, const std::uint8_t secret[LUND_KEY_SIZE]);
int lund_keypair_generate(lund_keypair* keypair);  // LUND_OK or LUND_ERR_RANDOM

// BLAKE2b-128 of a label and the public key: how programs name a device.
void lund_key_id(std::uint8_t out[LUND_KEY_ID_SIZE], const std::uint8_t public_key[LUND_KEY_SIZE]);

// The first 40 bits of the key id in Crockford's base 32, "7K2M-Q9TX": how people compare devices.
void lund_key_code(char out[LUND_KEY_CODE_TEXT], const std::uint8_t public_key[LUND_KEY_SIZE]);

// Tolerant of case, blanks, hyphens, and O, I, L for 0, 1, 1. `out` gets the 5 bytes. 0 or -1.
int lund_key_code_parse(std::uint8_t out[5], const char* text);

void lund_hex_encode(char* out, const std::uint8_t* bytes, std::size_t size);  // 2 x size + 1 chars
// Exactly 2 x size digits of either case and the terminator; 0 or -1, `out` then half written.
int lund_hex_decode(std::uint8_t* out, std::size_t size, const char* text);

// RFC 8439 ChaCha20-Poly1305; the nonce is four zero bytes and the counter, little-endian.
// Input and output may be the same buffer. The decrypting one gives LUND_OK or LUND_ERR_AUTH.
void lund_aead_encrypt(const std::uint8_t key[LUND_KEY_SIZE], std::uint64_t counter,
                       const std::uint8_t* ad, std::size_t ad_size, const std::uint8_t* plain,
                       std::size_t size, std::uint8_t* cipher_out,
                       std::uint8_t mac_out[LUND_MAC_SIZE]);
int lund_aead_decrypt(const std::uint8_t key[LUND_KEY_SIZE], std::uint64_t counter,
                      const std::uint8_t* ad, std::size_t ad_size, const std::uint8_t* cipher,
                      std::size_t size, const std::uint8_t mac[LUND_MAC_SIZE],
                      std::uint8_t* plain_out);

// Seals a plain packet of `plain_size` >= 8 bytes into plain_size + 24. Returns that size, or 0 for
// a packet without a plain header, a short buffer, or an exhausted counter (2^60).
std::size_t lund_seal(lund_session* session, const std::uint8_t* plain, std::size_t plain_size,
                      std::uint8_t* out, std::size_t out_capacity);

// Opens a sealed record into a plain packet whose bytes 4 to 7 are the record's session id. `out`
// may be `sealed` itself. Replay state moves only for an authentic record; a failure other than
// LUND_ERR_AUTH leaves `out` alone too.
int lund_open(lund_session* session, const std::uint8_t* sealed, std::size_t sealed_size,
              std::uint8_t* out, std::size_t out_capacity, std::size_t* out_size);

void lund_session_wipe(lund_session* session);
