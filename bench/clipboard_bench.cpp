// The clipboard at its largest item: putting 16 MB together from its packets, beside memcpy of the
// same bytes in the same chunks (memcpy_*), which is the least a receiver could do; and finding the
// gaps for an answer, which walks the map of the whole item, beside std::memchr over a map of the
// same size, which does no more than look at it.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "connection/protocol.h"
#include "streams/clipboard_internal.h"
#include "streams/clipboard_map.h"

namespace {

constexpr std::uint32_t SESSION = 7;
constexpr std::uint32_t SIZE = LUND_CLIP_IMAGE_MAX;
constexpr std::uint32_t CHUNK = 1'355;  // of a packet of 1376 bytes
constexpr std::size_t HEADER = 21;

using Bytes = std::vector<std::uint8_t>;

// The packets of one item, one behind the other as a receiver's buffer would have them.
struct Packets {
  Bytes bytes;
  std::vector<std::size_t> sizes;
};

const Packets& packets() {
  static const Packets made = [] {
    Packets out;
    Bytes item(SIZE);
    for (std::size_t i = 0; i < item.size(); ++i)
      item[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    const lund_packet_header header{.session_id = SESSION};
    for (std::uint32_t offset = 0; offset < SIZE; offset += CHUNK) {
      const std::size_t length = std::min<std::size_t>(CHUNK, SIZE - offset);
      const lund_clipboard_chunk chunk{
          .id = 0, .kind = LUND_CLIP_PNG, .total = SIZE, .offset = offset};
      Bytes packet(HEADER + length);
      lund_encode_clipboard(packet.data(), packet.size(), &header, &chunk, item.data() + offset,
                            length);
      out.bytes.insert(out.bytes.end(), packet.begin(), packet.end());
      out.sizes.push_back(packet.size());
    }
    return out;
  }();
  return made;
}

void ignore_packet(void*, const std::uint8_t*, std::uint64_t) {}
void free_item(void* received, std::uint32_t, std::uint8_t, std::uint8_t* data, std::uint64_t) {
  ++*static_cast<std::uint64_t*>(received);
  benchmark::DoNotOptimize(data);
  lund_clip_free(data);
}

// The whole way of each packet through the engine, memory for the item included.
void receive_16_mb(benchmark::State& state) {
  Packets work = packets();
  std::uint64_t received = 0;
  const lund_clip_config config{.send = ignore_packet, .on_data = free_item, .user = &received};
  lund_clip* clip = lund_clip_create_stepped(&config);
  lund_clip_set_session(clip, SESSION, 1'376);
  std::uint32_t id = 0;
  for (auto _ : state) {
    ++id;
    std::uint8_t* at = work.bytes.data();
    for (const std::size_t size : work.sizes) {
      std::memcpy(at + 8, &id, sizeof id);  // each round is an item of its own
      lund_clip_receive(clip, at, size);
      at += size;
    }
  }
  if (received != static_cast<std::uint64_t>(state.iterations()))
    state.SkipWithError("an item is missing");
  state.SetBytesProcessed(state.iterations() * std::int64_t{SIZE});
  lund_clip_destroy(clip);
}

// Into memory that is new each time, as the item's is.
void memcpy_16_mb(benchmark::State& state) {
  const Packets& work = packets();
  for (auto _ : state) {
    auto* item = static_cast<std::uint8_t*>(std::malloc(SIZE));
    std::uint8_t* to = item;
    const std::uint8_t* at = work.bytes.data();
    for (const std::size_t size : work.sizes) {
      std::memcpy(to, at + HEADER, size - HEADER);
      benchmark::ClobberMemory();
      to += size - HEADER;
      at += size;
    }
    benchmark::DoNotOptimize(item);
    std::free(item);
  }
  state.SetBytesProcessed(state.iterations() * std::int64_t{SIZE});
}

// 64 gaps near the item's end: all of the map before them is walked over.
void gaps_at_the_end_of_16_mb(benchmark::State& state) {
  ClipboardMap map;
  map.reset(SIZE);
  std::uint32_t marked = 0;
  const std::uint32_t first = SIZE - 2 * LUND_RANGES_MAX * CHUNK;
  marked += map.mark(0, first);
  for (std::uint32_t i = 0; i < LUND_RANGES_MAX; ++i)
    marked += map.mark(first + (2 * i + 1) * CHUNK, CHUNK);
  lund_clipboard_ack ack;
  for (auto _ : state) {
    ack.range_count = map.gaps(ack.ranges);
    benchmark::DoNotOptimize(ack);
  }
  if (ack.range_count != LUND_RANGES_MAX || marked == SIZE) state.SkipWithError("not 64 gaps");
  state.SetBytesProcessed(state.iterations() * std::int64_t{SIZE / 8});
}

void memchr_of_a_map_of_16_mb(benchmark::State& state) {
  Bytes map(SIZE / 8, 0xff);
  map.back() = 0;
  for (auto _ : state) benchmark::DoNotOptimize(std::memchr(map.data(), 0, map.size()));
  state.SetBytesProcessed(state.iterations() * std::int64_t{SIZE / 8});
}

BENCHMARK(receive_16_mb)->Unit(benchmark::kMillisecond);
BENCHMARK(memcpy_16_mb)->Unit(benchmark::kMillisecond);
BENCHMARK(gaps_at_the_end_of_16_mb)->Unit(benchmark::kMicrosecond);
BENCHMARK(memchr_of_a_map_of_16_mb)->Unit(benchmark::kMicrosecond);

}  // namespace
