// Systematic Cauchy Reed-Solomon erasure code over GF(2^8) (polynomial 0x11D): k data shards go out
// as they are, parity shard i is the sum over j of data shard j times the inverse of ((k + i) ^ j).
// Parity does not depend on how much parity there is. Any number of threads on different buffers;
// no allocation; the tables are filled once.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int LUND_FEC_MAX_DATA = 64;
inline constexpr int LUND_FEC_MAX_SHARDS = 255;  // data and parity together

void lund_fec_init();  // fills the tables, if nobody has; encode and decode do so too

// k 1..64, m >= 0, k + m <= 255, shard_size >= 1; m = 0 may come with null `parity`. Overwrites
// every parity shard. 0, or -1 for bad arguments.
int lund_fec_encode(std::int32_t k, std::int32_t m, std::uint64_t shard_size,
                    const std::uint8_t* const* data, std::uint8_t* const* parity);

// Rebuilds the missing data shards in place. `shards`: k + m pointers, data first; `present`: as
// many bytes, non-zero where the shard holds content. Missing parity pointers aren't touched. 0
// (also when nothing is missing), or -1 for bad arguments or too little parity, with all shards as
// they were.
int lund_fec_decode(std::int32_t k, std::int32_t m, std::uint64_t shard_size,
                    std::uint8_t* const* shards, const std::uint8_t* present);
