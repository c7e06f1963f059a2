// The code's bytes beside those of a library that knows the same code: ISA-L with its Cauchy
// matrix.
#include <gtest/gtest.h>
#include <isa-l/erasure_code.h>

#include <algorithm>
#include <numeric>

#include "tests/support/fec_shards.h"

namespace {

std::vector<std::vector<std::uint8_t>> isal_parity(FecShards& shards) {
  const auto k = static_cast<std::size_t>(shards.k);
  const auto m = static_cast<std::size_t>(shards.m);
  std::vector<std::uint8_t> matrix((k + m) * k);
  std::vector<std::uint8_t> tables(32 * k * m);
  gf_gen_cauchy1_matrix(matrix.data(), shards.k + shards.m, shards.k);
  ec_init_tables(shards.k, shards.m, matrix.data() + k * k, tables.data());
  std::vector<std::vector<std::uint8_t>> parity(m, std::vector<std::uint8_t>(shards.size));
  std::vector<std::uint8_t*> rows;
  for (auto& row : parity) rows.push_back(row.data());
  ec_encode_data(static_cast<int>(shards.size), shards.k, shards.m, tables.data(),
                 shards.pointers.data(), rows.data());
  return parity;
}

TEST(FecBesideIsal, ParityIsTheSameByteForByteAndDecodeRecovers) {
  std::mt19937 random(20240817);
  for (int round = 0; round < 400; ++round) {
    const int k = 1 + static_cast<int>(random() % 64);
    const int m = 1 + static_cast<int>(random() % static_cast<unsigned>(255 - k));
    const std::size_t size = 1 + random() % 1430;
    SCOPED_TRACE(testing::Message() << "k " << k << ", m " << m << ", " << size << " bytes");
    FecShards shards(k, m, size, random(), random() % 16);
    ASSERT_EQ(shards.encode(), 0);
    const auto sent = shards.all();
    const auto expected = isal_parity(shards);
    for (int i = 0; i < m; ++i)
      ASSERT_EQ(sent[static_cast<std::size_t>(k + i)], expected[static_cast<std::size_t>(i)]);

    std::vector<int> order(static_cast<std::size_t>(k + m));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < m; ++i) shards.lose(order[static_cast<std::size_t>(i)]);
    ASSERT_EQ(shards.decode(), 0);
    for (int j = 0; j < k; ++j) ASSERT_EQ(shards.bytes(j), sent[static_cast<std::size_t>(j)]);
  }
}

}  // namespace
