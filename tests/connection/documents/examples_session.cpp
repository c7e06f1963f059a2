// The packets of a session but for those of the picture, and discovery.
#include "connection/conn.h"
#include "connection/protocol.h"
#include "tests/connection/documents/protocol_examples.h"
#include "tests/support/packets.h"

namespace protocol_examples {

namespace {

constexpr lund_packet_header IN_SESSION{0, 0, SESSION_ID};
constexpr lund_packet_header PLAIN{};

template <class Encoder, class... Arguments>
Bytes encoded(Encoder encoder, const lund_packet_header& header, const Arguments&... arguments) {
  return packets::encoded(
      [&](auto* out, auto room) { return encoder(out, room, &header, arguments...); });
}

Bytes u32_packet(std::uint8_t type, std::uint32_t value) {
  return encoded(lund_encode_u32_packet, {type, 0, SESSION_ID}, value);
}

void add_setup(Examples& examples) {
  lund_hello hello{.width = 1920,
                   .height = 1080,
                   .fps = 60,
                   .bitrate_kbps = 20'000,
                   .max_datagram = 1400,
                   .codec = 2,
                   .fec_percent = 15,
                   .audio = 1,
                   .display_mode = 0,
                   .screen = 0};
  const Bytes id = counting(0xA0, 16);
  std::copy(id.begin(), id.end(), hello.client_id);
  PacketExample(examples, "HELLO", encoded(lund_encode_hello, IN_SESSION, &hello))
      .header(1, 0, SESSION_ID)
      .bytes("client_id", id)
      .u16("width", 1920)
      .u16("height", 1080)
      .u16("fps", 60)
      .u32("bitrate_kbps", 20'000)
      .u16("max_datagram", 1400)
      .u8("codec", 2)
      .u8("fec_percent", 15)
      .u8("audio", 1)
      .u8("display_mode", 0)
      .u8("screen", 0);

  const lund_hello_ack ack{.status = 0,
                           .codec = 2,
                           .width = 1920,
                           .height = 1080,
                           .fps = 60,
                           .max_datagram = 1376,
                           .bitrate_kbps = 20'000};
  PacketExample(examples, "HELLO_ACK", encoded(lund_encode_hello_ack, IN_SESSION, &ack))
      .header(2, 0, SESSION_ID)
      .u8("status", 0)
      .u8("codec", 2)
      .u16("width", 1920)
      .u16("height", 1080)
      .u16("fps", 60)
      .u16("max_datagram", 1376)
      .u32("bitrate_kbps", 20'000);

  for (const auto& [name, type] : {std::pair{"KEYFRAME_REQUEST", 5}, {"BYE", 8}}) {
    const lund_packet_header header{static_cast<std::uint8_t>(type), 0, SESSION_ID};
    PacketExample(examples, name, encoded(lund_encode_header, header))
        .header(header.type, 0, SESSION_ID);
  }
}

void add_measurement(Examples& examples) {
  const lund_ping ping{.seq = 7, .client_time_us = 1'000'000'123, .host_time_us = 2'000'000'456};
  PacketExample(examples, "PING", encoded(lund_encode_ping, IN_SESSION, &ping))
      .header(3, 0, SESSION_ID)
      .u32("seq", 7)
      .u64("client_time_us", 1'000'000'123);
  PacketExample(examples, "PONG", encoded(lund_encode_pong, IN_SESSION, &ping))
      .header(4, 0, SESSION_ID)
      .u32("seq", 7)
      .u64("client_time_us", 1'000'000'123)
      .u64("host_time_us", 2'000'000'456);

  const lund_client_stats stats{.frames_received = 600,
                                .frames_lost = 2,
                                .client_value = 0,
                                .fec_frames = 5,
                                .decode_us = 450,
                                .rtt_us = 1'800};
  PacketExample(examples, "CLIENT_STATS", encoded(lund_encode_client_stats, IN_SESSION, &stats))
      .header(6, 0, SESSION_ID)
      .u32("frames_received", 600)
      .u32("frames_lost", 2)
      .u32("client_value", 0)
      .u32("fec_frames", 5)
      .u32("decode_us", 450)
      .u32("rtt_us", 1'800);

  PacketExample(examples, "BITRATE_REQUEST", u32_packet(LUND_PKT_BITRATE_REQUEST, 8'000))
      .header(7, 0, SESSION_ID)
      .u32("bitrate_kbps", 8'000);
}

void add_input(Examples& examples) {
  const lund_input_event events[] = {
      {.kind = LUND_INPUT_MOTION, .down = 0, .code = 0, .dx = -3, .dy = 5},
      {.kind = LUND_INPUT_KEY, .down = 1, .code = 0x04, .dx = 0, .dy = 0}};
  const lund_input_batch batch{.seq = 41, .count = 2, .events = events};
  const Bytes packet = encoded(lund_encode_input, IN_SESSION, &batch);
  const auto events_at = packet.begin() + 13;
  PacketExample(examples, "INPUT", packet)
      .header(48, 0, SESSION_ID)
      .u32("seq", 41)
      .u8("count", 2)
      .variable("events", {events_at, packet.end()});
  PacketExample(examples, "input event 41", {events_at, events_at + 12})
      .u8("kind", LUND_INPUT_MOTION)
      .u8("down", 0)
      .u16("code", 0)
      .i32("dx", -3)
      .i32("dy", 5);
  PacketExample(examples, "input event 42", {events_at + 12, packet.end()})
      .u8("kind", LUND_INPUT_KEY)
      .u8("down", 1)
      .u16("code", 4)
      .i32("dx", 0)
      .i32("dy", 0);
  PacketExample(examples, "INPUT_ACK", u32_packet(LUND_PKT_INPUT_ACK, 42))
      .header(50, 0, SESSION_ID)
      .u32("seq", 42);

  PacketExample(
      examples, "MOUSE_ABS",
      encoded(lund_encode_mouse_abs, IN_SESSION, 9U, std::uint16_t{32'768}, std::uint16_t{65'535}))
      .header(49, 0, SESSION_ID)
      .u32("seq", 9)
      .u16("x", 32'768)
      .u16("y", 65'535);
}

// A text of 1359 bytes at a packet size of 1376: a whole chunk, which is lost, and a tail of 4.
void add_clipboard(Examples& examples) {
  const Bytes text = bytes_of("text");
  const lund_clipboard_chunk chunk{.id = 3, .kind = 1, .total = 1'359, .offset = 1'355};
  PacketExample(examples, "CLIPBOARD",
                encoded(lund_encode_clipboard, IN_SESSION, &chunk, text.data(), text.size()))
      .header(12, 0, SESSION_ID)
      .u32("id", 3)
      .u8("kind", 1)
      .u32("total", 1'359)
      .u32("offset", 1'355)
      .variable("chunk", text);

  const lund_clipboard_ack missing{
      .id = 3, .status = 1, .range_count = 1, .ranges = {{.offset = 0, .length = 1'355}}};
  const Bytes packet = encoded(lund_encode_clipboard_ack, IN_SESSION, &missing);
  PacketExample(examples, "CLIPBOARD_ACK", packet)
      .header(13, 0, SESSION_ID)
      .u32("id", 3)
      .u8("status", 1)
      .u8("range_count", 1)
      .variable("ranges", {packet.begin() + 14, packet.end()});
  PacketExample(examples, "clipboard range", {packet.begin() + 14, packet.end()})
      .u32("offset", 0)
      .u32("length", 1'355);

  const lund_clipboard_ack complete{.id = 3, .status = 0};
  PacketExample(examples, "CLIPBOARD_ACK, all has come",
                encoded(lund_encode_clipboard_ack, IN_SESSION, &complete))
      .header(13, 0, SESSION_ID)
      .u32("id", 3)
      .u8("status", 0)
      .u8("range_count", 0);
}

void add_pair_back(Examples& examples) {
  lund_pair_back offer{.back_value = 9876, .back_count = 1, .back_values = {0x1401A8C0}};
  PacketExample(examples, "PAIR_BACK",
                encoded(lund_encode_pair_back, IN_SESSION, &offer, CLIENT_NAME))
      .header(14, 0, SESSION_ID)
      .u16("back_value", 9876)
      .u8("back_count", 1)
      .variable("back_values", Bytes{192, 168, 1, 20})
      .u8("name_len", 6)
      .text("name", CLIENT_NAME);
  PacketExample(examples, "PAIR_BACK_ACK", encoded(lund_encode_pair_back_ack, IN_SESSION, true))
      .header(15, 0, SESSION_ID)
      .u8("accepted", 1);
}

void add_discovery(Examples& examples) {
  const lund_discover question{.nonce = 0x01020304};
  PacketExample(examples, "DISCOVER", encoded(lund_encode_discover, PLAIN, &question))
      .header(9)
      .id("nonce", 0x01020304);
  lund_discover_reply reply;
  reply.nonce = 0x01020304;
  reply.lan_id = 0x0A0B0C0D;
  reply.port = 9876;
  reply.width = 2560;
  reply.height = 1440;
  reply.busy = 1;
  PacketExample(examples, "DISCOVER_REPLY",
                encoded(lund_encode_discover_reply, PLAIN, &reply, HOST_NAME))
      .header(10)
      .id("nonce", 0x01020304)
      .id("lan_id", 0x0A0B0C0D)
      .u16("port", 9876)
      .u16("width", 2560)
      .u16("height", 1440)
      .u8("busy", 1)
      .u8("name_len", 5)
      .text("name", HOST_NAME);
}

Bytes probe(std::uint8_t type, std::uint8_t flags) {
  Bytes packet(LUND_PROBE_SIZE);
  conn_make_probe(packet.data(), type, flags, 12, 1'000'000'123);
  return packet;
}

Bytes rekey(std::uint8_t type) {
  Bytes packet(LUND_REKEY_SIZE);
  conn_make_rekey(packet.data(), type, SESSION_ID);
  return packet;
}

void add_connection_control(Examples& examples) {
  PacketExample(examples, "PATH_PROBE", probe(LUND_PKT_PATH_PROBE, 1))
      .header(91, 1)
      .u32("probe_seq", 12)
      .u64("sent_us", 1'000'000'123);
  PacketExample(examples, "PATH_PROBE_ACK", probe(LUND_PKT_PATH_PROBE_ACK, 0))
      .header(92)
      .u32("probe_seq", 12)
      .u64("sent_us", 1'000'000'123);
  PacketExample(examples, "REKEY", rekey(LUND_PKT_REKEY)).header(93).id("session_id", SESSION_ID);
  PacketExample(examples, "REKEY_ACK", rekey(LUND_PKT_REKEY_ACK))
      .header(94)
      .id("session_id", SESSION_ID);
}

void add_audio_and_cursor(Examples& examples) {
  PacketExample(examples, "AUDIO_CONTROL", encoded(lund_encode_audio_control, IN_SESSION, true))
      .header(11, 0, SESSION_ID)
      .u8("enabled", 1);

  const lund_audio_packet audio{.seq = 1, .timestamp_us = 1'000'000'123};
  const Bytes opus = {0xFC, 0xFF, 0xFE};
  PacketExample(examples, "AUDIO",
                encoded(lund_encode_audio, IN_SESSION, &audio, opus.data(), opus.size()))
      .header(64, 0, SESSION_ID)
      .u32("seq", 1)
      .u64("timestamp_us", 1'000'000'123)
      .variable("opus", opus);

  const lund_cursor_pos pos{.x = 32'768, .y = 16'384, .shape_id = 0x0BADCAFE};
  PacketExample(examples, "CURSOR_POS", encoded(lund_encode_cursor_pos, {0, 1, SESSION_ID}, &pos))
      .header(32, 1, SESSION_ID)
      .u16("x", 32'768)
      .u16("y", 16'384)
      .id("shape_id", 0x0BADCAFE);

  const lund_cursor_shape shape{.shape_id = 0x0BADCAFE,
                                .width = 2,
                                .height = 1,
                                .hot_x = 1,
                                .hot_y = 0,
                                .total_size = 8,
                                .offset = 0};
  const Bytes pixels = {0, 0, 255, 255, 255, 255, 255, 128};
  PacketExample(examples, "CURSOR_SHAPE",
                encoded(lund_encode_cursor_shape, IN_SESSION, &shape, pixels.data(), pixels.size()))
      .header(33, 0, SESSION_ID)
      .id("shape_id", 0x0BADCAFE)
      .u16("width", 2)
      .u16("height", 1)
      .u16("hot_x", 1)
      .u16("hot_y", 0)
      .u32("total_size", 8)
      .u32("offset", 0)
      .variable("pixels", pixels);

  PacketExample(examples, "CURSOR_REQUEST", u32_packet(LUND_PKT_CURSOR_REQUEST, 0x0BADCAFE))
      .header(34, 0, SESSION_ID)
      .id("shape_id", 0x0BADCAFE);
}

}  // namespace

void add_session_packets(Examples& examples) {
  add_setup(examples);
  add_measurement(examples);
  add_input(examples);
  add_clipboard(examples);
  add_pair_back(examples);
  add_discovery(examples);
  add_connection_control(examples);
  add_audio_and_cursor(examples);
}

}  // namespace protocol_examples
