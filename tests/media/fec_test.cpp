#include "media/fec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "media/fec_internal.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/fec_shards.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// The field by its definition: multiplication of polynomials modulo x^8 + x^4 + x^3 + x^2 + 1.
std::uint8_t slow_mul(unsigned a, unsigned b) {
  unsigned product = 0;
  for (unsigned i = 0; i < 8; ++i)
    if (b >> i & 1) product ^= a << i;
  for (unsigned i = 15; i >= 8; --i)
    if (product >> i & 1) product ^= 0x11Du << (i - 8);
  return static_cast<std::uint8_t>(product);
}
std::uint8_t slow_inverse(unsigned a) {
  for (unsigned b = 1; b < 256; ++b)
    if (slow_mul(a, b) == 1) return static_cast<std::uint8_t>(b);
  return 0;
}

// The code by its definition.
Bytes slow_parity(const FecShards& shards, int row) {
  Bytes parity(shards.size);
  for (int j = 0; j < shards.k; ++j) {
    const unsigned c = slow_inverse(static_cast<unsigned>((shards.k + row) ^ j));
    for (std::size_t x = 0; x < shards.size; ++x)
      parity[x] ^= slow_mul(c, shards.pointers[static_cast<std::size_t>(j)][x]);
  }
  return parity;
}

const lund_fec::region_ops* simd() {
  lund_fec_init();
  return lund_fec::simd_ops();
}

TEST(FecTables, AreThoseOfTheField) {
  lund_fec_init();
  for (unsigned a = 0; a < 256; ++a) {
    for (unsigned b = 0; b < 256; ++b)
      ASSERT_EQ(lund_fec::gf_mul_table[a][b], slow_mul(a, b)) << a << " times " << b;
    for (unsigned i = 0; i < 16; ++i) {
      ASSERT_EQ(lund_fec::gf_nib_lo[a][i], slow_mul(a, i));
      ASSERT_EQ(lund_fec::gf_nib_hi[a][i], slow_mul(a, i << 4));
    }
  }
  for (unsigned a = 1; a < 256; ++a) ASSERT_EQ(lund_fec::gf_exp[lund_fec::gf_log[a]], a);
  EXPECT_EQ(lund_fec::gf_log[0], 0);
  for (unsigned i = 0; i + 255 < 512; ++i)
    ASSERT_EQ(lund_fec::gf_exp[i + 255], lund_fec::gf_exp[i]);
}

TEST(FecTables, TheInverseOfOneIsOne) {
  lund_fec_init();
  EXPECT_EQ(lund_fec::gf_exp[255 - lund_fec::gf_log[1]], 1);
}

TEST(FecEncode, OneShardWithoutParityTouchesNothing) {
  FecShards shards(1, 0, 32, 1);
  const auto before = shards.all();
  EXPECT_EQ(lund_fec_encode(1, 0, 32, shards.pointers.data(), nullptr), 0);
  EXPECT_EQ(shards.all(), before);
}

TEST(FecEncode, TakesTheLargestCode) {
  FecShards shards(64, 191, 20, 2);
  ASSERT_EQ(shards.encode(), 0);
  for (int row : {0, 9, 10, 95, 190})
    EXPECT_EQ(shards.bytes(64 + row), slow_parity(shards, row)) << "row " << row;
}

TEST(FecEncode, RejectsWhatIsOutOfRange) {
  FecShards shards(64, 192, 8, 3);
  const auto* data = shards.pointers.data();
  const auto encode = [&](int k, int m, std::uint64_t size) {
    return lund_fec_encode(k, m, size, data, shards.parity());
  };
  EXPECT_EQ(encode(65, 1, 8), -1);
  EXPECT_EQ(encode(0, 1, 8), -1);
  EXPECT_EQ(encode(-1, 1, 8), -1);
  EXPECT_EQ(encode(64, 192, 8), -1);
  EXPECT_EQ(encode(1, 255, 8), -1);
  EXPECT_EQ(encode(4, -1, 8), -1);
  EXPECT_EQ(encode(64, INT32_MIN, 8), -1);
  EXPECT_EQ(encode(64, INT32_MAX, 8), -1);
  EXPECT_EQ(encode(4, 2, 0), -1);
  EXPECT_EQ(lund_fec_encode(4, 2, 8, nullptr, shards.parity()), -1);
  EXPECT_EQ(lund_fec_encode(4, 2, 8, data, nullptr), -1);
  EXPECT_EQ(lund_fec_encode(4, 0, 8, nullptr, nullptr), -1);
  EXPECT_EQ(shards.bytes(64), Bytes(8, 0xA5)) << "a rejected call wrote parity";
}

TEST(FecEncode, ParityDoesNotDependOnHowMuchThereIs) {
  FecShards few(20, 2, 100, 4);
  FecShards many(20, 33, 100, 4);
  few.encode();
  many.encode();
  EXPECT_EQ(few.bytes(20), many.bytes(20));
  EXPECT_EQ(few.bytes(21), many.bytes(21));
}

TEST(FecEncode, ZeroBytesAndTheCoefficientOneMultiplyProperly) {
  // 5 ^ 4 = 1: data shard 4 goes into parity shard 0 as it is.
  FecShards shards(5, 1, 40, 5);
  for (int j = 0; j < 4; ++j) std::fill_n(shards.pointers[static_cast<std::size_t>(j)], 40, 0);
  shards.pointers[4][7] = 0;
  ASSERT_EQ(shards.encode(), 0);
  EXPECT_EQ(shards.bytes(5), shards.bytes(4));
}

TEST(FecDecode, NothingMissingNeedsNoParity) {
  FecShards without(6, 0, 16, 6);
  EXPECT_EQ(without.decode(), 0);
  FecShards absent(6, 3, 16, 6);
  std::fill(absent.present.begin() + 6, absent.present.end(), std::uint8_t{0});
  const auto before = absent.all();
  EXPECT_EQ(absent.decode(), 0);
  EXPECT_EQ(absent.all(), before);
}

TEST(FecDecode, AMissingShardWithoutParityFails) {
  FecShards shards(6, 0, 16, 7);
  shards.lose(2);
  EXPECT_EQ(shards.decode(), -1);
}

TEST(FecDecode, RejectsWhatIsOutOfRange) {
  FecShards shards(4, 2, 8, 8);
  const auto decode = [&](int k, int m, std::uint64_t size) {
    return lund_fec_decode(k, m, size, shards.pointers.data(), shards.present.data());
  };
  EXPECT_EQ(decode(0, 2, 8), -1);
  EXPECT_EQ(decode(65, 2, 8), -1);
  EXPECT_EQ(decode(4, -1, 8), -1);
  EXPECT_EQ(decode(64, 192, 8), -1);
  EXPECT_EQ(decode(4, 2, 0), -1);
  EXPECT_EQ(lund_fec_decode(4, 2, 8, nullptr, shards.present.data()), -1);
  EXPECT_EQ(lund_fec_decode(4, 2, 8, shards.pointers.data(), nullptr), -1);
}

TEST(FecDecode, AsMuchParityAsIsMissingRebuildsBitForBit) {
  for (const int n : {1, 2, 7, 10, 11, 23}) {
    FecShards shards(40, n + 4, 333, 9);
    shards.encode();
    const auto sent = shards.all();
    for (int i = 0; i < n; ++i) shards.lose((i * 7) % 40);
    for (int i = 0; i < 4; ++i) shards.lose(40 + i);
    const Bytes present = shards.present;
    ASSERT_EQ(shards.decode(), 0);
    for (int j = 0; j < 40; ++j)
      ASSERT_EQ(shards.bytes(j), sent[static_cast<std::size_t>(j)]) << n << " missing, shard " << j;
    EXPECT_EQ(shards.present, present);
  }
}

TEST(FecDecode, OneParityShardTooFewFailsAndLeavesAllAsItWas) {
  FecShards shards(10, 4, 64, 10);
  shards.encode();
  for (int j : {0, 3, 5, 9}) shards.lose(j);
  shards.lose(11);
  const auto before = shards.all();
  EXPECT_EQ(shards.decode(), -1);
  EXPECT_EQ(shards.all(), before);
}

TEST(FecDecode, OnlyTheLowestParityThatIsPresentIsRead) {
  FecShards shards(10, 5, 64, 11);
  shards.encode();
  const auto sent = shards.all();
  shards.lose(4);
  shards.lose(8);
  shards.lose(10);
  std::fill_n(shards.pointers[13], shards.size, std::uint8_t{0x11});  // present, but not needed
  std::fill_n(shards.pointers[14], shards.size, std::uint8_t{0x22});
  ASSERT_EQ(shards.decode(), 0);
  EXPECT_EQ(shards.bytes(4), sent[4]);
  EXPECT_EQ(shards.bytes(8), sent[8]);
}

TEST(FecDecode, AllDataComesBackFromParityAlone) {
  for (const int k : {1, 5, 64}) {
    FecShards shards(k, k + 3, 77, 12);
    shards.encode();
    const auto sent = shards.all();
    for (int j = 0; j < k; ++j) shards.lose(j);
    shards.lose(k + 1);
    ASSERT_EQ(shards.decode(), 0);
    for (int j = 0; j < k; ++j) ASSERT_EQ(shards.bytes(j), sent[static_cast<std::size_t>(j)]);
  }
}

TEST(FecDecode, MissingParityMayShareOneBufferThatStaysAsItIs) {
  FecShards shards(8, 4, 50, 13);
  shards.encode();
  const auto sent = shards.all();
  Bytes spare(50, 0x77);
  shards.lose(1);
  for (std::size_t i : {std::size_t{8}, std::size_t{10}, std::size_t{11}}) {
    shards.present[i] = 0;
    shards.pointers[i] = spare.data();
  }
  ASSERT_EQ(shards.decode(), 0);
  EXPECT_EQ(shards.bytes(1), sent[1]);
  EXPECT_EQ(spare, Bytes(50, 0x77));
}

TEST(FecDecode, AnyLossWithinTheParityIsRebuilt) {
  std::mt19937 random(14);
  for (int round = 0; round < 300; ++round) {
    const int k = 1 + static_cast<int>(random() % 64);
    const int m = 1 + static_cast<int>(random() % 40);
    FecShards shards(k, m, 1 + random() % 90, random(), random() % 16);
    ASSERT_EQ(shards.encode(), 0);
    const auto sent = shards.all();
    std::vector<int> order(static_cast<std::size_t>(k + m));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < m; ++i) shards.lose(order[static_cast<std::size_t>(i)]);
    ASSERT_EQ(shards.decode(), 0);
    for (int j = 0; j < k; ++j) ASSERT_EQ(shards.bytes(j), sent[static_cast<std::size_t>(j)]);
  }
}

TEST(FecPaths, VectorRegionsEqualScalarOnesAtAnySizeAndOffset) {
  if (!simd()) GTEST_SKIP() << "this processor has no vector path";
  for (std::size_t size = 1; size <= 200; ++size) {
    const std::size_t offset = size % 17;
    FecShards scalar(1, 1, size, size, offset);
    FecShards vector(1, 1, size, size, offset);
    for (const unsigned coefficient : {0u, 1u, 2u, 0x53u, 0x8Eu, 0xFFu}) {
      const auto c = static_cast<std::uint8_t>(coefficient);
      lund_fec::SCALAR_OPS.mul_region(scalar.pointers[1], scalar.pointers[0], c, size);
      simd()->mul_region(vector.pointers[1], vector.pointers[0], c, size);
      ASSERT_EQ(scalar.bytes(1), vector.bytes(1)) << size << " bytes times " << coefficient;
      lund_fec::SCALAR_OPS.mul_add_region(scalar.pointers[1], scalar.pointers[0], 0x35, size);
      simd()->mul_add_region(vector.pointers[1], vector.pointers[0], 0x35, size);
      ASSERT_EQ(scalar.bytes(1), vector.bytes(1)) << size << " bytes times " << coefficient;
    }
  }
}

TEST(FecPaths, VectorCodeEqualsScalarCodeAtAnySizeAndOffset) {
  if (!simd()) GTEST_SKIP() << "this processor has no vector path";
  for (std::size_t size = 1; size <= 200; ++size) {
    const int m = 1 + static_cast<int>(size % 13);
    const std::size_t offset = (size * 3) % 19;
    FecShards scalar(17, m, size, size, offset);
    FecShards vector(17, m, size, size, offset);
    lund_fec::encode(lund_fec::SCALAR_OPS, 17, m, size, scalar.pointers.data(), scalar.parity());
    lund_fec::encode(*simd(), 17, m, size, vector.pointers.data(), vector.parity());
    ASSERT_EQ(scalar.all(), vector.all()) << size << " bytes, " << m << " rows";
    for (int i = 0; i < m; ++i) {
      scalar.lose(i);
      vector.lose(i);
    }
    ASSERT_EQ(lund_fec::decode(lund_fec::SCALAR_OPS, 17, m, size, scalar.pointers.data(),
                               scalar.present.data()),
              0);
    ASSERT_EQ(lund_fec::decode(*simd(), 17, m, size, vector.pointers.data(), vector.present.data()),
              0);
    ASSERT_EQ(scalar.all(), vector.all()) << size << " bytes, " << m << " rows";
  }
}

TEST(FecPaths, BothEqualTheDefinitionAroundTheVectorSizes) {
  for (const std::size_t size : {1u, 15u, 16u, 17u, 63u, 64u, 65u}) {
    for (const int m : {1, 2, 10, 11, 12}) {
      for (const auto* ops : {&lund_fec::SCALAR_OPS, simd()}) {
        if (!ops) continue;
        FecShards shards(9, m, size, 15, 1);
        lund_fec::encode(*ops, 9, m, size, shards.pointers.data(), shards.parity());
        for (int row = 0; row < m; ++row)
          ASSERT_EQ(shards.bytes(9 + row), slow_parity(shards, row))
              << size << " bytes, row " << row;
      }
    }
  }
}

TEST(Fec, NeitherEncodeNorDecodeAllocates) {
  FecShards shards(64, 12, 1334, 16);
  const AllocationCount allocations;
  shards.encode();
  for (int i = 0; i < 12; ++i) shards.lose(i);
  ASSERT_EQ(shards.decode(), 0);
  EXPECT_EQ(allocations.count(), 0u);
}

}  // namespace
