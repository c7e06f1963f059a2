// The inside of the erasure code, for its processor-specific half and for tests. Everything here
// reads the tables: lund_fec_init first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "media/fec.h"

namespace lund_fec {

// The tables of the field; filled once, read-only afterwards.
extern std::uint8_t gf_exp[512];  // powers of 2, twice over: the sum of two logarithms is an index
extern std::uint8_t gf_log[256];  // gf_log[0] is 0 and means nothing
extern std::uint8_t gf_mul_table[256][256];
extern std::uint8_t gf_nib_lo[256][16];  // row c: c times 0..15
extern std::uint8_t gf_nib_hi[256][16];  // row c: c times 0x00, 0x10 .. 0xF0

// The coefficients that one destination has for its sources.
using coefficient_row = std::array<std::uint8_t, LUND_FEC_MAX_DATA>;

inline constexpr int FUSED_ROWS_MAX = 10;  // as many sums as 16 vector registers hold
inline constexpr std::size_t FUSED_BYTES_MIN = 16;

// One way to multiply regions of n bytes. Nothing need be aligned; only equal pointers may overlap,
// and those not in dot_regions.
struct region_ops {
  void (*mul_region)(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c, std::size_t n);
  void (*mul_add_region)(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c, std::size_t n);
  // dst[r] = the sum over j < k of coefficients[r][j] times src[j], each source read once for all
  // the rows: 2..FUSED_ROWS_MAX rows, n >= FUSED_BYTES_MIN. Null where there is none: row by row.
  void (*dot_regions)(int rows, int k, std::size_t n, const coefficient_row* coefficients,
                      const std::uint8_t* const* src, std::uint8_t* const* dst);
};

extern const region_ops SCALAR_OPS;
const region_ops* simd_ops();  // null where the processor has no such instructions

// lund_fec_encode and lund_fec_decode by a given way, of arguments that are in range.
void encode(const region_ops& ops, std::int32_t k, std::int32_t m, std::uint64_t shard_size,
            const std::uint8_t* const* data, std::uint8_t* const* parity);
int decode(const region_ops& ops, std::int32_t k, std::int32_t m, std::uint64_t shard_size,
           std::uint8_t* const* shards, const std::uint8_t* present);

}  // namespace lund_fec
