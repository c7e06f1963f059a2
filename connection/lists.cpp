// Names, secrets and their verifiers, and the identity's text.
#include "connection/lists.h"

#include <monocypher.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "connection/lists_internal.h"

namespace {

constexpr std::size_t NAME_MAX_BYTES = 63;
constexpr std::size_t IDENTITY_DIGITS = 2 * LUND_KEY_SIZE;
constexpr std::string_view BLOB_TAG = "lunderhaze-pw1";
constexpr std::uint32_t MEM_MIN_KIB = 8;
constexpr std::uint32_t MEM_MAX_KIB = 0x100000;  // 1 GiB
constexpr std::uint32_t ITERATIONS_MAX = 16;

bool parameters_valid(std::uint32_t mem_kib, std::uint32_t iterations) {
  return mem_kib >= MEM_MIN_KIB && mem_kib <= MEM_MAX_KIB && iterations >= 1 &&
         iterations <= ITERATIONS_MAX;
}

bool continues_sequence(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Exactly the digits of `N` bytes.
template <std::size_t N>
bool parse_hex(std::string_view digits, std::uint8_t (&out)[N]) {
  if (digits.size() != 2 * N) return false;
  Wiped<char[2 * N + 1]> text;
  std::memcpy(text.value, digits.data(), digits.size());
  return lund_hex_decode(out, N, text.value) == 0;
}

bool parse_u32(std::string_view digits, std::uint32_t* out) {
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, *out);
  return error == std::errc() && stop == end;
}

bool parse_blob(std::string_view text, lund_password_record* out) {
  constexpr std::string_view SPACE = " \t\n\v\f\r";
  return next_field(text, SPACE) == BLOB_TAG && parse_hex(next_field(text, SPACE), out->salt) &&
         parse_u32(next_field(text, SPACE), &out->mem_kib) &&
         parse_u32(next_field(text, SPACE), &out->iterations) &&
         parse_hex(next_field(text, SPACE), out->verifier) &&
         parameters_valid(out->mem_kib, out->iterations);
}

}  // namespace

void conn_clean_name(char out[64], const char* text) {
  std::size_t size = text == nullptr ? 0 : strnlen(text, NAME_MAX_BYTES + 1);
  if (size > NAME_MAX_BYTES) {
    size = NAME_MAX_BYTES;
    while (size > 0 && continues_sequence(text[size])) --size;
  }
  std::transform(text, text + size, out, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 32 || byte == 127 ? ' ' : c;
  });
  out[size] = '\0';
}

int lund_secret_guess_kind(const char* text) {
  constexpr std::size_t PIN_DIGITS = 6;
  if (text == nullptr) return 2;
  const std::string_view secret = text;
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  return secret.size() == PIN_DIGITS && std::all_of(secret.begin(), secret.end(), is_digit) ? 1 : 2;
}

int lund_password_derive(std::uint8_t out[32], const char* password, const std::uint8_t salt[16],
                         std::uint32_t mem_kib, std::uint32_t iterations) {
  if (password == nullptr || !parameters_valid(mem_kib, iterations)) return -1;
  const std::unique_ptr<void, decltype(&std::free)> work(std::malloc(std::size_t{mem_kib} * 1024),
                                                         std::free);
  if (work == nullptr) return -1;
  const crypto_argon2_config config = {
      .algorithm = CRYPTO_ARGON2_ID, .nb_blocks = mem_kib, .nb_passes = iterations, .nb_lanes = 1};
  const crypto_argon2_inputs inputs = {
      .pass = reinterpret_cast<const std::uint8_t*>(password),
      .salt = salt,
      .pass_size = static_cast<std::uint32_t>(std::strlen(password)),
      .salt_size = 16,
  };
  // It wipes the work area before it returns.
  crypto_argon2(out, 32, work.get(), config, inputs, crypto_argon2_no_extras);
  return 0;
}

int lund_password_blob_parse(lund_password_record* out, const char* text) {
  Wiped<lund_password_record> parsed;
  if (text == nullptr || !parse_blob(text, &parsed.value)) return -1;
  *out = parsed.value;
  return 0;
}

std::size_t lund_password_blob_format(char* out, std::size_t capacity,
                                      const lund_password_record* record) {
  Wiped<char[2 * sizeof(record->salt) + 1]> salt;
  Wiped<char[2 * sizeof(record->verifier) + 1]> verifier;
  lund_hex_encode(salt.value, record->salt, sizeof(record->salt));
  lund_hex_encode(verifier.value, record->verifier, sizeof(record->verifier));
  char parameters[32];
  std::snprintf(parameters, sizeof(parameters), " %u %u ", record->mem_kib, record->iterations);
  TextWriter text(out, capacity);
  for (const std::string_view part :
       {BLOB_TAG, std::string_view(" "), std::string_view(salt.value), std::string_view(parameters),
        std::string_view(verifier.value)})
    text.add(part);
  return text.finish();
}

int lund_identity_generate(lund_keypair* keypair, char* hex_out) {
  if (lund_keypair_generate(keypair) != LUND_OK) return -1;
  lund_hex_encode(hex_out, keypair->secret, LUND_KEY_SIZE);
  return 0;
}

int lund_identity_load(lund_keypair* keypair, const char* text) {
  Wiped<std::uint8_t[LUND_KEY_SIZE]> secret;
  if (text == nullptr || strnlen(text, IDENTITY_DIGITS) < IDENTITY_DIGITS) return -1;
  if (!parse_hex({text, IDENTITY_DIGITS}, secret.value)) return -1;
  lund_keypair_from_secret(keypair, secret.value);
  return 0;
}
