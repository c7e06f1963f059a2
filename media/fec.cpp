#include "media/fec.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "media/fec_internal.h"

namespace lund_fec {

std::uint8_t gf_exp[512];
std::uint8_t gf_log[256];
std::uint8_t gf_mul_table[256][256];
std::uint8_t gf_nib_lo[256][16];
std::uint8_t gf_nib_hi[256][16];

namespace {

constexpr unsigned POLYNOMIAL = 0x11D;  // x^8 + x^4 + x^3 + x^2 + 1; 2 generates its field

std::uint8_t gf_inverse[256];  // of 1..255

std::once_flag fec_once;
region_ops selected_ops;

void mul_scalar(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c, std::size_t n) {
  const std::uint8_t* row = gf_mul_table[c];
  for (std::size_t i = 0; i < n; ++i) dst[i] = row[src[i]];
}

void mul_add_scalar(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c, std::size_t n) {
  const std::uint8_t* row = gf_mul_table[c];
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<std::uint8_t>(dst[i] ^ row[src[i]]);
}

void fill_tables() {
  unsigned x = 1;
  for (unsigned i = 0; i < 255; ++i) {
    gf_exp[i] = static_cast<std::uint8_t>(x);
    gf_log[x] = static_cast<std::uint8_t>(i);
    x <<= 1;
    if (x & 0x100) x ^= POLYNOMIAL;
  }
  for (unsigned i = 0; i <= 256; ++i) gf_exp[255 + i] = gf_exp[i];
  gf_log[0] = 0;
  for (unsigned v = 1; v < 256; ++v) gf_inverse[v] = gf_exp[255 - gf_log[v]];
  for (unsigned c = 1; c < 256; ++c)
    for (unsigned v = 1; v < 256; ++v) gf_mul_table[c][v] = gf_exp[gf_log[c] + gf_log[v]];
  for (unsigned c = 0; c < 256; ++c) {
    for (unsigned i = 0; i < 16; ++i) {
      gf_nib_lo[c][i] = gf_mul_table[c][i];
      gf_nib_hi[c][i] = gf_mul_table[c][i * 16];
    }
  }
}

void fec_once_cb() {
  fill_tables();
  const region_ops* simd = simd_ops();
  selected_ops = simd ? *simd : SCALAR_OPS;
}

// Of data shard j in parity shard i: k + i is above j, so that there is an inverse.
std::uint8_t coefficient(int k, int i, int j) {
  return gf_inverse[(k + i) ^ j];
}

bool valid_counts(std::int32_t k, std::int32_t m, std::uint64_t shard_size) {
  return k >= 1 && k <= LUND_FEC_MAX_DATA && m >= 0 && m <= LUND_FEC_MAX_SHARDS - k &&
         shard_size != 0;
}

void combine_pass(const region_ops& ops, int rows, int k, std::size_t n,
                  const coefficient_row* coefficients, const std::uint8_t* const* src,
                  std::uint8_t* const* dst) {
  // One row alone gains nothing from fusing: it reads each source once anyway.
  if (ops.dot_regions && rows > 1 && n >= FUSED_BYTES_MIN)
    return ops.dot_regions(rows, k, n, coefficients, src, dst);
  for (int r = 0; r < rows; ++r) {
    ops.mul_region(dst[r], src[0], coefficients[r][0], n);
    for (int j = 1; j < k; ++j) {
      const std::uint8_t c = coefficients[r][static_cast<std::size_t>(j)];
      if (c != 0) ops.mul_add_region(dst[r], src[j], c, n);
    }
  }
}

// dst[r] = the sum over j < k of row_of(r)[j] times src[j], in passes over the sources of as many
// rows as can be fused, evenly spread.
template <class RowOf>
void combine(const region_ops& ops, int rows, int k, std::size_t n, RowOf row_of,
             const std::uint8_t* const* src, std::uint8_t* const* dst) {
  std::array<coefficient_row, FUSED_ROWS_MAX> coefficients;
  const int passes = (rows + FUSED_ROWS_MAX - 1) / FUSED_ROWS_MAX;
  for (int pass = 0, first = 0; pass < passes; ++pass) {
    const int count = (rows - first) / (passes - pass);
    for (int r = 0; r < count; ++r) coefficients[static_cast<std::size_t>(r)] = row_of(first + r);
    combine_pass(ops, count, k, n, coefficients.data(), src, dst + first);
    first += count;
  }
}

// A row of the system that yields the missing shards: first the unknowns' coefficients, which
// elimination turns into the identity, and right behind them those of the known shards, which it
// turns into the solution. Zeros follow, so that a row operation may round its width up.
using system_row = std::array<std::uint8_t, 2 * LUND_FEC_MAX_DATA>;

// Gauss-Jordan with row pivoting over n rows of `width` bytes; false when they are singular.
bool eliminate(const region_ops& ops, system_row* rows, std::size_t n, std::size_t width) {
  const std::size_t bytes = (width + FUSED_BYTES_MIN - 1) / FUSED_BYTES_MIN * FUSED_BYTES_MIN;
  for (std::size_t p = 0; p < n; ++p) {
    std::size_t pivot = p;
    while (pivot < n && rows[pivot][p] == 0) ++pivot;
    if (pivot == n) return false;
    if (pivot != p) std::swap(rows[pivot], rows[p]);
    ops.mul_region(rows[p].data(), rows[p].data(), gf_inverse[rows[p][p]], bytes);
    for (std::size_t r = 0; r < n; ++r) {
      const std::uint8_t e = rows[r][p];
      if (r != p && e != 0) ops.mul_add_region(rows[r].data(), rows[p].data(), e, bytes);
    }
  }
  return true;
}

}  // namespace

const region_ops SCALAR_OPS = {mul_scalar, mul_add_scalar, nullptr};

void encode(const region_ops& ops, std::int32_t k, std::int32_t m, std::uint64_t shard_size,
            const std::uint8_t* const* data, std::uint8_t* const* parity) {
  const auto row_of = [k](int i) {
    coefficient_row row;
    for (int j = 0; j < k; ++j) row[static_cast<std::size_t>(j)] = coefficient(k, i, j);
    return row;
  };
  combine(ops, m, k, shard_size, row_of, data, parity);
}

// Parity shard used[r] is the sum of the missing shards and of those that arrived, each times its
// coefficient. With the missing ones on the one side, and parity and the arrived ones on the other,
// elimination leaves the coefficients by which each missing shard is the sum of known ones.
int decode(const region_ops& ops, std::int32_t k, std::int32_t m, std::uint64_t shard_size,
           std::uint8_t* const* shards, const std::uint8_t* present) {
  const auto n = static_cast<std::size_t>(std::count(present, present + k, 0));
  if (n == 0) return 0;
  std::array<int, LUND_FEC_MAX_DATA> used;
  std::size_t found = 0;
  for (int i = 0; i < m && found < n; ++i)
    if (present[k + i]) used[found++] = i;
  if (found < n) return -1;

  std::array<const std::uint8_t*, LUND_FEC_MAX_DATA> known;
  std::array<std::uint8_t*, LUND_FEC_MAX_DATA> missing;
  std::array<std::size_t, LUND_FEC_MAX_DATA> column;  // of each data shard in the system
  std::size_t unknown = 0;
  std::size_t arrived = n;
  for (std::size_t j = 0; j < static_cast<std::size_t>(k); ++j) {
    if (present[j]) {
      column[j] = n + arrived;
      known[arrived++] = shards[j];
    } else {
      column[j] = unknown;
      missing[unknown++] = shards[j];
    }
  }
  std::array<system_row, LUND_FEC_MAX_DATA> system;
  for (std::size_t r = 0; r < n; ++r) {
    known[r] = shards[k + used[r]];
    system[r].fill(0);
    system[r][n + r] = 1;
    for (int j = 0; j < k; ++j)
      system[r][column[static_cast<std::size_t>(j)]] = coefficient(k, used[r], j);
  }
  if (!eliminate(ops, system.data(), n, n + static_cast<std::size_t>(k))) return -1;

  const auto row_of = [&system, n](int r) {
    coefficient_row row;
    std::copy_n(&system[static_cast<std::size_t>(r)][n], row.size(), row.begin());
    return row;
  };
  combine(ops, static_cast<int>(n), k, shard_size, row_of, known.data(), missing.data());
  return 0;
}

}  // namespace lund_fec

void lund_fec_init() {
  std::call_once(lund_fec::fec_once, lund_fec::fec_once_cb);
}

int lund_fec_encode(std::int32_t k, std::int32_t m, std::uint64_t shard_size,
                    const std::uint8_t* const* data, std::uint8_t* const* parity) {
  if (!lund_fec::valid_counts(k, m, shard_size) || !data || (m != 0 && !parity)) return -1;
  lund_fec_init();
  lund_fec::encode(lund_fec::selected_ops, k, m, shard_size, data, parity);
  return 0;
}

int lund_fec_decode(std::int32_t k, std::int32_t m, std::uint64_t shard_size,
                    std::uint8_t* const* shards, const std::uint8_t* present) {
  if (!lund_fec::valid_counts(k, m, shard_size) || !shards || !present) return -1;
  lund_fec_init();
  return lund_fec::decode(lund_fec::selected_ops, k, m, shard_size, shards, present);
}
