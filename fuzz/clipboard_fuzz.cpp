// A clipboard engine in a session with a peer that says anything, while something is copied here
// and time passes: raw packets, chunks and answers with fields of the input's choosing, in any
// order. What the engine sends must be fit for the path, what it delivers what the chunks had, and
// what it holds no more than an item each way.
#include <cstdint>
#include <optional>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "streams/clipboard_internal.h"
#include "tests/support/virtual_time.h"

// Of the sanitizer's allocator, where that is linked; the name is its own.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using Bytes = Input::Bytes;

constexpr std::uint32_t SESSION = 7;
// An item each way, the map of the one that arrives, and the harness's own packets.
constexpr std::size_t HELD_MAX =
    2 * std::size_t{LUND_CLIP_IMAGE_MAX} + LUND_CLIP_IMAGE_MAX / 8 + (1 << 20);

std::size_t allocated() {
  return __sanitizer_get_current_allocated_bytes != nullptr
             ? __sanitizer_get_current_allocated_bytes()
             : 0;
}

// What the chunks made here hold at each place.
std::uint8_t byte_at(std::uint32_t id, std::size_t offset) {
  return static_cast<std::uint8_t>(id * 31 + offset * 7 + (offset >> 8));
}

struct World {
  std::uint64_t mtu = 0;
  std::uint32_t session = 0;
  bool raw = false;  // a packet of unknown content has come
};

std::uint8_t kind_of(Input& in) {
  const unsigned pick = in.byte();
  return static_cast<std::uint8_t>(pick < 8 ? pick : 1 + pick % 2);
}

// Up to the codec's limit and beyond it, mostly small.
std::uint32_t size_of(Input& in) {
  const unsigned base = in.u16();
  return base << (in.byte() % 16 == 0 ? 9 : 0);
}

void put32(Bytes& out, std::uint32_t value) {
  out.resize(out.size() + 4);
  store_le(out.data() + out.size() - 4, value);
}

Bytes begin(std::uint8_t type, std::uint32_t session) {
  Bytes out = {0x50, 1, type, 0};
  put32(out, session);
  return out;
}

// By hand: the encoders refuse what a peer may well send.
Bytes chunk(Input& in, const World& world) {
  Bytes out = begin(LUND_PKT_CLIPBOARD, world.session);
  const std::uint32_t id = in.byte() - 8u;  // near the wrap
  const std::uint8_t kind = kind_of(in);
  const std::uint32_t total = size_of(in);
  const unsigned shape = in.byte();
  std::uint32_t length = in.u16() % 1452;
  std::uint32_t offset = in.u16();
  if (shape % 2 == 0 && length <= total) offset = total - length;  // the tail
  if (shape % 4 == 1 && total > 0) offset %= total;
  put32(out, id);
  out.push_back(kind);
  put32(out, total);
  put32(out, offset);
  for (; length > 0; --length, ++offset) out.push_back(byte_at(id, offset));
  return out;
}

Bytes answer(Input& in, const World& world, std::uint32_t last_id) {
  Bytes out = begin(LUND_PKT_CLIPBOARD_ACK, world.session);
  const unsigned shape = in.byte();
  put32(out, shape % 8 == 0 ? last_id + in.byte() : last_id);
  out.push_back(static_cast<std::uint8_t>(shape / 8 % 4));
  const unsigned count = in.byte() % 70;
  out.push_back(static_cast<std::uint8_t>(count));
  for (unsigned i = 0; i < count; ++i) {
    put32(out, in.u16() << in.byte() % 17);
    put32(out, in.u16() << in.byte() % 17);
  }
  return out;
}

void check_answer(const World& world, const lund_clipboard_ack& ack, std::size_t length) {
  require(length <= std::max<std::uint64_t>(world.mtu, 22), "an answer fits the path");
  require(ack.status <= CLIP_REJECTED, "an answer has a known status");
  require(ack.status == CLIP_MISSING ? ack.range_count > 0 : ack.range_count == 0,
          "an answer lists gaps when something is missing, and only then");
  std::uint64_t end = 0;
  for (int i = 0; i < ack.range_count; ++i) {
    require(ack.ranges[i].length > 0, "no gap is empty");
    require(i == 0 || ack.ranges[i].offset > end, "gaps are apart and in order");
    end = std::uint64_t{ack.ranges[i].offset} + ack.ranges[i].length;
    require(end <= LUND_CLIP_IMAGE_MAX, "a gap lies within an item");
  }
}

void on_send(void* user, const std::uint8_t* packet, std::uint64_t length) {
  const World& world = *static_cast<World*>(user);
  lund_packet_header header;
  require(lund_decode_header(packet, length, &header) == 0, "what is sent has a header");
  require(header.session_id == world.session && world.session != 0, "it names the session");
  lund_clipboard_ack ack;
  if (lund_decode_clipboard_ack(packet, length, &ack) == 0) return check_answer(world, ack, length);
  lund_clipboard_chunk sent;
  std::size_t size = 0;
  require(lund_decode_clipboard(packet, length, &sent, nullptr, &size) == 0, "or is a chunk");
  require(length <= std::clamp<std::uint64_t>(world.mtu, 37, 1472), "a chunk fits the path");
  require(size > 0 && sent.id != 0, "a chunk has an id and holds something");
}

void on_item(void* user, std::uint32_t id, std::uint8_t kind, std::uint8_t* data,
             std::uint64_t size) {
  const World& world = *static_cast<World*>(user);
  require(size >= 1 && size <= clip_kind_limit(kind), "an item is within its kind's limit");
  if (!world.raw)
    for (std::size_t i = 0; i < size; ++i)
      require(data[i] == byte_at(id, i), "an item is what its chunks held");
  lund_clip_free(data);
}

void on_log(void*, const char* text) {
  require(std::char_traits<char>::length(text) <= 255, "a line is within its limit");
}

void set_session(lund_clip* clip, World& world, Input& in) {
  const unsigned shape = in.byte();
  world.session = shape % 8 == 0 ? 0 : SESSION + shape % 2;
  world.mtu = world.session == 0 ? 0 : in.u16() % 1600;
  lund_clip_set_session(clip, world.session, world.mtu);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  virtual_time::reset();
  Input in(data, size);
  const std::size_t before = allocated();
  World world;
  const lund_clip_config config{
      .send = on_send, .on_data = on_item, .log = on_log, .user = &world, .rate = in.u16() * 512};
  lund_clip* clip = lund_clip_create_stepped(&config);
  set_session(clip, world, in);
  std::uint32_t last_id = 0xFFFFFFF0u + in.byte() % 32;
  lund_clip_set_last_id(clip, last_id);
  while (!in.done()) {
    Bytes packet;
    switch (in.byte() % 8) {
      case 0:
        world.raw = true;
        packet = in.bytes(in.u16() % 1600);
        lund_clip_receive(clip, packet.data(), packet.size());
        break;
      case 1:
      case 2:
      case 3:
        packet = chunk(in, world);
        require(lund_clip_receive(clip, packet.data(), packet.size()) == 1, "chunks are taken");
        break;
      case 4:
        packet = answer(in, world, last_id);
        require(lund_clip_receive(clip, packet.data(), packet.size()) == 1, "answers are taken");
        break;
      case 5: {
        const std::uint8_t kind = kind_of(in);
        const Bytes item(size_of(in) % 2'000'000);
        const std::uint32_t id = lund_clip_offer(clip, kind, item.data(), item.size());
        require(id == 0 || item.size() <= clip_kind_limit(kind), "offers are within limits");
        if (id != 0) last_id = id;
        break;
      }
      case 6:
        set_session(clip, world, in);
        break;
      default:
        virtual_time::advance_ms(in.byte() * std::uint64_t{in.byte()} / 4);
        for (unsigned steps = in.byte() % 32; steps > 0; --steps) {
          const std::optional<std::uint32_t> wait = lund_clip_step(clip);
          if (!wait) break;
          virtual_time::advance_ms(*wait);
        }
    }
    require(allocated() <= before + HELD_MAX, "no more than an item each way is held");
  }
  lund_clip_destroy(clip);
  return 0;
}
