#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <type_traits>

#include "connection/protocol.h"
#include "media/fec.h"
#include "media/shard_geometry.h"
#include "media/video_transport.h"

namespace {

constexpr std::size_t SLOTS = 8;            // frames in progress
constexpr std::int32_t START_BACK_MAX = 7;  // how far the start may move back, in frames

// Frame numbers wrap.
std::int32_t distance(std::uint32_t from, std::uint32_t to) {
  return static_cast<std::int32_t>(to - from);
}

struct lund_reassembly_block {
  std::uint64_t seen[4];  // a bit for each shard index received
  bool initialised;       // its first shard has arrived
  bool done;              // takes no more shards
  std::uint8_t parity_shards;
  std::uint8_t data_received;
  std::uint8_t parity_received;
  std::uint8_t parity_ids[LUND_FEC_MAX_DATA];  // which parity shard lies at each stored position

  bool has_seen(unsigned shard) const { return (seen[shard / 64] >> (shard % 64)) & 1; }
  void mark_seen(unsigned shard) { seen[shard / 64] |= std::uint64_t{1} << (shard % 64); }
};

// Memory that only grows, and stays with its slot from frame to frame.
template <class T>
class growing_buffer {
  static_assert(std::is_trivial_v<T>);

 public:
  growing_buffer() = default;
  growing_buffer(const growing_buffer&) = delete;
  growing_buffer& operator=(const growing_buffer&) = delete;
  ~growing_buffer() { std::free(items_); }

  // Room for `need` items, `most` at most; half as much again as before when it has to grow. False,
  // with everything as it was, when memory is short.
  bool reserve(std::uint64_t need, std::uint64_t most) {
    if (need <= capacity_) return true;
    const std::uint64_t wanted = std::min(std::max(need, capacity_ + capacity_ / 2), most);
    void* grown = std::realloc(items_, wanted * sizeof(T));
    if (!grown) return false;
    items_ = static_cast<T*>(grown);
    capacity_ = wanted;
    return true;
  }
  T* get() const { return items_; }

 private:
  T* items_ = nullptr;
  std::uint64_t capacity_ = 0;
};

struct lund_reassembly_slot {
  bool in_use = false;
  bool complete = false;
  std::uint32_t frame_id = 0;
  lund_video_shard header;  // of the frame's first shard
  shard_geometry geometry;
  std::uint32_t blocks_done = 0;
  std::uint32_t recovered = 0;          // data shards rebuilt
  growing_buffer<std::uint8_t> data;    // the frame, padded to whole shards
  growing_buffer<std::uint8_t> parity;  // a block's lies at the block's offset
  growing_buffer<lund_reassembly_block> blocks;
};

struct valid_shard {
  lund_video_shard header;
  const std::uint8_t* payload;
  shard_geometry geometry;
};

// What a shard says of its frame must be what the sender would have made of a frame of this size.
std::optional<valid_shard> validate(const std::uint8_t* packet, std::size_t length,
                                    std::uint64_t max_frame_size) {
  valid_shard shard;
  lund_video_shard& h = shard.header;
  std::size_t payload_size = 0;
  if (lund_decode_video_shard(packet, length, &h, &shard.payload, &payload_size) != 0) return {};
  if (h.shard_size == 0 || h.shard_size > LUND_SHARD_MAX || h.shard_size != payload_size) return {};
  if (h.frame_size == 0 || h.frame_size > max_frame_size) return {};
  if (h.data_shards == 0 || h.data_shards > LUND_FEC_MAX_DATA) return {};
  const int shards = h.data_shards + h.parity_shards;
  if (shards > LUND_FEC_MAX_SHARDS || h.shard_index >= shards) return {};
  const auto geometry = frame_geometry(h.frame_size, h.shard_size);
  if (!geometry || h.block_count != geometry->block_count || h.block_index >= h.block_count)
    return {};
  if (h.data_shards != geometry->data_shards(h.block_index) ||
      h.block_offset != geometry->block_offset(h.block_index))
    return {};
  shard.geometry = *geometry;
  return shard;
}

bool same_frame(const lund_video_shard& a, const lund_video_shard& b) {
  return a.frame_size == b.frame_size && a.flags == b.flags && a.shard_size == b.shard_size &&
         a.capture_time_us == b.capture_time_us && a.encode_time_us == b.encode_time_us;
}

}  // namespace

struct lund_reassembler {
  std::uint64_t max_frame_size = 0;
  bool started = false;          // a first shard has been seen
  bool delivered_any = false;    // a frame has been completed
  std::uint32_t next_pop = 0;    // the frame number expected next by pop
  std::uint32_t next_frame = 0;  // behind the newest completed frame; older ones are late
  std::uint32_t ready_count = 0;
  std::uint8_t zero_shard[LUND_SHARD_MAX] = {};  // stands in for parity that is missing
  lund_reassembly_slot slots[SLOTS];
  lund_reassembler_stats stats;
};

namespace {

std::int32_t ready(const lund_reassembler& r) {
  return r.ready_count != 0 ? 1 : 0;
}

std::int32_t invalid(lund_reassembler& r) {
  ++r.stats.shards_invalid;
  return -1;
}

// Whether the frame still has a future. The shards of the first frames may come out of order, so
// the start moves back a little as long as nothing has been delivered.
bool in_time(lund_reassembler& r, std::uint32_t frame_id) {
  if (!r.started) {
    r.started = true;
    r.next_pop = r.next_frame = frame_id;
    return true;
  }
  const std::int32_t late = distance(frame_id, r.next_frame);
  if (late <= 0) return true;
  if (r.delivered_any || late > START_BACK_MAX) return false;
  r.next_pop = r.next_frame = frame_id;
  return true;
}

lund_reassembly_slot* find_slot(lund_reassembler& r, std::uint32_t frame_id) {
  for (auto& slot : r.slots)
    if (slot.in_use && slot.frame_id == frame_id) return &slot;
  return nullptr;
}

// A free slot for a new frame, if need be by giving up the oldest; null when all are newer.
lund_reassembly_slot* vacate_slot(lund_reassembler& r, std::uint32_t frame_id) {
  lund_reassembly_slot* oldest = nullptr;
  for (auto& slot : r.slots) {
    if (!slot.in_use) return &slot;
    if (!oldest || distance(oldest->frame_id, slot.frame_id) < 0) oldest = &slot;
  }
  if (distance(frame_id, oldest->frame_id) >= 0) return nullptr;
  if (oldest->complete) --r.ready_count;
  oldest->in_use = false;
  return oldest;
}

bool open_slot(const lund_reassembler& r, lund_reassembly_slot& slot, const valid_shard& shard) {
  const shard_geometry& g = shard.geometry;
  const std::uint64_t most_bytes = r.max_frame_size + LUND_SHARD_MAX;
  if (!slot.data.reserve(g.padded_bytes(), most_bytes) ||
      !slot.parity.reserve(g.padded_bytes(), most_bytes) ||
      !slot.blocks.reserve(g.block_count, most_bytes / LUND_FEC_MAX_DATA + 1))
    return false;
  std::fill_n(slot.blocks.get(), g.block_count, lund_reassembly_block{});
  slot.in_use = true;
  slot.complete = false;
  slot.frame_id = shard.header.frame_id;
  slot.header = shard.header;
  slot.geometry = g;
  slot.blocks_done = 0;
  slot.recovered = 0;
  return true;
}

void store_shard(lund_reassembly_slot& slot, lund_reassembly_block& block,
                 const valid_shard& shard) {
  const lund_video_shard& h = shard.header;
  std::uint8_t* to = nullptr;
  if (h.shard_index < h.data_shards) {
    to = slot.data.get() + h.block_offset + std::size_t{h.shard_index} * h.shard_size;
    ++block.data_received;
  } else {
    to = slot.parity.get() + h.block_offset + std::size_t{block.parity_received} * h.shard_size;
    block.parity_ids[block.parity_received++] =
        static_cast<std::uint8_t>(h.shard_index - h.data_shards);
  }
  std::memcpy(to, shard.payload, h.shard_size);
}

bool rebuild(lund_reassembler& r, lund_reassembly_slot& slot, const lund_reassembly_block& block,
             const lund_video_shard& h) {
  const std::size_t k = h.data_shards;
  std::uint8_t* shards[LUND_FEC_MAX_SHARDS];
  std::uint8_t present[LUND_FEC_MAX_SHARDS] = {};
  for (unsigned i = 0; i < k; ++i) {
    shards[i] = slot.data.get() + h.block_offset + std::size_t{i} * h.shard_size;
    present[i] = block.has_seen(i);
  }
  std::uint8_t* const spare = r.zero_shard;
  std::fill_n(shards + k, h.parity_shards, spare);
  for (std::size_t i = 0; i < block.parity_received; ++i) {
    const std::size_t at = k + block.parity_ids[i];
    shards[at] = slot.parity.get() + h.block_offset + i * h.shard_size;
    present[at] = 1;
  }
  if (lund_fec_decode(h.data_shards, h.parity_shards, h.shard_size, shards, present) != 0)
    return false;
  const std::uint32_t rebuilt = h.data_shards - block.data_received;
  slot.recovered += rebuilt;
  r.stats.shards_recovered += rebuilt;
  return true;
}

// Frames leave in order, so an older one that is still in pieces has no use any more.
void complete_frame(lund_reassembler& r, lund_reassembly_slot& slot) {
  slot.complete = true;
  r.delivered_any = true;
  ++r.stats.frames_completed;
  r.stats.frames_skipped += slot.frame_id - r.next_frame;
  r.next_frame = slot.frame_id + 1;
  ++r.ready_count;
  for (auto& other : r.slots)
    if (other.in_use && !other.complete && distance(slot.frame_id, other.frame_id) < 0)
      other.in_use = false;
}

std::int32_t take_shard(lund_reassembler& r, lund_reassembly_slot& slot, const valid_shard& shard) {
  const lund_video_shard& h = shard.header;
  lund_reassembly_block& block = slot.blocks.get()[h.block_index];
  if (!block.initialised) {
    block.initialised = true;
    block.parity_shards = h.parity_shards;
  }
  if (block.parity_shards != h.parity_shards) return invalid(r);
  if (block.has_seen(h.shard_index)) return ready(r);
  block.mark_seen(h.shard_index);
  ++r.stats.shards_received;
  if (block.done) return ready(r);

  store_shard(slot, block, shard);
  if (block.data_received + block.parity_received < h.data_shards) return ready(r);
  block.done = true;
  if (block.data_received < h.data_shards && !rebuild(r, slot, block, h)) return invalid(r);
  if (++slot.blocks_done == slot.geometry.block_count) complete_frame(r, slot);
  return ready(r);
}

}  // namespace

lund_reassembler* lund_reassembler_create(std::uint64_t max_frame_size) {
  if (max_frame_size < 1 || max_frame_size > UINT32_MAX) return nullptr;
  auto* r = new (std::nothrow) lund_reassembler;
  if (!r) return nullptr;
  r->max_frame_size = max_frame_size;
  lund_fec_init();
  return r;
}

void lund_reassembler_destroy(lund_reassembler* r) {
  delete r;
}

std::int32_t lund_reassembler_push(lund_reassembler* r, const std::uint8_t* packet,
                                   std::size_t length) {
  if (!r) return -1;
  const auto shard = validate(packet, length, r->max_frame_size);
  if (!shard) return invalid(*r);
  const std::uint32_t frame_id = shard->header.frame_id;
  if (!in_time(*r, frame_id)) return ready(*r);

  lund_reassembly_slot* slot = find_slot(*r, frame_id);
  if (slot) {
    if (!same_frame(slot->header, shard->header)) return invalid(*r);
    if (slot->complete) return ready(*r);
  } else {
    slot = vacate_slot(*r, frame_id);
    if (!slot || !open_slot(*r, *slot, *shard)) return ready(*r);
  }
  return take_shard(*r, *slot, *shard);
}

std::int32_t lund_reassembler_pop(lund_reassembler* r, lund_reassembled_frame* frame,
                                  std::uint32_t* skipped) {
  if (!r || !frame || r->ready_count == 0) return 0;
  lund_reassembly_slot* oldest = nullptr;
  for (auto& slot : r->slots) {
    if (slot.in_use && slot.complete && (!oldest || distance(oldest->frame_id, slot.frame_id) < 0))
      oldest = &slot;
  }
  if (skipped) *skipped = oldest->frame_id - r->next_pop;
  r->next_pop = oldest->frame_id + 1;
  *frame = {.data = oldest->data.get(),
            .size = oldest->header.frame_size,
            .frame_id = oldest->frame_id,
            .flags = oldest->header.flags,
            .capture_time_us = oldest->header.capture_time_us,
            .encode_time_us = oldest->header.encode_time_us,
            .recovered = oldest->recovered};
  oldest->in_use = false;
  --r->ready_count;
  return 1;
}

void lund_reassembler_get_stats(const lund_reassembler* r, lund_reassembler_stats* stats) {
  if (r && stats) *stats = r->stats;
}
