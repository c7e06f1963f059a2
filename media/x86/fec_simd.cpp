// Region products by byte shuffles: a product is the XOR of those of the byte's two nibbles, and a
// table of 16 products fits a register (SSSE3's pshufb looks 16 of them up at once). The tails are
// the scalar table's.
#include <cpuid.h>
#include <tmmintrin.h>

#include <algorithm>
#include <cstring>

#include "media/fec_internal.h"

#define LUND_SSSE3 __attribute__((target("ssse3")))

namespace lund_fec {
namespace {

LUND_SSSE3 inline __m128i load(const std::uint8_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}
LUND_SSSE3 inline void store(std::uint8_t* to, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), v);
}

struct nibbles {
  __m128i lo;
  __m128i hi;
};
LUND_SSSE3 inline nibbles split(__m128i v) {
  const __m128i mask = _mm_set1_epi8(0x0F);
  return {_mm_and_si128(v, mask), _mm_and_si128(_mm_srli_epi64(v, 4), mask)};
}

// The products of all 16 nibble values with one coefficient.
struct product_tables {
  __m128i lo;
  __m128i hi;
};
LUND_SSSE3 inline product_tables tables_of(std::uint8_t c) {
  return {load(gf_nib_lo[c]), load(gf_nib_hi[c])};
}
LUND_SSSE3 inline __m128i product(const product_tables& t, const nibbles& v) {
  return _mm_xor_si128(_mm_shuffle_epi8(t.lo, v.lo), _mm_shuffle_epi8(t.hi, v.hi));
}

LUND_SSSE3 void mul_ssse3(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c,
                          std::size_t n) {
  const product_tables t = tables_of(c);
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) store(dst + i, product(t, split(load(src + i))));
  SCALAR_OPS.mul_region(dst + i, src + i, c, n - i);
}

LUND_SSSE3 inline void mul_add_16(std::uint8_t* dst, const std::uint8_t* src,
                                  const product_tables& t) {
  store(dst, _mm_xor_si128(load(dst), product(t, split(load(src)))));
}

LUND_SSSE3 void mul_add_ssse3(std::uint8_t* dst, const std::uint8_t* src, std::uint8_t c,
                              std::size_t n) {
  const product_tables t = tables_of(c);
  std::size_t i = 0;
  for (; i + 64 <= n; i += 64) {
    mul_add_16(dst + i, src + i, t);
    mul_add_16(dst + i + 16, src + i + 16, t);
    mul_add_16(dst + i + 32, src + i + 32, t);
    mul_add_16(dst + i + 48, src + i + 48, t);
  }
  for (; i + 16 <= n; i += 16) mul_add_16(dst + i, src + i, t);
  SCALAR_OPS.mul_add_region(dst + i, src + i, c, n - i);
}

// 16 bytes of ROWS destinations: the sums stay in registers, and each source is split once for all.
template <int ROWS>
LUND_SSSE3 inline void dot_16(int k, std::size_t at, const product_tables* tables,
                              const std::uint8_t* const* src, std::uint8_t* const* dst) {
  __m128i sum[ROWS];
#pragma GCC unroll 16
  for (int r = 0; r < ROWS; ++r) sum[r] = _mm_setzero_si128();
#pragma GCC unroll 2
  for (int j = 0; j < k; ++j, tables += ROWS) {
    const nibbles v = split(load(src[j] + at));
#pragma GCC unroll 16
    for (int r = 0; r < ROWS; ++r) sum[r] = _mm_xor_si128(sum[r], product(tables[r], v));
  }
#pragma GCC unroll 16
  for (int r = 0; r < ROWS; ++r) store(dst[r] + at, sum[r]);
}

template <int ROWS>
LUND_SSSE3 void dot_rows(int k, std::size_t n, const coefficient_row* coefficients,
                         const std::uint8_t* const* src, std::uint8_t* const* dst) {
  product_tables tables[LUND_FEC_MAX_DATA * ROWS];
  for (int j = 0; j < k; ++j)
    for (int r = 0; r < ROWS; ++r)
      tables[j * ROWS + r] = tables_of(coefficients[r][static_cast<std::size_t>(j)]);
  for (std::size_t at = 0; at + 16 <= n; at += 16) dot_16<ROWS>(k, at, tables, src, dst);
  // The last, partial 16 bytes: done over again together with some before them.
  if (n % 16 != 0) dot_16<ROWS>(k, n - 16, tables, src, dst);
}

void dot_ssse3(int rows, int k, std::size_t n, const coefficient_row* coefficients,
               const std::uint8_t* const* src, std::uint8_t* const* dst) {
  using kernel = void (*)(int, std::size_t, const coefficient_row*, const std::uint8_t* const*,
                          std::uint8_t* const*);
  static constexpr kernel KERNELS[] = {dot_rows<2>, dot_rows<3>, dot_rows<4>,
                                       dot_rows<5>, dot_rows<6>, dot_rows<7>,
                                       dot_rows<8>, dot_rows<9>, dot_rows<10>};
  static_assert(std::size(KERNELS) == FUSED_ROWS_MAX - 1);
  KERNELS[rows - 2](k, n, coefficients, src, dst);
}

bool has_ssse3() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid_max(0, nullptr) != 0 && __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 &&
         (ecx & bit_SSSE3) != 0;
}

}  // namespace

const region_ops* simd_ops() {
  static constexpr region_ops SSSE3_OPS = {mul_ssse3, mul_add_ssse3, dot_ssse3};
  return has_ssse3() ? &SSSE3_OPS : nullptr;
}

}  // namespace lund_fec
