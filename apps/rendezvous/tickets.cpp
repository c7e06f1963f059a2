#include "apps/rendezvous/tickets.h"

#include <monocypher.h>

#include <cstring>

#include "connection/byte_order.h"

namespace {

constexpr std::uint64_t EPOCH_US = 300'000'000;

// Keeps the uses of the one secret apart.
enum Purpose : std::uint8_t { CHALLENGE = 1, MASK = 2, GRANT = 3 };

// BLAKE2b under the secret.
class KeyedHash {
 public:
  KeyedHash(const std::uint8_t secret[32], Purpose purpose, std::size_t digest_size) {
    crypto_blake2b_keyed_init(&context_, digest_size, secret, 32);
    const std::uint8_t byte = purpose;
    crypto_blake2b_update(&context_, &byte, 1);
  }
  KeyedHash& add(const std::uint8_t* bytes, std::size_t size) {
    crypto_blake2b_update(&context_, bytes, size);
    return *this;
  }
  KeyedHash& add(const lund_rv_endpoint& address) {
    std::uint8_t bytes[3 + 16] = {address.family};
    store_le(bytes + 1, address.port);
    std::memcpy(bytes + 3, address.address.data(), 16);
    return add(bytes, sizeof bytes);
  }
  template <std::unsigned_integral T>
  KeyedHash& add(T value) {
    std::uint8_t bytes[sizeof(T)];
    store_le(bytes, value);
    return add(bytes, sizeof bytes);
  }
  void finish(std::uint8_t* digest) {
    crypto_blake2b_final(&context_, digest);
    lund_secure_wipe(&context_, sizeof context_);
  }

 private:
  crypto_blake2b_ctx context_;
};

}  // namespace

Tickets::Tickets() : ready_(lund_random_bytes(secret_, sizeof secret_) == LUND_OK) {}

Token Tickets::challenge_of_epoch(const lund_rv_endpoint& from, const std::uint8_t* key,
                                  std::uint64_t epoch) const {
  Token out;
  KeyedHash hash(secret_, CHALLENGE, out.size());
  hash.add(from).add(key, LUND_KEY_SIZE).add(epoch).finish(out.data());
  return out;
}

Token Tickets::challenge(const lund_rv_endpoint& from, const std::uint8_t* key,
                         std::uint64_t now_us) const {
  return challenge_of_epoch(from, key, now_us / EPOCH_US);
}

bool Tickets::is_current(const std::uint8_t* challenge, const lund_rv_endpoint& from,
                         const std::uint8_t* key, std::uint64_t now_us) const {
  const std::uint64_t epoch = now_us / EPOCH_US;
  for (const std::uint64_t back : {0, 1})
    if (crypto_verify16(challenge, challenge_of_epoch(from, key, epoch - back).data()) == 0)
      return true;
  return false;
}

std::uint32_t Tickets::mask(const lund_rv_endpoint& client) const {
  std::uint8_t bytes[4];
  KeyedHash(secret_, MASK, sizeof bytes).add(client).finish(bytes);
  return load_le<std::uint32_t>(bytes);
}

std::uint32_t Tickets::registration_of(std::uint32_t allocation,
                                       const lund_rv_endpoint& client) const {
  return allocation ^ mask(client);
}

Grant Tickets::grant(const lund_rv_endpoint& client, const KeyId& host,
                     std::uint32_t registration) const {
  Grant out;
  out.allocation = registration ^ mask(client);
  Token tokens[3];
  KeyedHash hash(secret_, GRANT, sizeof tokens);
  hash.add(client).add(host.data(), host.size()).add(out.allocation).finish(tokens[0].data());
  out.punch_token = tokens[0];
  out.bind_tokens[HOST_SIDE] = tokens[1];
  out.bind_tokens[CLIENT_SIDE] = tokens[2];
  return out;
}
