// SipHash-2-4 (Aumasson and Bernstein, "SipHash: a fast short-input PRF"), the hash of this
// server's tables: under a random key nobody can choose addresses or keys that fall into one
// bucket.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "connection/byte_order.h"

struct SipKey {
  std::uint64_t k0 = 0;
  std::uint64_t k1 = 0;
};

class SipState {
 public:
  explicit SipState(const SipKey& key)
      : v0_(key.k0 ^ 0x736f6d6570736575),
        v1_(key.k1 ^ 0x646f72616e646f6d),
        v2_(key.k0 ^ 0x6c7967656e657261),
        v3_(key.k1 ^ 0x7465646279746573) {}

  void add(std::uint64_t word) {
    v3_ ^= word;
    round();
    round();
    v0_ ^= word;
  }
  std::uint64_t finish() {
    v2_ ^= 0xff;
    for (int i = 0; i < 4; ++i) round();
    return v0_ ^ v1_ ^ v2_ ^ v3_;
  }

 private:
  void round() {
    v0_ += v1_;
    v1_ = std::rotl(v1_, 13) ^ v0_;
    v0_ = std::rotl(v0_, 32);
    v2_ += v3_;
    v3_ = std::rotl(v3_, 16) ^ v2_;
    v0_ += v3_;
    v3_ = std::rotl(v3_, 21) ^ v0_;
    v2_ += v1_;
    v1_ = std::rotl(v1_, 17) ^ v2_;
    v2_ = std::rotl(v2_, 32);
  }

  std::uint64_t v0_, v1_, v2_, v3_;
};

inline std::uint64_t siphash(const SipKey& key, const std::uint8_t* bytes, std::size_t size) {
  SipState state(key);
  const std::size_t whole = size / 8 * 8;
  for (std::size_t at = 0; at < whole; at += 8) state.add(load_le<std::uint64_t>(bytes + at));
  std::uint64_t last = std::uint64_t{size & 0xff} << 56;
  for (std::size_t i = whole; i < size; ++i) last |= std::uint64_t{bytes[i]} << (8 * (i - whole));
  state.add(last);
  return state.finish();
}
