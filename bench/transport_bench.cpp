// Frames cut into datagrams and put together again: datagrams a second, beside a plain copy of the
// same payload (memcpy_*), which is the least that either side could do. The counter
// `copied_bytes` is what our code copies for a datagram on its way: a payload into a packet or a
// frame, and a header before each parity shard.
#include <benchmark/benchmark.h>

#include <cstring>

#include "tests/support/video_frames.h"

namespace {

using namespace video_frames;

constexpr std::uint64_t DATAGRAM_BYTES = 1376;
constexpr std::size_t FRAME_BYTES = 100'000;  // 75 data shards of 1334 bytes in two blocks
constexpr int FEC_PERCENT = 15;

std::int32_t discard(void* bytes, const std::uint8_t* packet, std::uint64_t length) {
  benchmark::DoNotOptimize(packet);
  *static_cast<std::uint64_t*>(bytes) += length;
  return 0;
}

struct Counts {
  double data = 0;
  double parity = 0;
  double payload = 0;  // bytes of a shard
};
Counts count(const std::vector<Bytes>& datagrams) {
  Counts counts;
  for (const auto& datagram : datagrams) {
    const auto header = header_of(datagram);
    ++(header.shard_index < header.data_shards ? counts.data : counts.parity);
    counts.payload = header.shard_size;
  }
  return counts;
}

void report(benchmark::State& state, double datagrams, double copied_bytes) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(datagrams));
  if (copied_bytes > 0) state.counters["copied_bytes"] = copied_bytes / datagrams;
}

void packetize_frame(benchmark::State& state) {
  const auto p = make_packetizer(DATAGRAM_BYTES, static_cast<int>(state.range(0)), 0);
  const Bytes frame = random_bytes(FRAME_BYTES, 1);
  const Counts counts = count(packetize(p.get(), 0, frame));
  lund_frame_info info = info_of(0);
  std::uint64_t sent = 0;
  for (auto _ : state) {
    ++info.frame_id;
    lund_packetizer_send_frame(p.get(), 7, &info, frame.data(), frame.size(), discard, &sent);
  }
  report(state, counts.data + counts.parity,
         counts.data * counts.payload + counts.parity * LUND_SHARD_HEADER_SIZE);
}

void memcpy_of_packetized(benchmark::State& state) {
  const auto p = make_packetizer(DATAGRAM_BYTES, 0, 0);
  const Bytes frame = random_bytes(FRAME_BYTES, 1);
  const Counts counts = count(packetize(p.get(), 0, frame));
  const auto payload = static_cast<std::size_t>(counts.payload);
  Bytes packet(DATAGRAM_BYTES);
  for (auto _ : state) {
    for (std::size_t offset = 0; offset < frame.size(); offset += payload) {
      std::memcpy(packet.data() + LUND_SHARD_HEADER_SIZE, frame.data() + offset,
                  std::min(payload, frame.size() - offset));
      benchmark::DoNotOptimize(packet.data());
      benchmark::ClobberMemory();
    }
  }
  report(state, counts.data, counts.data * counts.payload);
}

// The datagrams of one frame, of which some are lost and replaced by parity.
std::vector<Bytes> arriving(int lost) {
  const auto p = make_packetizer(DATAGRAM_BYTES, FEC_PERCENT, 0);
  auto datagrams = packetize(p.get(), 0, random_bytes(FRAME_BYTES, 1));
  std::erase_if(datagrams, [lost](const Bytes& datagram) {
    const auto header = header_of(datagram);
    return header.shard_index < lost || header.shard_index >= header.data_shards + lost;
  });
  return datagrams;
}

void reassemble_frame(benchmark::State& state) {
  auto datagrams = arriving(static_cast<int>(state.range(0)));
  const Counts counts = count(datagrams);
  const auto r = make_reassembler();
  lund_reassembled_frame frame;
  std::uint32_t frame_id = 0;
  std::int64_t popped = 0;
  for (auto _ : state) {
    for (auto& datagram : datagrams) {
      store_le(&datagram[8], frame_id);
      push(r.get(), datagram);
    }
    ++frame_id;
    popped += lund_reassembler_pop(r.get(), &frame, nullptr);
  }
  if (popped != state.iterations()) state.SkipWithError("frames were lost");
  report(state, counts.data + counts.parity, (counts.data + counts.parity) * counts.payload);
}

void memcpy_of_reassembled(benchmark::State& state) {
  const auto datagrams = arriving(0);
  const Counts counts = count(datagrams);
  const auto payload = static_cast<std::size_t>(counts.payload);
  Bytes frame(datagrams.size() * payload);
  for (auto _ : state) {
    std::size_t offset = 0;
    for (const auto& datagram : datagrams) {
      std::memcpy(frame.data() + offset, datagram.data() + LUND_SHARD_HEADER_SIZE, payload);
      offset += payload;
    }
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  report(state, counts.data, counts.data * counts.payload);
}

BENCHMARK(packetize_frame)->ArgName("fec_percent")->Arg(0)->Arg(FEC_PERCENT);
BENCHMARK(memcpy_of_packetized);
BENCHMARK(reassemble_frame)->ArgName("lost_per_block")->Arg(0)->Arg(5);
BENCHMARK(memcpy_of_reassembled);

}  // namespace
