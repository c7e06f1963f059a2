// The erasure code beside ISA-L's SSE path: 64 data shards and 10 of parity, 1334 bytes each, on
// offsets as behind packet headers. Ours starts from the shards' indices every time, as the
// transport does; ISA-L is measured both with its tables made beforehand (*_isal_sse) and with all
// that it takes from the indices on (*_isal_sse_from_indices).
#include <benchmark/benchmark.h>
#include <isa-l/erasure_code.h>

#include "media/fec_internal.h"
#include "tests/support/fec_shards.h"

namespace {

constexpr int K = 64;
constexpr int M = 10;
constexpr std::size_t SHARD_BYTES = 1334;
constexpr std::size_t HEADER_BYTES = 42;
constexpr int LOST[M] = {0, 6, 12, 18, 24, 30, 36, 42, 48, 54};

FecShards make_shards() {
  FecShards shards(K, M, SHARD_BYTES, 1, HEADER_BYTES);
  shards.encode();
  return shards;
}

void set_rate(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(K * SHARD_BYTES));
}

void encode_lund(benchmark::State& state) {
  FecShards shards = make_shards();
  for (auto _ : state) {
    shards.encode();
    benchmark::ClobberMemory();
  }
  set_rate(state);
}

void encode_lund_scalar(benchmark::State& state) {
  FecShards shards = make_shards();
  for (auto _ : state) {
    lund_fec::encode(lund_fec::SCALAR_OPS, K, M, SHARD_BYTES, shards.pointers.data(),
                     shards.parity());
    benchmark::ClobberMemory();
  }
  set_rate(state);
}

std::vector<std::uint8_t> isal_matrix() {
  std::vector<std::uint8_t> matrix((K + M) * K);
  gf_gen_cauchy1_matrix(matrix.data(), K + M, K);
  return matrix;
}

void encode_isal_sse(benchmark::State& state) {
  FecShards shards = make_shards();
  auto matrix = isal_matrix();
  std::vector<std::uint8_t> tables(32 * K * M);
  ec_init_tables(K, M, matrix.data() + K * K, tables.data());
  for (auto _ : state) {
    if (state.range(0)) {
      gf_gen_cauchy1_matrix(matrix.data(), K + M, K);
      ec_init_tables(K, M, matrix.data() + K * K, tables.data());
    }
    ec_encode_data_sse(static_cast<int>(SHARD_BYTES), K, M, tables.data(), shards.pointers.data(),
                       shards.pointers.data() + K);
    benchmark::ClobberMemory();
  }
  set_rate(state);
}

void decode_lund(benchmark::State& state) {
  FecShards shards = make_shards();
  for (const int shard : LOST) shards.lose(shard);
  for (auto _ : state) {
    shards.decode();
    benchmark::ClobberMemory();
  }
  set_rate(state);
}

// What the lost shards are of the first K shards that are there.
class IsalDecoder {
 public:
  explicit IsalDecoder(FecShards& shards) : shards_(shards) {}
  void prepare() {
    std::vector<std::uint8_t> arrived, inverse(K * K), rows;
    from_.clear();
    to_.clear();
    for (int i = 0; from_.size() < K; ++i) {
      if (!shards_.present[static_cast<std::size_t>(i)]) continue;
      arrived.insert(arrived.end(), matrix_.begin() + i * K, matrix_.begin() + (i + 1) * K);
      from_.push_back(shards_.pointers[static_cast<std::size_t>(i)]);
    }
    gf_invert_matrix(arrived.data(), inverse.data(), K);
    for (const int lost : LOST) {
      rows.insert(rows.end(), inverse.begin() + lost * K, inverse.begin() + (lost + 1) * K);
      to_.push_back(shards_.pointers[static_cast<std::size_t>(lost)]);
    }
    ec_init_tables(K, M, rows.data(), tables_.data());
  }
  void decode() {
    ec_encode_data_sse(static_cast<int>(SHARD_BYTES), K, M, tables_.data(), from_.data(),
                       to_.data());
  }

 private:
  FecShards& shards_;
  std::vector<std::uint8_t> matrix_ = isal_matrix();
  std::vector<std::uint8_t> tables_ = std::vector<std::uint8_t>(32 * K * M);
  std::vector<std::uint8_t*> from_, to_;
};

void decode_isal_sse(benchmark::State& state) {
  FecShards shards = make_shards();
  const auto sent = shards.all();
  for (const int shard : LOST) shards.lose(shard);
  IsalDecoder isal(shards);
  isal.prepare();
  for (auto _ : state) {
    if (state.range(0)) isal.prepare();
    isal.decode();
    benchmark::ClobberMemory();
  }
  if (shards.all() != sent) state.SkipWithError("the rival rebuilt something else");
  set_rate(state);
}

BENCHMARK(encode_lund);
BENCHMARK(encode_isal_sse)->Name("encode_isal_sse")->Arg(0);
BENCHMARK(encode_isal_sse)->Name("encode_isal_sse_from_indices")->Arg(1);
BENCHMARK(encode_lund_scalar);
BENCHMARK(decode_lund);
BENCHMARK(decode_isal_sse)->Name("decode_isal_sse")->Arg(0);
BENCHMARK(decode_isal_sse)->Name("decode_isal_sse_from_indices")->Arg(1);

}  // namespace
