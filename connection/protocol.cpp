#include "connection/protocol.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "connection/byte_order.h"

namespace {

// The bodies' layouts: the fields of each record in wire order, without gaps. One list serves the
// encoder, the decoder and the length, so that they can't disagree.
constexpr auto HELLO = [](auto& r) {
  return std::tie(r.client_id, r.width, r.height, r.fps, r.bitrate_kbps, r.max_datagram, r.codec,
                  r.fec_percent, r.audio, r.display_mode, r.screen);
};
constexpr auto HELLO_ACK = [](auto& r) {
  return std::tie(r.status, r.codec, r.width, r.height, r.fps, r.max_datagram, r.bitrate_kbps);
};
constexpr auto PING = [](auto& r) { return std::tie(r.seq, r.client_time_us); };
constexpr auto PONG = [](auto& r) { return std::tie(r.seq, r.client_time_us, r.host_time_us); };
constexpr auto CLIENT_STATS = [](auto& r) {
  return std::tie(r.frames_received, r.frames_lost, r.client_value, r.fec_frames, r.decode_us,
                  r.rtt_us);
};
constexpr auto VIDEO_SHARD = [](auto& r) {
  return std::tie(r.frame_id, r.block_index, r.block_count, r.shard_index, r.data_shards,
                  r.parity_shards, r.flags, r.shard_size, r.frame_size, r.block_offset,
                  r.capture_time_us, r.encode_time_us);
};
constexpr auto CURSOR_POS = [](auto& r) { return std::tie(r.x, r.y, r.shape_id); };
constexpr auto CURSOR_SHAPE = [](auto& r) {
  return std::tie(r.shape_id, r.width, r.height, r.hot_x, r.hot_y, r.total_size, r.offset);
};
constexpr auto INPUT_BATCH = [](auto& r) { return std::tie(r.seq, r.count); };
constexpr auto INPUT_EVENT = [](auto& r) { return std::tie(r.kind, r.down, r.code, r.dx, r.dy); };
constexpr auto MOUSE_ABS = [](auto& r) { return std::tie(r.seq, r.x, r.y); };
constexpr auto AUDIO = [](auto& r) { return std::tie(r.seq, r.timestamp_us); };
constexpr auto DISCOVER = [](auto& r) { return std::tie(r.nonce); };
constexpr auto DISCOVER_REPLY = [](auto& r) {  // then the name with its length
  return std::tie(r.nonce, r.lan_id, r.port, r.width, r.height, r.busy);
};
constexpr auto CLIPBOARD = [](auto& r) { return std::tie(r.id, r.kind, r.total, r.offset); };
constexpr auto CLIPBOARD_ACK = [](auto& r) { return std::tie(r.id, r.status, r.range_count); };
constexpr auto RANGE = [](auto& r) { return std::tie(r.offset, r.length); };
constexpr auto PAIR_BACK = [](auto& r) { return std::tie(r.back_value, r.back_count); };
constexpr auto VALUE = [](auto& value) { return std::tie(value); };

template <class... F>
consteval std::size_t tuple_bytes(std::type_identity<std::tuple<F...>>) {
  return (sizeof(std::remove_reference_t<F>) + ...);
}
template <class Record, class Layout>
constexpr std::size_t bytes_of(Layout) {
  return tuple_bytes(std::type_identity<std::invoke_result_t<Layout, Record&>>{});
}

// Length of a plain packet whose body is just this record.
template <class Record, class Layout>
constexpr std::size_t packet_bytes(Layout layout) {
  return LUND_HEADER_SIZE + bytes_of<Record>(layout);
}
static_assert(packet_bytes<lund_hello>(HELLO) == 41);
static_assert(packet_bytes<lund_hello_ack>(HELLO_ACK) == 22);
static_assert(packet_bytes<lund_ping>(PONG) == 28);
static_assert(packet_bytes<lund_video_shard>(VIDEO_SHARD) == LUND_SHARD_HEADER_SIZE);
static_assert(packet_bytes<lund_cursor_shape>(CURSOR_SHAPE) == 28);
static_assert(bytes_of<lund_input_event>(INPUT_EVENT) == 12);
static_assert(bytes_of<lund_clipboard_range>(RANGE) == 8);

template <std::integral T>
void put(lund_byte*& at, T value) {
  store_le(at, static_cast<std::make_unsigned_t<T>>(value));
  at += sizeof(T);
}
template <std::size_t N>
void put(lund_byte*& at, const lund_byte (&bytes)[N]) {
  std::memcpy(at, bytes, N);
  at += N;
}
template <std::integral T>
void get(const lund_byte*& at, T& value) {
  value = static_cast<T>(load_le<std::make_unsigned_t<T>>(at));
  at += sizeof(T);
}
template <std::size_t N>
void get(const lund_byte*& at, lund_byte (&bytes)[N]) {
  std::memcpy(bytes, at, N);
  at += N;
}

// Writes or reads a record at `at`, whose room the caller has checked; returns the place behind it.
template <class Record, class Layout>
lund_byte* write(lund_byte* at, const Record& record, Layout layout) {
  std::apply([&at](const auto&... field) { (put(at, field), ...); }, layout(record));
  return at;
}
template <class Record, class Layout>
const lund_byte* read(const lund_byte* at, Record& record, Layout layout) {
  std::apply([&at](auto&... field) { (get(at, field), ...); }, layout(record));
  return at;
}

// Writes the header of a packet of `size` bytes and returns its body's place; null when it can't
// be.
lund_byte* begin(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                 std::uint8_t type, std::size_t size) {
  if (out == nullptr || header == nullptr || capacity < size) return nullptr;
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_PLAIN;
  out[2] = type;
  out[3] = header->flags;
  store_le(out + 4, header->session_id);
  return out + LUND_HEADER_SIZE;
}

// The body of a plain packet of at least `minimum` bytes, null for anything else; any type.
const lund_byte* body_of(const lund_byte* data, std::size_t size, std::size_t minimum) {
  if (data == nullptr || size < minimum) return nullptr;
  if (data[0] != LUND_MAGIC || data[1] != LUND_VERSION_PLAIN) return nullptr;
  return data + LUND_HEADER_SIZE;
}
const lund_byte* body_of(const lund_byte* data, std::size_t size, std::size_t minimum,
                         std::uint8_t type) {
  const lund_byte* body = body_of(data, size, minimum);
  return body != nullptr && data[2] == type ? body : nullptr;
}

template <class Record, class Layout>
std::size_t encode_record(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                          std::uint8_t type, const Record* record, Layout layout) {
  constexpr std::size_t size = packet_bytes<Record>(Layout{});
  if (record == nullptr) return 0;
  lund_byte* body = begin(out, capacity, header, type, size);
  if (body == nullptr) return 0;
  write(body, *record, layout);
  return size;
}
template <class Record, class Layout>
int decode_record(const lund_byte* data, std::size_t size, std::uint8_t type, Record* record,
                  Layout layout) {
  const lund_byte* body = body_of(data, size, packet_bytes<Record>(Layout{}), type);
  if (body == nullptr || record == nullptr) return -1;
  read(body, *record, layout);
  return 0;
}

// The same for a record with raw bytes behind it.
template <class Record, class Layout>
std::size_t encode_tailed(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                          std::uint8_t type, const Record* record, Layout layout,
                          const lund_byte* tail, std::size_t tail_size) {
  constexpr std::size_t fixed = packet_bytes<Record>(Layout{});
  if (record == nullptr || (tail == nullptr && tail_size != 0)) return 0;
  if (tail_size > capacity) return 0;  // keeps the sum from overflowing
  lund_byte* body = begin(out, capacity, header, type, fixed + tail_size);
  if (body == nullptr) return 0;
  lund_byte* behind = write(body, *record, layout);
  if (tail_size != 0) std::memcpy(behind, tail, tail_size);
  return fixed + tail_size;
}
template <class Record, class Layout>
int decode_tailed(const lund_byte* data, std::size_t size, std::uint8_t type, Record* record,
                  Layout layout, const lund_byte** tail, std::size_t* tail_size) {
  if (decode_record(data, size, type, record, layout) != 0) return -1;
  constexpr std::size_t fixed = packet_bytes<Record>(Layout{});
  if (tail != nullptr) *tail = data + fixed;
  if (tail_size != nullptr) *tail_size = size - fixed;
  return 0;
}

// A piece of `size` bytes at `offset` lies within an item of `total`.
bool lies_within(std::uint32_t total, std::uint32_t offset, std::size_t size) {
  return offset <= total && size <= total - offset;
}

bool clipboard_chunk_valid(const lund_clipboard_chunk& chunk, std::size_t size) {
  return chunk.total >= 1 && chunk.total <= LUND_CLIPBOARD_MAX &&
         lies_within(chunk.total, chunk.offset, size);
}

bool is_u32_packet(std::uint8_t type) {
  return type == LUND_PKT_BITRATE_REQUEST || type == LUND_PKT_CURSOR_REQUEST ||
         type == LUND_PKT_INPUT_ACK;
}

std::uint8_t name_length(const char* name) {
  return name == nullptr ? 0 : static_cast<std::uint8_t>(strnlen(name, LUND_NAME_MAX));
}
void write_name(lund_byte* at, const char* name, std::uint8_t length) {
  put(at, length);
  if (length != 0) std::memcpy(at, name, length);
}
// Reads the length byte and the name that end a packet, `left` bytes before its end.
int read_name(const lund_byte* at, std::size_t left, char (&name)[LUND_NAME_MAX + 1]) {
  if (left < 1 || at[0] > LUND_NAME_MAX || left - 1 < at[0]) return -1;
  std::memcpy(name, at + 1, at[0]);
  name[at[0]] = '\0';
  return 0;
}

}  // namespace

std::size_t lund_encode_header(lund_byte* out, std::size_t capacity,
                               const lund_packet_header* header) {
  if (header == nullptr) return 0;
  return begin(out, capacity, header, header->type, LUND_HEADER_SIZE) ? LUND_HEADER_SIZE : 0;
}

int lund_decode_header(const lund_byte* data, std::size_t size, lund_packet_header* header) {
  if (body_of(data, size, LUND_HEADER_SIZE) == nullptr) return -1;
  if (header != nullptr)
    *header = {.type = data[2], .flags = data[3], .session_id = load_le<std::uint32_t>(data + 4)};
  return 0;
}

std::size_t lund_encode_hello(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_hello* hello) {
  return encode_record(out, capacity, header, LUND_PKT_HELLO, hello, HELLO);
}

// The last two option bytes may be missing, and read as 0 then.
int lund_decode_hello(const lund_byte* data, std::size_t size, lund_hello* hello) {
  constexpr std::size_t whole = packet_bytes<lund_hello>(HELLO);
  constexpr std::size_t without_options = whole - 2;
  if (data == nullptr || size < without_options) return -1;
  lund_byte padded[whole] = {};
  std::memcpy(padded, data, std::min(size, whole));
  return decode_record(padded, whole, LUND_PKT_HELLO, hello, HELLO);
}

std::size_t lund_encode_hello_ack(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, const lund_hello_ack* ack) {
  return encode_record(out, capacity, header, LUND_PKT_HELLO_ACK, ack, HELLO_ACK);
}

int lund_decode_hello_ack(const lund_byte* data, std::size_t size, lund_hello_ack* ack) {
  return decode_record(data, size, LUND_PKT_HELLO_ACK, ack, HELLO_ACK);
}

std::size_t lund_encode_ping(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                             const lund_ping* ping) {
  return encode_record(out, capacity, header, LUND_PKT_PING, ping, PING);
}

std::size_t lund_encode_pong(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                             const lund_ping* pong) {
  return encode_record(out, capacity, header, LUND_PKT_PONG, pong, PONG);
}

int lund_decode_ping(const lund_byte* data, std::size_t size, lund_ping* ping) {
  if (decode_record(data, size, LUND_PKT_PONG, ping, PONG) == 0) return 0;
  if (decode_record(data, size, LUND_PKT_PING, ping, PING) != 0) return -1;
  ping->host_time_us = 0;
  return 0;
}

std::size_t lund_encode_client_stats(lund_byte* out, std::size_t capacity,
                                     const lund_packet_header* header,
                                     const lund_client_stats* stats) {
  return encode_record(out, capacity, header, LUND_PKT_CLIENT_STATS, stats, CLIENT_STATS);
}

int lund_decode_client_stats(const lund_byte* data, std::size_t size, lund_client_stats* stats) {
  return decode_record(data, size, LUND_PKT_CLIENT_STATS, stats, CLIENT_STATS);
}

std::size_t lund_encode_u32_packet(lund_byte* out, std::size_t capacity,
                                   const lund_packet_header* header, std::uint32_t value) {
  if (header == nullptr || !is_u32_packet(header->type)) return 0;
  return encode_record(out, capacity, header, header->type, &value, VALUE);
}

int lund_decode_u32_packet(const lund_byte* data, std::size_t size, std::uint32_t* value) {
  if (body_of(data, size, LUND_HEADER_SIZE) == nullptr || !is_u32_packet(data[2])) return -1;
  return decode_record(data, size, data[2], value, VALUE);
}

int lund_decode_video_shard(const lund_byte* data, std::size_t size, lund_video_shard* shard,
                            const lund_byte** payload, std::size_t* payload_size) {
  return decode_tailed(data, size, LUND_PKT_VIDEO_SHARD, shard, VIDEO_SHARD, payload, payload_size);
}

std::size_t lund_encode_cursor_pos(lund_byte* out, std::size_t capacity,
                                   const lund_packet_header* header, const lund_cursor_pos* pos) {
  return encode_record(out, capacity, header, LUND_PKT_CURSOR_POS, pos, CURSOR_POS);
}

int lund_decode_cursor_pos(const lund_byte* data, std::size_t size, lund_cursor_pos* pos) {
  return decode_record(data, size, LUND_PKT_CURSOR_POS, pos, CURSOR_POS);
}

std::size_t lund_encode_cursor_shape(lund_byte* out, std::size_t capacity,
                                     const lund_packet_header* header,
                                     const lund_cursor_shape* shape, const lund_byte* chunk,
                                     std::size_t chunk_size) {
  return encode_tailed(out, capacity, header, LUND_PKT_CURSOR_SHAPE, shape, CURSOR_SHAPE, chunk,
                       chunk_size);
}

int lund_decode_cursor_shape(const lund_byte* data, std::size_t size, lund_cursor_shape* shape,
                             const lund_byte** chunk, std::size_t* chunk_size) {
  std::size_t length = 0;
  if (decode_tailed(data, size, LUND_PKT_CURSOR_SHAPE, shape, CURSOR_SHAPE, chunk, &length) != 0)
    return -1;
  if (std::uint64_t{4} * shape->width * shape->height != shape->total_size) return -1;
  if (!lies_within(shape->total_size, shape->offset, length)) return -1;
  if (chunk_size != nullptr) *chunk_size = length;
  return 0;
}

std::size_t lund_encode_input(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_input_batch* batch) {
  constexpr std::size_t event_bytes = bytes_of<lund_input_event>(INPUT_EVENT);
  if (batch == nullptr || batch->count > LUND_INPUT_MAX) return 0;
  if (batch->count != 0 && batch->events == nullptr) return 0;
  const std::size_t size = packet_bytes<lund_input_batch>(INPUT_BATCH) + event_bytes * batch->count;
  lund_byte* at = begin(out, capacity, header, LUND_PKT_INPUT, size);
  if (at == nullptr) return 0;
  at = write(at, *batch, INPUT_BATCH);
  for (int i = 0; i < batch->count; ++i) at = write(at, batch->events[i], INPUT_EVENT);
  return size;
}

int lund_decode_input(const lund_byte* data, std::size_t size, std::uint32_t* seq,
                      lund_input_event* events, int* count) {
  constexpr std::size_t fixed = packet_bytes<lund_input_batch>(INPUT_BATCH);
  if (seq == nullptr || events == nullptr || count == nullptr) return -1;
  lund_input_batch batch;
  if (decode_record(data, size, LUND_PKT_INPUT, &batch, INPUT_BATCH) != 0) return -1;
  if (batch.count > LUND_INPUT_MAX) return -1;
  if (size - fixed < bytes_of<lund_input_event>(INPUT_EVENT) * batch.count) return -1;
  *seq = batch.seq;
  *count = batch.count;
  const lund_byte* at = data + fixed;
  for (int i = 0; i < batch.count; ++i) at = read(at, events[i], INPUT_EVENT);
  return 0;
}

std::size_t lund_encode_mouse_abs(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, std::uint32_t seq,
                                  std::uint16_t x, std::uint16_t y) {
  const lund_mouse_abs mouse = {.seq = seq, .x = x, .y = y};
  return encode_record(out, capacity, header, LUND_PKT_MOUSE_ABS, &mouse, MOUSE_ABS);
}

int lund_decode_mouse_abs(const lund_byte* data, std::size_t size, lund_mouse_abs* mouse) {
  return decode_record(data, size, LUND_PKT_MOUSE_ABS, mouse, MOUSE_ABS);
}

std::size_t lund_encode_audio(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_audio_packet* audio,
                              const lund_byte* opus, std::size_t opus_size) {
  return encode_tailed(out, capacity, header, LUND_PKT_AUDIO, audio, AUDIO, opus, opus_size);
}

int lund_decode_audio(const lund_byte* data, std::size_t size, lund_audio_packet* audio,
                      const lund_byte** opus, std::size_t* opus_size) {
  return decode_tailed(data, size, LUND_PKT_AUDIO, audio, AUDIO, opus, opus_size);
}

std::size_t lund_encode_discover(lund_byte* out, std::size_t capacity,
                                 const lund_packet_header* header, const lund_discover* discover) {
  return encode_record(out, capacity, header, LUND_PKT_DISCOVER, discover, DISCOVER);
}

int lund_decode_discover(const lund_byte* data, std::size_t size, lund_discover* discover) {
  return decode_record(data, size, LUND_PKT_DISCOVER, discover, DISCOVER);
}

std::size_t lund_encode_discover_reply(lund_byte* out, std::size_t capacity,
                                       const lund_packet_header* header,
                                       const lund_discover_reply* reply, const char* name) {
  if (reply == nullptr) return 0;
  const std::uint8_t length = name_length(name);
  const std::size_t size = packet_bytes<lund_discover_reply>(DISCOVER_REPLY) + 1 + length;
  lund_byte* body = begin(out, capacity, header, LUND_PKT_DISCOVER_REPLY, size);
  if (body == nullptr) return 0;
  write_name(write(body, *reply, DISCOVER_REPLY), name, length);
  return size;
}

int lund_decode_discover_reply(const lund_byte* data, std::size_t size,
                               lund_discover_reply* reply) {
  if (decode_record(data, size, LUND_PKT_DISCOVER_REPLY, reply, DISCOVER_REPLY) != 0) return -1;
  constexpr std::size_t fixed = packet_bytes<lund_discover_reply>(DISCOVER_REPLY);
  return read_name(data + fixed, size - fixed, reply->name);
}

std::size_t lund_encode_audio_control(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header, bool enabled) {
  const std::uint8_t value = enabled ? 1 : 0;
  return encode_record(out, capacity, header, LUND_PKT_AUDIO_CONTROL, &value, VALUE);
}

int lund_decode_audio_control(const lund_byte* data, std::size_t size, std::uint8_t* enabled) {
  return decode_record(data, size, LUND_PKT_AUDIO_CONTROL, enabled, VALUE);
}

std::size_t lund_encode_clipboard(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header,
                                  const lund_clipboard_chunk* chunk, const lund_byte* bytes,
                                  std::size_t bytes_size) {
  if (chunk == nullptr || !clipboard_chunk_valid(*chunk, bytes_size)) return 0;
  return encode_tailed(out, capacity, header, LUND_PKT_CLIPBOARD, chunk, CLIPBOARD, bytes,
                       bytes_size);
}

int lund_decode_clipboard(const lund_byte* data, std::size_t size, lund_clipboard_chunk* chunk,
                          const lund_byte** bytes, std::size_t* bytes_size) {
  std::size_t length = 0;
  if (decode_tailed(data, size, LUND_PKT_CLIPBOARD, chunk, CLIPBOARD, bytes, &length) != 0)
    return -1;
  if (!clipboard_chunk_valid(*chunk, length)) return -1;
  if (bytes_size != nullptr) *bytes_size = length;
  return 0;
}

std::size_t lund_encode_clipboard_ack(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header,
                                      const lund_clipboard_ack* ack) {
  if (ack == nullptr || ack->range_count > LUND_RANGES_MAX) return 0;
  const std::size_t size = packet_bytes<lund_clipboard_ack>(CLIPBOARD_ACK) +
                           bytes_of<lund_clipboard_range>(RANGE) * ack->range_count;
  lund_byte* at = begin(out, capacity, header, LUND_PKT_CLIPBOARD_ACK, size);
  if (at == nullptr) return 0;
  at = write(at, *ack, CLIPBOARD_ACK);
  for (int i = 0; i < ack->range_count; ++i) at = write(at, ack->ranges[i], RANGE);
  return size;
}

int lund_decode_clipboard_ack(const lund_byte* data, std::size_t size, lund_clipboard_ack* ack) {
  if (decode_record(data, size, LUND_PKT_CLIPBOARD_ACK, ack, CLIPBOARD_ACK) != 0) return -1;
  constexpr std::size_t fixed = packet_bytes<lund_clipboard_ack>(CLIPBOARD_ACK);
  if (ack->range_count > LUND_RANGES_MAX) return -1;
  if (size - fixed < bytes_of<lund_clipboard_range>(RANGE) * ack->range_count) return -1;
  const lund_byte* at = data + fixed;
  for (int i = 0; i < ack->range_count; ++i) at = read(at, ack->ranges[i], RANGE);
  return 0;
}

std::size_t lund_encode_pair_back(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, const lund_pair_back* back,
                                  const char* name) {
  if (back == nullptr || back->back_count > LUND_BACK_MAX) return 0;
  const std::uint8_t length = name_length(name);
  const std::size_t size = packet_bytes<lund_pair_back>(PAIR_BACK) +
                           sizeof(std::uint32_t) * back->back_count + 1 + length;
  lund_byte* at = begin(out, capacity, header, LUND_PKT_PAIR_BACK, size);
  if (at == nullptr) return 0;
  at = write(at, *back, PAIR_BACK);
  for (int i = 0; i < back->back_count; ++i) put(at, back->back_values[i]);
  write_name(at, name, length);
  return size;
}

int lund_decode_pair_back(const lund_byte* data, std::size_t size, lund_pair_back* back) {
  if (decode_record(data, size, LUND_PKT_PAIR_BACK, back, PAIR_BACK) != 0) return -1;
  const lund_byte* at = data + packet_bytes<lund_pair_back>(PAIR_BACK);
  const lund_byte* end = data + size;
  if (back->back_count > LUND_BACK_MAX) return -1;
  if (static_cast<std::size_t>(end - at) < sizeof(std::uint32_t) * back->back_count) return -1;
  for (int i = 0; i < back->back_count; ++i) get(at, back->back_values[i]);
  return read_name(at, static_cast<std::size_t>(end - at), back->name);
}

std::size_t lund_encode_pair_back_ack(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header, bool accepted) {
  const std::uint8_t value = accepted ? 1 : 0;
  return encode_record(out, capacity, header, LUND_PKT_PAIR_BACK_ACK, &value, VALUE);
}

int lund_decode_pair_back_ack(const lund_byte* data, std::size_t size, std::uint8_t* accepted) {
  return decode_record(data, size, LUND_PKT_PAIR_BACK_ACK, accepted, VALUE);
}
