// The CPace generator's zero pad and inputs; its known answers are in
// known_answers_protocol_test.cpp.
#include <gtest/gtest.h>
#include <monocypher-ed25519.h>
#include <monocypher.h>

#include <string>

#include "connection/cpace.h"
#include "tests/support/vectors.h"

namespace {

using vectors::bytes;
using vectors::to_hex;

// The draft's generator with a zero pad of the given size, by schoolbook arithmetic on 32 bytes.
std::string generator_with_pad(const bytes& secret, std::size_t pad) {
  bytes input;
  const auto append = [&input](const bytes& value) {
    if (value.size() >= 128) input.push_back(static_cast<std::uint8_t>(value.size() % 128 + 128));
    input.push_back(
        static_cast<std::uint8_t>(value.size() < 128 ? value.size() : value.size() / 128));
    input.insert(input.end(), value.begin(), value.end());
  };
  append({'C', 'P', 'a', 'c', 'e', '2', '5', '5'});
  append(secret);
  append(bytes(pad));
  append({'c', 'i'});
  append(bytes(16, 7));
  std::uint8_t hash[64];
  crypto_sha512(hash, input.data(), input.size());
  hash[31] &= 127;
  if (hash[31] & 64) {  // p - hash; a hash at or above p doesn't occur in these tests
    int borrow = 0;
    for (int i = 0; i < 32; ++i) {
      int digit = (i == 0 ? 0xED : i == 31 ? 0x7F : 0xFF) - hash[i] - borrow;
      borrow = digit < 0;
      hash[i] = static_cast<std::uint8_t>(digit + 256 * borrow);
    }
  }
  std::uint8_t point[32];
  crypto_elligator_map(point, hash);
  return to_hex(point);
}

std::string generator(const bytes& secret) {
  const std::uint8_t ci[] = {'c', 'i'};
  const bytes sid(16, 7);
  std::uint8_t point[32];
  lund_cpace_generator(point, secret.data(), secret.size(), ci, sizeof ci, sid.data(), sid.size());
  return to_hex(point);
}

TEST(CpaceGenerator, TheSecretFillsTheFirstHashBlock) {
  struct {
    std::size_t secret, pad;
  } constexpr CASES[] = {{6, 111}, {64, 53}, {0, 117}, {116, 1}, {117, 0}, {118, 0}, {200, 0}};
  for (const auto& [secret_size, pad] : CASES) {
    for (int fill = 0; fill < 8; ++fill) {
      const bytes secret(secret_size, static_cast<std::uint8_t>(fill));
      EXPECT_EQ(generator(secret), generator_with_pad(secret, pad)) << secret_size;
    }
  }
}

TEST(CpaceGenerator, DependsOnEveryInput) {
  const bytes secret = {1, 2, 3}, other = {1, 2, 4};
  const std::uint8_t ci[] = {'c', 'i'}, sid[] = {1, 2};
  const auto point = [&](const bytes& s, std::size_t ci_size, std::size_t sid_size) {
    std::uint8_t out[32];
    lund_cpace_generator(out, s.data(), s.size(), ci, ci_size, sid, sid_size);
    return to_hex(out);
  };
  EXPECT_NE(point(secret, 2, 2), point(other, 2, 2));
  EXPECT_NE(point(secret, 2, 2), point(secret, 1, 2));
  EXPECT_NE(point(secret, 2, 2), point(secret, 2, 1));
}

}  // namespace
