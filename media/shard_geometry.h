// How a frame of some size, cut into shards of some size, falls into blocks. The sender lays a
// frame out by it and the receiver checks every shard against it, so it is part of the wire format.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "media/fec.h"

struct shard_geometry {
  std::uint32_t shard_size = 0;  // bytes
  std::uint32_t total_shards = 0;
  std::uint32_t block_count = 0;
  std::uint32_t base = 0;       // data shards of a block ...
  std::uint32_t remainder = 0;  // ... and one more in this many blocks at the front

  std::uint32_t data_shards(std::uint32_t block) const {
    return base + (block < remainder ? 1 : 0);
  }
  std::uint32_t block_offset(std::uint32_t block) const {
    return (base * block + std::min(block, remainder)) * shard_size;
  }
  std::uint64_t padded_bytes() const { return std::uint64_t{total_shards} * shard_size; }
};

// Both sizes at least 1. Nothing when the blocks would outgrow their 16-bit count.
inline std::optional<shard_geometry> frame_geometry(std::uint32_t frame_size,
                                                    std::uint32_t shard_size) {
  constexpr std::uint64_t PER_BLOCK = LUND_FEC_MAX_DATA;
  const std::uint64_t total = (std::uint64_t{frame_size} + shard_size - 1) / shard_size;
  const std::uint64_t blocks = (total + PER_BLOCK - 1) / PER_BLOCK;
  if (blocks > 0xFFFF) return std::nullopt;
  return shard_geometry{
      .shard_size = shard_size,
      .total_shards = static_cast<std::uint32_t>(total),
      .block_count = static_cast<std::uint32_t>(blocks),
      .base = static_cast<std::uint32_t>(total / blocks),
      .remainder = static_cast<std::uint32_t>(total % blocks),
  };
}
