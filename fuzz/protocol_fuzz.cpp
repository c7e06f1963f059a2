// Every packet decoder over any datagram: none reads beyond it, and what decodes survives encoding
// and decoding again.
#include <cstring>
#include <vector>

#include "connection/protocol.h"
#include "fuzz/require.h"

namespace {

using Bytes = std::vector<lund_byte>;
constexpr std::size_t ROOM = 1 << 16;

lund_packet_header header_of(const Bytes& packet) {
  lund_packet_header header;
  require(lund_decode_header(packet.data(), packet.size(), &header) == 0,
          "what a decoder takes has a header");
  return header;
}

// `decode(packet, record)` is true on success, `encode(out, room, header, record)` gives the
// length.
template <class Record, class Decode, class Encode>
void round_trip(const Bytes& packet, Decode decode, Encode encode) {
  Record first{};
  if (!decode(packet, first)) return;
  const lund_packet_header header = header_of(packet);
  Bytes once(ROOM);
  once.resize(encode(once.data(), once.size(), &header, first));
  require(!once.empty(), "what decodes can be encoded");
  require(once.size() <= packet.size() || header.type == LUND_PKT_HELLO,
          "encoding adds nothing but the options that a short HELLO lacks");
  Record second{};
  require(decode(once, second), "what was encoded decodes");
  Bytes twice(ROOM);
  twice.resize(encode(twice.data(), twice.size(), &header, second));
  require(once == twice, "encoding is stable");
}

// Records without a tail.
template <class Record>
void check(const Bytes& packet, int (*decode)(const lund_byte*, std::size_t, Record*),
           std::size_t (*encode)(lund_byte*, std::size_t, const lund_packet_header*,
                                 const Record*)) {
  round_trip<Record>(
      packet,
      [&](const Bytes& bytes, Record& record) {
        return decode(bytes.data(), bytes.size(), &record) == 0;
      },
      [&](lund_byte* out, std::size_t room, const lund_packet_header* header,
          const Record& record) { return encode(out, room, header, &record); });
}

// Records that carry a name.
template <class Record>
void check_named(const Bytes& packet, int (*decode)(const lund_byte*, std::size_t, Record*),
                 std::size_t (*encode)(lund_byte*, std::size_t, const lund_packet_header*,
                                       const Record*, const char*)) {
  round_trip<Record>(
      packet,
      [&](const Bytes& bytes, Record& record) {
        if (decode(bytes.data(), bytes.size(), &record) != 0) return false;
        require(std::memchr(record.name, 0, sizeof(record.name)) != nullptr, "names end");
        return true;
      },
      [&](lund_byte* out, std::size_t room, const lund_packet_header* header,
          const Record& record) { return encode(out, room, header, &record, record.name); });
}

template <class Record>
struct Tailed {
  Record record;
  const lund_byte* tail;
  std::size_t size;
};

template <class Record>
bool decode_tailed(const Bytes& bytes, Tailed<Record>& out,
                   int (*decode)(const lund_byte*, std::size_t, Record*, const lund_byte**,
                                 std::size_t*)) {
  if (decode(bytes.data(), bytes.size(), &out.record, &out.tail, &out.size) != 0) return false;
  require(out.tail + out.size == bytes.data() + bytes.size(), "a tail ends with its datagram");
  return true;
}

template <class Record>
void check_tailed(const Bytes& packet,
                  int (*decode)(const lund_byte*, std::size_t, Record*, const lund_byte**,
                                std::size_t*),
                  std::size_t (*encode)(lund_byte*, std::size_t, const lund_packet_header*,
                                        const Record*, const lund_byte*, std::size_t)) {
  round_trip<Tailed<Record>>(
      packet,
      [&](const Bytes& bytes, Tailed<Record>& tailed) {
        return decode_tailed(bytes, tailed, decode);
      },
      [&](lund_byte* out, std::size_t room, const lund_packet_header* header,
          const Tailed<Record>& tailed) {
        return encode(out, room, header, &tailed.record, tailed.tail, tailed.size);
      });
}

struct Batch {
  std::uint32_t seq;
  lund_input_event events[LUND_INPUT_MAX];
  int count;
};

void check_input(const Bytes& packet) {
  round_trip<Batch>(
      packet,
      [](const Bytes& bytes, Batch& batch) {
        return lund_decode_input(bytes.data(), bytes.size(), &batch.seq, batch.events,
                                 &batch.count) == 0;
      },
      [](lund_byte* out, std::size_t room, const lund_packet_header* header, const Batch& batch) {
        const lund_input_batch record = {.seq = batch.seq,
                                         .count = static_cast<std::uint8_t>(batch.count),
                                         .events = batch.events};
        return lund_encode_input(out, room, header, &record);
      });
}

// A PING and a PONG share the record; the type tells which to write.
std::size_t encode_either_ping(lund_byte* out, std::size_t room, const lund_packet_header* header,
                               const lund_ping* ping) {
  return header->type == LUND_PKT_PONG ? lund_encode_pong(out, room, header, ping)
                                       : lund_encode_ping(out, room, header, ping);
}
std::size_t encode_u32(lund_byte* out, std::size_t room, const lund_packet_header* header,
                       const std::uint32_t* value) {
  return lund_encode_u32_packet(out, room, header, *value);
}
std::size_t encode_mouse(lund_byte* out, std::size_t room, const lund_packet_header* header,
                         const lund_mouse_abs* mouse) {
  return lund_encode_mouse_abs(out, room, header, mouse->seq, mouse->x, mouse->y);
}
std::size_t encode_audio_control(lund_byte* out, std::size_t room, const lund_packet_header* header,
                                 const std::uint8_t* enabled) {
  return lund_encode_audio_control(out, room, header, *enabled != 0);
}
std::size_t encode_pair_back_ack(lund_byte* out, std::size_t room, const lund_packet_header* header,
                                 const std::uint8_t* accepted) {
  return lund_encode_pair_back_ack(out, room, header, *accepted != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > ROOM) return 0;
  const Bytes packet(data, data + size);
  lund_decode_header(packet.data(), packet.size(), nullptr);
  check(packet, lund_decode_hello, lund_encode_hello);
  check(packet, lund_decode_hello_ack, lund_encode_hello_ack);
  check(packet, lund_decode_ping, encode_either_ping);
  check(packet, lund_decode_client_stats, lund_encode_client_stats);
  check(packet, lund_decode_u32_packet, encode_u32);
  check(packet, lund_decode_cursor_pos, lund_encode_cursor_pos);
  check(packet, lund_decode_mouse_abs, encode_mouse);
  check(packet, lund_decode_discover, lund_encode_discover);
  check(packet, lund_decode_audio_control, encode_audio_control);
  check(packet, lund_decode_pair_back_ack, encode_pair_back_ack);
  check(packet, lund_decode_clipboard_ack, lund_encode_clipboard_ack);
  check_named(packet, lund_decode_discover_reply, lund_encode_discover_reply);
  check_named(packet, lund_decode_pair_back, lund_encode_pair_back);
  check_tailed(packet, lund_decode_cursor_shape, lund_encode_cursor_shape);
  check_tailed(packet, lund_decode_audio, lund_encode_audio);
  check_tailed(packet, lund_decode_clipboard, lund_encode_clipboard);
  check_input(packet);
  Tailed<lund_video_shard> shard;
  decode_tailed(packet, shard, lund_decode_video_shard);
  return 0;
}
