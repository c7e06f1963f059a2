// The packet codec: the common header, the packet types, and the layout of every packet outside the
// rendezvous range (connection/rendezvous.h). Pure: no state, no allocation, no clock; everything
// is re-entrant. Integers on the wire are little-endian and unaligned.
//
// Encoders write a plain packet into `out` and return its length, or 0 when a pointer is null, the
// capacity is short, or a value is out of its range. Of the header record they take `flags` and
// `session_id`; the type is their own.
// Decoders return 0, or -1 for a null pointer, a short datagram, another magic, version or type, or
// a value out of range; the record may then be half written. Bytes behind the known fields are
// ignored. Tails (chunk, audio data, shard) are returned as pointers into the datagram.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint8_t LUND_MAGIC = 0x50;  // 'P'
inline constexpr std::uint8_t LUND_VERSION_PLAIN = 1;
inline constexpr std::uint8_t LUND_VERSION_SEALED = 2;
inline constexpr std::size_t LUND_HEADER_SIZE = 8;

enum lund_packet_type : std::uint8_t {
  LUND_PKT_HELLO = 1,
  LUND_PKT_HELLO_ACK = 2,
  LUND_PKT_PING = 3,
  LUND_PKT_PONG = 4,
  LUND_PKT_KEYFRAME_REQUEST = 5,
  LUND_PKT_CLIENT_STATS = 6,
  LUND_PKT_BITRATE_REQUEST = 7,
  LUND_PKT_BYE = 8,
  LUND_PKT_DISCOVER = 9,
  LUND_PKT_DISCOVER_REPLY = 10,
  LUND_PKT_AUDIO_CONTROL = 11,
  LUND_PKT_CLIPBOARD = 12,
  LUND_PKT_CLIPBOARD_ACK = 13,
  LUND_PKT_PAIR_BACK = 14,
  LUND_PKT_PAIR_BACK_ACK = 15,
  LUND_PKT_VIDEO_SHARD = 16,
  LUND_PKT_CURSOR_POS = 32,
  LUND_PKT_CURSOR_SHAPE = 33,
  LUND_PKT_CURSOR_REQUEST = 34,
  LUND_PKT_INPUT = 48,
  LUND_PKT_MOUSE_ABS = 49,
  LUND_PKT_INPUT_ACK = 50,
  LUND_PKT_AUDIO = 64,
  // 80 to 95: connection control.
  LUND_PKT_PAIR_INIT = 80,
  LUND_PKT_PAIR_RESP = 81,
  LUND_PKT_PAIR_CONFIRM = 82,
  LUND_PKT_PAIR_OK = 83,
  LUND_PKT_PAIR_FAIL = 84,
  LUND_PKT_HOST_INFO_REQUEST = 85,
  LUND_PKT_HOST_INFO = 86,
  LUND_PKT_HS_INIT = 88,
  LUND_PKT_HS_RESP = 89,
  LUND_PKT_HS_REJECT = 90,
  LUND_PKT_PATH_PROBE = 91,
  LUND_PKT_PATH_PROBE_ACK = 92,
  LUND_PKT_REKEY = 93,
  LUND_PKT_REKEY_ACK = 94,
  // 96 to 111: rendezvous.
};

inline constexpr std::size_t LUND_NAME_MAX = 63;  // bytes of a device name, UTF-8
inline constexpr std::uint32_t LUND_CLIPBOARD_MAX = 16'777'216;
inline constexpr int LUND_INPUT_MAX = 64;   // events in a batch
inline constexpr int LUND_RANGES_MAX = 64;  // ranges in a clipboard acknowledgement
inline constexpr int LUND_BACK_MAX = 4;     // values in a two-way pairing offer

struct lund_packet_header {
  std::uint8_t type = 0;
  std::uint8_t flags = 0;
  std::uint32_t session_id = 0;
};

// A client's wish for one screen; 0 leaves a choice to the host.
struct lund_hello {
  std::uint8_t client_id[16] = {};
  std::uint16_t width = 0;  // the largest picture that the client can show
  std::uint16_t height = 0;
  std::uint16_t fps = 0;
  std::uint32_t bitrate_kbps = 0;
  std::uint16_t max_datagram = 0;
  std::uint8_t codec = 0;  // 1 HEVC, 2 H.264
  std::uint8_t fec_percent = 0;
  std::uint8_t audio = 0;
  std::uint8_t display_mode = 0;  // 1 asks for a virtual display
  std::uint8_t screen = 0;
};

// Values of lund_hello_ack::status.
enum lund_hello_status : std::uint8_t {
  LUND_HELLO_ACCEPTED = 0,
  LUND_HELLO_BUSY = 2,
  LUND_HELLO_NO_SESSION = 3,  // authenticate first
  LUND_HELLO_REFUSED = 4,     // no such screen, or no display
};

struct lund_hello_ack {
  std::uint8_t status = 0;
  std::uint8_t codec = 0;  // 1 HEVC, 2 H.264
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  std::uint16_t fps = 0;
  std::uint16_t max_datagram = 0;  // the payload size
  std::uint32_t bitrate_kbps = 0;
};

struct lund_ping {
  std::uint32_t seq = 0;
  std::uint64_t client_time_us = 0;
  std::uint64_t host_time_us = 0;  // in a pong
};

struct lund_client_stats {
  std::uint32_t frames_received = 0;
  std::uint32_t frames_lost = 0;
  std::uint32_t client_value = 0;  // the client's own; the host doesn't read it
  std::uint32_t fec_frames = 0;
  std::uint32_t decode_us = 0;
  std::uint32_t rtt_us = 0;
};

struct lund_discover {
  std::uint32_t nonce = 0;
};

struct lund_discover_reply {
  std::uint32_t nonce = 0;
  std::uint32_t lan_id = 0;
  std::uint16_t port = 0;
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  std::uint8_t busy = 0;
  char name[LUND_NAME_MAX + 1] = {};  // terminated; longer names are cut by the encoder's caller
};

struct lund_clipboard_chunk {
  std::uint32_t id = 0;
  std::uint8_t kind = 0;
  std::uint32_t total = 0;
  std::uint32_t offset = 0;
};

struct lund_clipboard_range {
  std::uint32_t offset = 0;
  std::uint32_t length = 0;
};

struct lund_clipboard_ack {
  std::uint32_t id = 0;
  std::uint8_t status = 0;
  std::uint8_t range_count = 0;
  lund_clipboard_range ranges[LUND_RANGES_MAX] = {};
};

struct lund_pair_back {
  std::uint16_t back_value = 0;
  std::uint8_t back_count = 0;
  std::uint32_t back_values[LUND_BACK_MAX] = {};
  char name[LUND_NAME_MAX + 1] = {};
};

struct lund_video_shard {
  std::uint32_t frame_id = 0;
  std::uint16_t block_index = 0;
  std::uint16_t block_count = 0;
  std::uint8_t shard_index = 0;
  std::uint8_t data_shards = 0;
  std::uint8_t parity_shards = 0;
  std::uint8_t flags = 0;  // 1 for a keyframe
  std::uint16_t shard_size = 0;
  std::uint32_t frame_size = 0;
  std::uint32_t block_offset = 0;
  std::uint64_t capture_time_us = 0;
  std::uint32_t encode_time_us = 0;
};
inline constexpr std::size_t LUND_SHARD_HEADER_SIZE = 42;

struct lund_cursor_pos {
  std::uint16_t x = 0;  // 0 to 65535 across the picture
  std::uint16_t y = 0;
  std::uint32_t shape_id = 0;
};

struct lund_cursor_shape {
  std::uint32_t shape_id = 0;
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  std::uint16_t hot_x = 0;
  std::uint16_t hot_y = 0;
  std::uint32_t total_size = 0;  // width x height x 4
  std::uint32_t offset = 0;
};

enum lund_input_kind : std::uint8_t {
  LUND_INPUT_MOTION = 1,
  LUND_INPUT_BUTTON = 2,
  LUND_INPUT_WHEEL = 3,
  LUND_INPUT_KEY = 4,
  LUND_INPUT_RELEASE_ALL = 5,
};

struct lund_input_event {
  std::uint8_t kind = 0;
  std::uint8_t down = 0;   // press or release, of buttons and keys
  std::uint16_t code = 0;  // the button, or the key's USB HID usage
  std::int32_t dx = 0;     // motion, or the wheel's horizontal part
  std::int32_t dy = 0;
};

struct lund_input_batch {
  std::uint32_t seq = 0;  // of event 0; event i has seq + i
  std::uint8_t count = 0;
  const lund_input_event* events = nullptr;
};

struct lund_mouse_abs {
  std::uint32_t seq = 0;
  std::uint16_t x = 0;
  std::uint16_t y = 0;
};

struct lund_audio_packet {
  std::uint32_t seq = 0;
  std::uint64_t timestamp_us = 0;
};

using lund_byte = std::uint8_t;

std::size_t lund_encode_header(lund_byte* out, std::size_t capacity,
                               const lund_packet_header* header);
int lund_decode_header(const lund_byte* data, std::size_t size, lund_packet_header* header);

std::size_t lund_encode_hello(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_hello* hello);
int lund_decode_hello(const lund_byte* data, std::size_t size, lund_hello* hello);

std::size_t lund_encode_hello_ack(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, const lund_hello_ack* ack);
int lund_decode_hello_ack(const lund_byte* data, std::size_t size, lund_hello_ack* ack);

std::size_t lund_encode_ping(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                             const lund_ping* ping);
std::size_t lund_encode_pong(lund_byte* out, std::size_t capacity, const lund_packet_header* header,
                             const lund_ping* pong);
int lund_decode_ping(const lund_byte* data, std::size_t size, lund_ping* ping);  // both types

std::size_t lund_encode_client_stats(lund_byte* out, std::size_t capacity,
                                     const lund_packet_header* header,
                                     const lund_client_stats* stats);
int lund_decode_client_stats(const lund_byte* data, std::size_t size, lund_client_stats* stats);

// Types 7, 34 and 50; the type comes from the header record, any other gives 0.
std::size_t lund_encode_u32_packet(lund_byte* out, std::size_t capacity,
                                   const lund_packet_header* header, std::uint32_t value);
int lund_decode_u32_packet(const lund_byte* data, std::size_t size, std::uint32_t* value);

// `payload` and `payload_size` may be null. The values are validated by the reassembler.
int lund_decode_video_shard(const lund_byte* data, std::size_t size, lund_video_shard* shard,
                            const lund_byte** payload, std::size_t* payload_size);

std::size_t lund_encode_cursor_pos(lund_byte* out, std::size_t capacity,
                                   const lund_packet_header* header, const lund_cursor_pos* pos);
int lund_decode_cursor_pos(const lund_byte* data, std::size_t size, lund_cursor_pos* pos);

std::size_t lund_encode_cursor_shape(lund_byte* out, std::size_t capacity,
                                     const lund_packet_header* header,
                                     const lund_cursor_shape* shape, const lund_byte* chunk,
                                     std::size_t chunk_size);
int lund_decode_cursor_shape(const lund_byte* data, std::size_t size, lund_cursor_shape* shape,
                             const lund_byte** chunk, std::size_t* chunk_size);

std::size_t lund_encode_input(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_input_batch* batch);
// `events` has room for LUND_INPUT_MAX.
int lund_decode_input(const lund_byte* data, std::size_t size, std::uint32_t* seq,
                      lund_input_event* events, int* count);

std::size_t lund_encode_mouse_abs(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, std::uint32_t seq,
                                  std::uint16_t x, std::uint16_t y);
int lund_decode_mouse_abs(const lund_byte* data, std::size_t size, lund_mouse_abs* mouse);

std::size_t lund_encode_audio(lund_byte* out, std::size_t capacity,
                              const lund_packet_header* header, const lund_audio_packet* audio,
                              const lund_byte* opus, std::size_t opus_size);
int lund_decode_audio(const lund_byte* data, std::size_t size, lund_audio_packet* audio,
                      const lund_byte** opus, std::size_t* opus_size);

std::size_t lund_encode_discover(lund_byte* out, std::size_t capacity,
                                 const lund_packet_header* header, const lund_discover* discover);
int lund_decode_discover(const lund_byte* data, std::size_t size, lund_discover* discover);

// `name` (terminated; null for none) stands apart from the record so that a longer one can be cut
// to LUND_NAME_MAX bytes; the record's own name is not read.
std::size_t lund_encode_discover_reply(lund_byte* out, std::size_t capacity,
                                       const lund_packet_header* header,
                                       const lund_discover_reply* reply, const char* name);
int lund_decode_discover_reply(const lund_byte* data, std::size_t size, lund_discover_reply* reply);

std::size_t lund_encode_audio_control(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header, bool enabled);
int lund_decode_audio_control(const lund_byte* data, std::size_t size, std::uint8_t* enabled);

std::size_t lund_encode_clipboard(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header,
                                  const lund_clipboard_chunk* chunk, const lund_byte* bytes,
                                  std::size_t bytes_size);
int lund_decode_clipboard(const lund_byte* data, std::size_t size, lund_clipboard_chunk* chunk,
                          const lund_byte** bytes, std::size_t* bytes_size);

std::size_t lund_encode_clipboard_ack(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header,
                                      const lund_clipboard_ack* ack);
int lund_decode_clipboard_ack(const lund_byte* data, std::size_t size, lund_clipboard_ack* ack);

// `name` as in lund_encode_discover_reply.
std::size_t lund_encode_pair_back(lund_byte* out, std::size_t capacity,
                                  const lund_packet_header* header, const lund_pair_back* back,
                                  const char* name);
int lund_decode_pair_back(const lund_byte* data, std::size_t size, lund_pair_back* back);

std::size_t lund_encode_pair_back_ack(lund_byte* out, std::size_t capacity,
                                      const lund_packet_header* header, bool accepted);
int lund_decode_pair_back_ack(const lund_byte* data, std::size_t size, std::uint8_t* accepted);
