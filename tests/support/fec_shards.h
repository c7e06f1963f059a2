// A block's shards in one piece of memory, as the erasure code takes them.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "media/fec.h"

// k data shards of random bytes and m parity shards of another known byte, each at an offset of its
// own from any alignment. Everything is in bounds for a sanitizer to the byte.
struct FecShards {
  FecShards(int k_, int m_, std::size_t size_, std::size_t seed, std::size_t offset = 0)
      : k(k_), m(m_), size(size_) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    for (int i = 0; i < k + m; ++i) {
      memory.emplace_back(offset + size, std::uint8_t{0xA5});
      if (i < k)
        for (auto& byte : memory.back()) byte = static_cast<std::uint8_t>(random());
      pointers.push_back(memory.back().data() + offset);
    }
    present.assign(pointers.size(), 1);
  }

  std::vector<std::uint8_t> bytes(int shard) const {
    const std::uint8_t* p = pointers[static_cast<std::size_t>(shard)];
    return {p, p + size};
  }
  std::vector<std::vector<std::uint8_t>> all() const {
    std::vector<std::vector<std::uint8_t>> shards;
    for (int i = 0; i < k + m; ++i) shards.push_back(bytes(i));
    return shards;
  }
  std::uint8_t* const* parity() const { return pointers.data() + k; }

  // The shard's content is gone, as after a loss.
  void lose(int shard) {
    const auto i = static_cast<std::size_t>(shard);
    present[i] = 0;
    std::fill_n(pointers[i], size, std::uint8_t{0xEE});
  }

  int encode() { return lund_fec_encode(k, m, size, pointers.data(), parity()); }
  int decode() { return lund_fec_decode(k, m, size, pointers.data(), present.data()); }

  int k;
  int m;
  std::size_t size;
  std::vector<std::vector<std::uint8_t>> memory;
  std::vector<std::uint8_t*> pointers;
  std::vector<std::uint8_t> present;
};
