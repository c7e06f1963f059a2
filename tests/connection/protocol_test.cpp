#include "connection/protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <numeric>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<lund_byte>;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr lund_packet_header HEADER = {.type = 99, .flags = 0xA5, .session_id = 0x04030201};

// Runs an encoder into ample room and returns the packet.
template <class Encoder>
Bytes encoded(Encoder encode) {
  Bytes out(2048);
  out.resize(encode(out.data(), out.size()));
  return out;
}

// The header that HEADER gives for a type, then the body.
Bytes packet(std::uint8_t type, Bytes body) {
  Bytes out = {0x50, 1, type, 0xA5, 1, 2, 3, 4};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

lund_hello sample_hello() {
  lund_hello hello = {.width = 0x0102,
                      .height = 0x0304,
                      .fps = 0x0506,
                      .bitrate_kbps = 0x0708090A,
                      .max_datagram = 0x0B0C,
                      .codec = 0x0D,
                      .fec_percent = 0x0E,
                      .audio = 0x0F,
                      .display_mode = 0x10,
                      .screen = 0x11};
  std::iota(std::begin(hello.client_id), std::end(hello.client_id), std::uint8_t{0x80});
  return hello;
}
Bytes hello_packet() {
  const lund_hello hello = sample_hello();
  return encoded(
      [&](auto* out, auto room) { return lund_encode_hello(out, room, &HEADER, &hello); });
}

Bytes ping_packet(std::size_t size, std::uint8_t type) {
  const lund_ping ping = {.seq = 7, .client_time_us = 8, .host_time_us = 9};
  Bytes out =
      encoded([&](auto* to, auto room) { return lund_encode_pong(to, room, &HEADER, &ping); });
  out[2] = type;
  out.resize(size);
  return out;
}

lund_cursor_shape shape_of(std::uint16_t width, std::uint16_t height, std::uint32_t offset = 0) {
  return {.shape_id = 1,
          .width = width,
          .height = height,
          .total_size = std::uint32_t{4} * width * height,
          .offset = offset};
}
Bytes shape_packet(const lund_cursor_shape& shape, std::size_t chunk_size) {
  const Bytes chunk(chunk_size, 0xEE);
  return encoded([&](auto* out, auto room) {
    return lund_encode_cursor_shape(out, room, &HEADER, &shape, chunk.data(), chunk.size());
  });
}
int decode_shape(const Bytes& bytes) {
  lund_cursor_shape shape;
  return lund_decode_cursor_shape(bytes.data(), bytes.size(), &shape, nullptr, nullptr);
}

Bytes clipboard_packet(const lund_clipboard_chunk& chunk, std::size_t chunk_size) {
  const Bytes data(chunk_size, 0xCC);
  return encoded([&](auto* out, auto room) {
    return lund_encode_clipboard(out, room, &HEADER, &chunk, data.data(), data.size());
  });
}
int decode_clipboard(const Bytes& bytes) {
  lund_clipboard_chunk chunk;
  return lund_decode_clipboard(bytes.data(), bytes.size(), &chunk, nullptr, nullptr);
}

Bytes input_packet(int count) {
  std::vector<lund_input_event> events(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) events[static_cast<std::size_t>(i)].dx = -i;
  const lund_input_batch batch = {
      .seq = 5, .count = static_cast<std::uint8_t>(count), .events = events.data()};
  return encoded(
      [&](auto* out, auto room) { return lund_encode_input(out, room, &HEADER, &batch); });
}
int decode_input(const Bytes& bytes) {
  std::uint32_t seq = 0;
  lund_input_event events[LUND_INPUT_MAX];
  int count = 0;
  return lund_decode_input(bytes.data(), bytes.size(), &seq, events, &count);
}

Bytes discover_reply_packet(const char* name) {
  const lund_discover_reply reply = {.nonce = 0x01020304,
                                     .lan_id = 0x05060708,
                                     .port = 9876,
                                     .width = 1920,
                                     .height = 1080,
                                     .busy = 1};
  return encoded([&](auto* out, auto room) {
    return lund_encode_discover_reply(out, room, &HEADER, &reply, name);
  });
}

lund_pair_back sample_pair_back() {
  return {.back_value = 0x1234, .back_count = 2, .back_values = {0x0A0B0C0D, 0x01020304}};
}
Bytes pair_back_packet(const char* name) {
  const lund_pair_back back = sample_pair_back();
  return encoded(
      [&](auto* out, auto room) { return lund_encode_pair_back(out, room, &HEADER, &back, name); });
}

lund_clipboard_ack sample_clipboard_ack() {
  return {.id = 0x01020304,
          .status = 3,
          .range_count = 2,
          .ranges = {{0x11, 0x22}, {0xFFFFFFFF, 0x01020304}}};
}

// Every encoder on a valid record, for the tests that hold for all of them.
struct Encoder {
  const char* name;
  std::uint8_t type;
  std::size_t length;
  std::function<std::size_t(lund_byte*, std::size_t, const lund_packet_header*)> encode;
  // The same with a null record; empty where the encoder takes no record.
  std::function<std::size_t(lund_byte*, std::size_t, const lund_packet_header*)> without_record;
};

template <class Record, class Function, class... Tail>
Encoder encoder(const char* name, std::uint8_t type, std::size_t length, Function encode,
                Record record, Tail... tail) {
  return {name, type, length,
          [=](lund_byte* out, std::size_t room, const lund_packet_header* header) {
            return encode(out, room, header, &record, tail...);
          },
          [=](lund_byte* out, std::size_t room, const lund_packet_header* header) {
            return encode(out, room, header, static_cast<const Record*>(nullptr), tail...);
          }};
}

constexpr std::uint8_t U32_TYPES[] = {7, 34, 50};
constexpr lund_byte TAIL[3] = {1, 2, 3};
constexpr lund_input_event EVENTS[2] = {};

std::vector<Encoder> encoders() {
  std::vector<Encoder> all = {
      encoder("hello", 1, 41, lund_encode_hello, lund_hello{}),
      encoder("hello_ack", 2, 22, lund_encode_hello_ack, lund_hello_ack{}),
      encoder("ping", 3, 20, lund_encode_ping, lund_ping{}),
      encoder("pong", 4, 28, lund_encode_pong, lund_ping{}),
      encoder("client_stats", 6, 32, lund_encode_client_stats, lund_client_stats{}),
      encoder("discover", 9, 12, lund_encode_discover, lund_discover{}),
      encoder("discover_reply", 10, 27, lund_encode_discover_reply, lund_discover_reply{}, "abc"),
      encoder("clipboard", 12, 24, lund_encode_clipboard, lund_clipboard_chunk{.total = 3}, TAIL,
              std::size_t{3}),
      encoder("clipboard_ack", 13, 30, lund_encode_clipboard_ack, sample_clipboard_ack()),
      encoder("pair_back", 14, 23, lund_encode_pair_back, sample_pair_back(), "abc"),
      encoder("cursor_pos", 32, 16, lund_encode_cursor_pos, lund_cursor_pos{}),
      encoder("cursor_shape", 33, 31, lund_encode_cursor_shape, shape_of(1, 1), TAIL,
              std::size_t{3}),
      encoder("input", 48, 37, lund_encode_input, lund_input_batch{.count = 2, .events = EVENTS}),
      encoder("audio", 64, 23, lund_encode_audio, lund_audio_packet{}, TAIL, std::size_t{3}),
  };
  all.push_back({"audio_control",
                 11,
                 9,
                 [](auto* out, auto room, auto* header) {
                   return lund_encode_audio_control(out, room, header, true);
                 },
                 {}});
  all.push_back({"pair_back_ack",
                 15,
                 9,
                 [](auto* out, auto room, auto* header) {
                   return lund_encode_pair_back_ack(out, room, header, true);
                 },
                 {}});
  all.push_back({"mouse_abs",
                 49,
                 16,
                 [](auto* out, auto room, auto* header) {
                   return lund_encode_mouse_abs(out, room, header, 1, 2, 3);
                 },
                 {}});
  for (const std::uint8_t type : U32_TYPES) {
    all.push_back({"u32",
                   type,
                   12,
                   [type](auto* out, auto room, auto* header) -> std::size_t {
                     if (header == nullptr) return lund_encode_u32_packet(out, room, nullptr, 1);
                     lund_packet_header own = *header;
                     own.type = type;
                     return lund_encode_u32_packet(out, room, &own, 1);
                   },
                   {}});
  }
  return all;
}

// Every decoder behind one signature, with the shortest packet that it takes.
struct Decoder {
  const char* name;
  Bytes shortest;
  std::function<int(const lund_byte*, std::size_t)> decode;
  std::function<int(const lund_byte*, std::size_t)> without_record;
};

template <class Record, class... Tail>
Decoder decoder(const char* name, std::uint8_t type, std::size_t length,
                int (*decode)(const lund_byte*, std::size_t, Record*, Tail...)) {
  Bytes shortest = packet(type, Bytes(length - LUND_HEADER_SIZE));
  if (type == LUND_PKT_CLIPBOARD) shortest[13] = 1;  // a total of 0 is refused
  return {name, shortest,
          [=](const lund_byte* data, std::size_t size) {
            Record record;
            return decode(data, size, &record, Tail{}...);
          },
          [=](const lund_byte* data, std::size_t size) {
            return decode(data, size, nullptr, Tail{}...);
          }};
}

std::vector<Decoder> decoders() {
  std::vector<Decoder> all = {
      decoder("hello", 1, 39, lund_decode_hello),
      decoder("hello_ack", 2, 22, lund_decode_hello_ack),
      decoder("ping", 3, 20, lund_decode_ping),
      decoder("pong", 4, 28, lund_decode_ping),
      decoder("client_stats", 6, 32, lund_decode_client_stats),
      decoder("bitrate_request", 7, 12, lund_decode_u32_packet),
      decoder("cursor_request", 34, 12, lund_decode_u32_packet),
      decoder("input_ack", 50, 12, lund_decode_u32_packet),
      decoder("discover", 9, 12, lund_decode_discover),
      decoder("discover_reply", 10, 24, lund_decode_discover_reply),
      decoder("audio_control", 11, 9, lund_decode_audio_control),
      decoder("clipboard", 12, 21, lund_decode_clipboard),
      decoder("clipboard_ack", 13, 14, lund_decode_clipboard_ack),
      decoder("pair_back", 14, 12, lund_decode_pair_back),
      decoder("pair_back_ack", 15, 9, lund_decode_pair_back_ack),
      decoder("video_shard", 16, 42, lund_decode_video_shard),
      decoder("cursor_pos", 32, 16, lund_decode_cursor_pos),
      decoder("cursor_shape", 33, 28, lund_decode_cursor_shape),
      decoder("mouse_abs", 49, 16, lund_decode_mouse_abs),
      decoder("audio", 64, 20, lund_decode_audio),
  };
  all.push_back({"input", packet(48, Bytes(5)),
                 [](const lund_byte* data, std::size_t size) {
                   std::uint32_t seq = 0;
                   lund_input_event events[LUND_INPUT_MAX];
                   int count = 0;
                   return lund_decode_input(data, size, &seq, events, &count);
                 },
                 [](const lund_byte* data, std::size_t size) {
                   return lund_decode_input(data, size, nullptr, nullptr, nullptr);
                 }});
  return all;
}

}  // namespace

TEST(Protocol, EveryEncoderForcesItsTypeAndTakesFlagsAndSession) {
  for (const Encoder& one : encoders()) {
    const Bytes out = encoded([&](auto* to, auto room) { return one.encode(to, room, &HEADER); });
    ASSERT_EQ(out.size(), one.length) << one.name;
    EXPECT_THAT(Bytes(out.begin(), out.begin() + 8),
                ElementsAre(0x50, 1, one.type, 0xA5, 1, 2, 3, 4))
        << one.name;
  }
}

TEST(Protocol, EveryEncoderFillsExactRoomAndRefusesOneByteLess) {
  for (const Encoder& one : encoders()) {
    Bytes exact(one.length);
    EXPECT_EQ(one.encode(exact.data(), exact.size(), &HEADER), one.length) << one.name;
    Bytes untouched(one.length, 0x77);
    EXPECT_EQ(one.encode(untouched.data(), one.length - 1, &HEADER), 0u) << one.name;
    EXPECT_THAT(untouched, ::testing::Each(0x77)) << one.name;
    EXPECT_EQ(one.encode(untouched.data(), 0, &HEADER), 0u) << one.name;
  }
}

TEST(Protocol, EveryEncoderRefusesNullPointers) {
  for (const Encoder& one : encoders()) {
    Bytes out(256);
    EXPECT_EQ(one.encode(nullptr, out.size(), &HEADER), 0u) << one.name;
    EXPECT_EQ(one.encode(out.data(), out.size(), nullptr), 0u) << one.name;
    if (one.without_record) {
      EXPECT_EQ(one.without_record(out.data(), out.size(), &HEADER), 0u) << one.name;
    }
  }
}

TEST(Protocol, EveryDecoderTakesItsShortestPacketAndRefusesOneByteLess) {
  for (const Decoder& one : decoders()) {
    const Bytes& bytes = one.shortest;
    EXPECT_EQ(one.decode(bytes.data(), bytes.size()), 0) << one.name;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      const Bytes cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(one.decode(cut.data(), cut.size()), -1) << one.name << " of " << size;
    }
  }
}

TEST(Protocol, EveryDecoderRefusesNullPointers) {
  for (const Decoder& one : decoders()) {
    EXPECT_EQ(one.decode(nullptr, one.shortest.size()), -1) << one.name;
    EXPECT_EQ(one.without_record(one.shortest.data(), one.shortest.size()), -1) << one.name;
  }
}

TEST(Protocol, EveryDecoderRefusesAnotherMagicAndAnotherType) {
  for (const Decoder& one : decoders()) {
    for (const std::size_t place : {0, 2}) {
      Bytes bytes = one.shortest;
      bytes[place] = 0xF0;
      EXPECT_EQ(one.decode(bytes.data(), bytes.size()), -1) << one.name << " byte " << place;
    }
  }
}

TEST(Protocol, VersionTwoPassesNoDecoder) {
  for (const Decoder& one : decoders()) {
    Bytes bytes = one.shortest;
    for (const lund_byte version : Bytes{0, 2, 3, 255}) {
      bytes[1] = version;
      EXPECT_EQ(one.decode(bytes.data(), bytes.size()), -1) << one.name;
    }
  }
  const Bytes sealed = {0x50, 2, 1, 0, 0, 0, 0, 0};
  EXPECT_EQ(lund_decode_header(sealed.data(), sealed.size(), nullptr), -1);
}

TEST(Protocol, HeaderRoundTripsAnyType) {
  const Bytes out =
      encoded([](auto* to, auto room) { return lund_encode_header(to, room, &HEADER); });
  EXPECT_THAT(out, ElementsAre(0x50, 1, 99, 0xA5, 1, 2, 3, 4));
  lund_packet_header header;
  ASSERT_EQ(lund_decode_header(out.data(), out.size(), &header), 0);
  EXPECT_EQ(header.type, 99);
  EXPECT_EQ(header.flags, 0xA5);
  EXPECT_EQ(header.session_id, 0x04030201u);
}

TEST(Protocol, HeaderDecoderAllowsNoOutputAndRefusesSevenBytes) {
  const Bytes out = packet(8, {});
  EXPECT_EQ(lund_decode_header(out.data(), 8, nullptr), 0);
  EXPECT_EQ(lund_decode_header(out.data(), 7, nullptr), -1);
  EXPECT_EQ(lund_decode_header(nullptr, 8, nullptr), -1);
}

TEST(Protocol, HeaderEncoderRefusesNullAndShortBuffers) {
  Bytes out(8);
  EXPECT_EQ(lund_encode_header(nullptr, 8, &HEADER), 0u);
  EXPECT_EQ(lund_encode_header(out.data(), 8, nullptr), 0u);
  EXPECT_EQ(lund_encode_header(out.data(), 7, &HEADER), 0u);
}

TEST(Protocol, HelloLayoutAndRoundTrip) {
  const Bytes out = hello_packet();
  EXPECT_EQ(out, packet(1, {0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A,
                            0x8B, 0x8C, 0x8D, 0x8E, 0x8F, 0x02, 0x01, 0x04, 0x03, 0x06, 0x05,
                            0x0A, 0x09, 0x08, 0x07, 0x0C, 0x0B, 0x0D, 0x0E, 0x0F, 0x10, 0x11}));
  lund_hello hello;
  ASSERT_EQ(lund_decode_hello(out.data(), out.size(), &hello), 0);
  const lund_hello want = sample_hello();
  EXPECT_THAT(hello.client_id, ElementsAreArray(want.client_id));
  EXPECT_EQ(hello.width, want.width);
  EXPECT_EQ(hello.height, want.height);
  EXPECT_EQ(hello.fps, want.fps);
  EXPECT_EQ(hello.bitrate_kbps, want.bitrate_kbps);
  EXPECT_EQ(hello.max_datagram, want.max_datagram);
  EXPECT_EQ(hello.codec, want.codec);
  EXPECT_EQ(hello.fec_percent, want.fec_percent);
  EXPECT_EQ(hello.audio, want.audio);
  EXPECT_EQ(hello.display_mode, want.display_mode);
  EXPECT_EQ(hello.screen, want.screen);
}

TEST(Protocol, HelloOf39BytesDecodesWithScreenZero) {
  const Bytes out = hello_packet();
  lund_hello hello;
  hello.display_mode = hello.screen = 9;
  ASSERT_EQ(lund_decode_hello(out.data(), 39, &hello), 0);
  EXPECT_EQ(hello.audio, 0x0F);
  EXPECT_EQ(hello.display_mode, 0);
  EXPECT_EQ(hello.screen, 0);
}

TEST(Protocol, HelloOf40BytesHasADisplayModeAndScreenZero) {
  const Bytes out = hello_packet();
  lund_hello hello;
  ASSERT_EQ(lund_decode_hello(out.data(), 40, &hello), 0);
  EXPECT_EQ(hello.display_mode, 0x10);
  EXPECT_EQ(hello.screen, 0);
}

TEST(Protocol, HelloOf38BytesFails) {
  const Bytes out = hello_packet();
  lund_hello hello;
  EXPECT_EQ(lund_decode_hello(out.data(), 38, &hello), -1);
}

TEST(Protocol, BytesBehindTheKnownFieldsAreIgnored) {
  for (const Decoder& one : decoders()) {
    if (std::string(one.name) == "cursor_shape" || std::string(one.name) == "clipboard") continue;
    Bytes bytes = one.shortest;
    bytes.resize(bytes.size() + 50);
    EXPECT_EQ(one.decode(bytes.data(), bytes.size()), 0) << one.name;
  }
}

TEST(Protocol, HelloAckLayoutAndRoundTrip) {
  const lund_hello_ack ack = {.status = 4,
                              .codec = 2,
                              .width = 0x0102,
                              .height = 0x0304,
                              .fps = 0x0506,
                              .max_datagram = 0x0708,
                              .bitrate_kbps = 0x090A0B0C};
  const Bytes out =
      encoded([&](auto* to, auto room) { return lund_encode_hello_ack(to, room, &HEADER, &ack); });
  EXPECT_EQ(out, packet(2, {4, 2, 2, 1, 4, 3, 6, 5, 8, 7, 0x0C, 0x0B, 0x0A, 0x09}));
  lund_hello_ack got;
  ASSERT_EQ(lund_decode_hello_ack(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.status, 4);
  EXPECT_EQ(got.codec, 2);
  EXPECT_EQ(got.width, 0x0102);
  EXPECT_EQ(got.height, 0x0304);
  EXPECT_EQ(got.fps, 0x0506);
  EXPECT_EQ(got.max_datagram, 0x0708);
  EXPECT_EQ(got.bitrate_kbps, 0x090A0B0Cu);
}

TEST(Protocol, PingAndPongLayouts) {
  const lund_ping ping = {
      .seq = 0x01020304, .client_time_us = 0x0807060504030201, .host_time_us = 0x1122};
  EXPECT_EQ(
      encoded([&](auto* to, auto room) { return lund_encode_ping(to, room, &HEADER, &ping); }),
      packet(3, {4, 3, 2, 1, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(
      encoded([&](auto* to, auto room) { return lund_encode_pong(to, room, &HEADER, &ping); }),
      packet(4, {4, 3, 2, 1, 1, 2, 3, 4, 5, 6, 7, 8, 0x22, 0x11, 0, 0, 0, 0, 0, 0}));
}

TEST(Protocol, PongOf27BytesFails) {
  const Bytes bytes = ping_packet(27, LUND_PKT_PONG);
  lund_ping ping;
  EXPECT_EQ(lund_decode_ping(bytes.data(), bytes.size(), &ping), -1);
}

TEST(Protocol, PingOf20BytesPasses) {
  const Bytes bytes = ping_packet(20, LUND_PKT_PING);
  lund_ping ping;
  ASSERT_EQ(lund_decode_ping(bytes.data(), bytes.size(), &ping), 0);
  EXPECT_EQ(ping.seq, 7u);
  EXPECT_EQ(ping.client_time_us, 8u);
}

TEST(Protocol, PingOf28BytesPassesWithHostTimeZero) {
  const Bytes bytes = ping_packet(28, LUND_PKT_PING);
  lund_ping ping;
  ping.host_time_us = 77;
  ASSERT_EQ(lund_decode_ping(bytes.data(), bytes.size(), &ping), 0);
  EXPECT_EQ(ping.host_time_us, 0u);
}

TEST(Protocol, PongOf28BytesCarriesTheHostTime) {
  const Bytes bytes = ping_packet(28, LUND_PKT_PONG);
  lund_ping ping;
  ASSERT_EQ(lund_decode_ping(bytes.data(), bytes.size(), &ping), 0);
  EXPECT_EQ(ping.host_time_us, 9u);
}

TEST(Protocol, ClientStatsLayoutAndRoundTrip) {
  const lund_client_stats stats = {.frames_received = 1,
                                   .frames_lost = 2,
                                   .client_value = 3,
                                   .fec_frames = 4,
                                   .decode_us = 5,
                                   .rtt_us = 0x01020304};
  const Bytes out = encoded(
      [&](auto* to, auto room) { return lund_encode_client_stats(to, room, &HEADER, &stats); });
  EXPECT_EQ(out,
            packet(6, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 5, 0, 0, 0, 4, 3, 2, 1}));
  lund_client_stats got;
  ASSERT_EQ(lund_decode_client_stats(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.frames_received, 1u);
  EXPECT_EQ(got.frames_lost, 2u);
  EXPECT_EQ(got.client_value, 3u);
  EXPECT_EQ(got.fec_frames, 4u);
  EXPECT_EQ(got.decode_us, 5u);
  EXPECT_EQ(got.rtt_us, 0x01020304u);
}

TEST(Protocol, U32PacketsTakeTheirTypeFromTheHeader) {
  for (const std::uint8_t type : U32_TYPES) {
    lund_packet_header header = HEADER;
    header.type = type;
    const Bytes out = encoded(
        [&](auto* to, auto room) { return lund_encode_u32_packet(to, room, &header, 0x01020304); });
    EXPECT_EQ(out, packet(type, {4, 3, 2, 1}));
    std::uint32_t value = 0;
    ASSERT_EQ(lund_decode_u32_packet(out.data(), out.size(), &value), 0);
    EXPECT_EQ(value, 0x01020304u);
  }
}

TEST(Protocol, U32EncoderRefusesEveryOtherType) {
  Bytes out(64);
  for (int type = 0; type < 256; ++type) {
    const lund_packet_header header = {.type = static_cast<std::uint8_t>(type)};
    const bool known = type == 7 || type == 34 || type == 50;
    EXPECT_EQ(lund_encode_u32_packet(out.data(), out.size(), &header, 1), known ? 12u : 0u) << type;
  }
}

TEST(Protocol, U32DecoderRefusesAWellFormedDiscover) {
  const Bytes discover = packet(9, {4, 3, 2, 1});
  std::uint32_t value = 0;
  EXPECT_EQ(lund_decode_u32_packet(discover.data(), discover.size(), &value), -1);
}

TEST(Protocol, VideoShardFieldsStandAtTheirPlaces) {
  Bytes bytes = packet(16, Bytes(34 + 3));
  for (std::size_t i = 8; i < 42; ++i) bytes[i] = static_cast<lund_byte>(i);
  bytes[42] = 0xAA;
  lund_video_shard shard;
  const lund_byte* payload = nullptr;
  std::size_t payload_size = 0;
  ASSERT_EQ(lund_decode_video_shard(bytes.data(), bytes.size(), &shard, &payload, &payload_size),
            0);
  EXPECT_EQ(shard.frame_id, 0x0B0A0908u);
  EXPECT_EQ(shard.block_index, 0x0D0C);
  EXPECT_EQ(shard.block_count, 0x0F0E);
  EXPECT_EQ(shard.shard_index, 16);
  EXPECT_EQ(shard.data_shards, 17);
  EXPECT_EQ(shard.parity_shards, 18);
  EXPECT_EQ(shard.flags, 19);
  EXPECT_EQ(shard.shard_size, 0x1514);
  EXPECT_EQ(shard.frame_size, 0x19181716u);
  EXPECT_EQ(shard.block_offset, 0x1D1C1B1Au);
  EXPECT_EQ(shard.capture_time_us, 0x2524232221201F1Eu);
  EXPECT_EQ(shard.encode_time_us, 0x29282726u);
  EXPECT_EQ(payload, bytes.data() + 42);
  EXPECT_EQ(payload_size, 3u);
}

TEST(Protocol, CursorPosLayoutAndRoundTrip) {
  const lund_cursor_pos pos = {.x = 0x0102, .y = 0xFFFE, .shape_id = 0x03040506};
  const Bytes out =
      encoded([&](auto* to, auto room) { return lund_encode_cursor_pos(to, room, &HEADER, &pos); });
  EXPECT_EQ(out, packet(32, {2, 1, 0xFE, 0xFF, 6, 5, 4, 3}));
  lund_cursor_pos got;
  ASSERT_EQ(lund_decode_cursor_pos(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.x, 0x0102);
  EXPECT_EQ(got.y, 0xFFFE);
  EXPECT_EQ(got.shape_id, 0x03040506u);
}

TEST(Protocol, CursorShapeLayoutAndRoundTrip) {
  const lund_cursor_shape shape = {.shape_id = 0x01020304,
                                   .width = 3,
                                   .height = 2,
                                   .hot_x = 0x0506,
                                   .hot_y = 0x0708,
                                   .total_size = 24,
                                   .offset = 21};
  const Bytes out = encoded([&](auto* to, auto room) {
    return lund_encode_cursor_shape(to, room, &HEADER, &shape, TAIL, sizeof(TAIL));
  });
  EXPECT_EQ(out,
            packet(33, {4, 3, 2, 1, 3, 0, 2, 0, 6, 5, 8, 7, 24, 0, 0, 0, 21, 0, 0, 0, 1, 2, 3}));
  lund_cursor_shape got;
  const lund_byte* chunk = nullptr;
  std::size_t chunk_size = 0;
  ASSERT_EQ(lund_decode_cursor_shape(out.data(), out.size(), &got, &chunk, &chunk_size), 0);
  EXPECT_EQ(got.shape_id, shape.shape_id);
  EXPECT_EQ(got.width, 3);
  EXPECT_EQ(got.height, 2);
  EXPECT_EQ(got.hot_x, 0x0506);
  EXPECT_EQ(got.hot_y, 0x0708);
  EXPECT_EQ(got.total_size, 24u);
  EXPECT_EQ(got.offset, 21u);
  EXPECT_EQ(chunk, out.data() + 28);
  EXPECT_EQ(chunk_size, 3u);
}

TEST(Protocol, EmptyCursorShapeIsRejectedOnlyWithATotalSize) {
  EXPECT_EQ(decode_shape(shape_packet(shape_of(0, 0), 0)), 0);
  lund_cursor_shape shape = shape_of(0, 0);
  shape.total_size = 4;
  EXPECT_EQ(decode_shape(shape_packet(shape, 0)), -1);
}

TEST(Protocol, CursorShapeChunkThatOverrunsByOneByteFails) {
  EXPECT_EQ(decode_shape(shape_packet(shape_of(2, 2), 16)), 0);
  EXPECT_EQ(decode_shape(shape_packet(shape_of(2, 2), 17)), -1);
  EXPECT_EQ(decode_shape(shape_packet(shape_of(2, 2, 10), 7)), -1);
  EXPECT_EQ(decode_shape(shape_packet(shape_of(2, 2, 16), 0)), 0);
  EXPECT_EQ(decode_shape(shape_packet(shape_of(2, 2, 17), 0)), -1);
}

TEST(Protocol, CursorShapeSizeIsComparedWithoutOverflow) {
  lund_cursor_shape shape = shape_of(0x8000, 0x8000);  // 2^32 bytes, 0 in 32 bits
  shape.total_size = 0;
  EXPECT_EQ(decode_shape(shape_packet(shape, 0)), -1);
}

TEST(Protocol, TailEncodersRefuseANullTailWithALength) {
  Bytes out(128);
  const lund_cursor_shape shape = shape_of(1, 1);
  const lund_audio_packet audio;
  const lund_clipboard_chunk chunk = {.total = 3};
  EXPECT_EQ(lund_encode_cursor_shape(out.data(), out.size(), &HEADER, &shape, nullptr, 3), 0u);
  EXPECT_EQ(lund_encode_audio(out.data(), out.size(), &HEADER, &audio, nullptr, 3), 0u);
  EXPECT_EQ(lund_encode_clipboard(out.data(), out.size(), &HEADER, &chunk, nullptr, 3), 0u);
  EXPECT_EQ(lund_encode_cursor_shape(out.data(), out.size(), &HEADER, &shape, nullptr, 0), 28u);
  EXPECT_EQ(lund_encode_audio(out.data(), out.size(), &HEADER, &audio, nullptr, 0), 20u);
  EXPECT_EQ(lund_encode_clipboard(out.data(), out.size(), &HEADER, &chunk, nullptr, 0), 21u);
}

TEST(Protocol, TailEncodersRefuseATailWhoseSumWouldOverflow) {
  Bytes out(128);
  const lund_audio_packet audio;
  EXPECT_EQ(lund_encode_audio(out.data(), out.size(), &HEADER, &audio, TAIL, SIZE_MAX - 4), 0u);
}

TEST(Protocol, CursorShapeEncoderDoesNotTestTotalSize) {
  lund_cursor_shape shape = shape_of(2, 2);
  shape.total_size = 1;
  EXPECT_EQ(shape_packet(shape, 3).size(), 31u);
}

TEST(Protocol, InputLayoutAndRoundTrip) {
  const lund_input_event events[] = {
      {.kind = LUND_INPUT_MOTION, .dx = -2, .dy = 0x01020304},
      {.kind = LUND_INPUT_KEY, .down = 1, .code = 0x0405},
  };
  const lund_input_batch batch = {.seq = 0x0A0B0C0D, .count = 2, .events = events};
  const Bytes out =
      encoded([&](auto* to, auto room) { return lund_encode_input(to, room, &HEADER, &batch); });
  EXPECT_EQ(out, packet(48, {0x0D, 0x0C, 0x0B, 0x0A, 2,                                   //
                             1,    0,    0,    0,    0xFE, 0xFF, 0xFF, 0xFF, 4, 3, 2, 1,  //
                             4,    1,    5,    4,    0,    0,    0,    0,    0, 0, 0, 0}));
  std::uint32_t seq = 0;
  lund_input_event got[LUND_INPUT_MAX];
  int count = 0;
  ASSERT_EQ(lund_decode_input(out.data(), out.size(), &seq, got, &count), 0);
  EXPECT_EQ(seq, 0x0A0B0C0Du);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(got[0].kind, LUND_INPUT_MOTION);
  EXPECT_EQ(got[0].dx, -2);
  EXPECT_EQ(got[0].dy, 0x01020304);
  EXPECT_EQ(got[1].kind, LUND_INPUT_KEY);
  EXPECT_EQ(got[1].down, 1);
  EXPECT_EQ(got[1].code, 0x0405);
}

TEST(Protocol, InputBatchOf64EventsIn781BytesPasses) {
  const Bytes bytes = input_packet(64);
  ASSERT_EQ(bytes.size(), 781u);
  EXPECT_EQ(decode_input(bytes), 0);
  EXPECT_EQ(decode_input(Bytes(bytes.begin(), bytes.end() - 1)), -1);
}

TEST(Protocol, InputBatchOf65EventsFailsWhateverItsLength) {
  Bytes bytes = input_packet(64);
  bytes[12] = 65;
  EXPECT_EQ(decode_input(bytes), -1);
  bytes.resize(13 + 65 * 12);
  EXPECT_EQ(decode_input(bytes), -1);
}

TEST(Protocol, InputEncoderRefuses65EventsAndNullEvents) {
  const std::vector<lund_input_event> events(65);
  Bytes out(2048);
  lund_input_batch batch = {.count = 65, .events = events.data()};
  EXPECT_EQ(lund_encode_input(out.data(), out.size(), &HEADER, &batch), 0u);
  batch = {.count = 1, .events = nullptr};
  EXPECT_EQ(lund_encode_input(out.data(), out.size(), &HEADER, &batch), 0u);
  batch.count = 0;
  EXPECT_EQ(lund_encode_input(out.data(), out.size(), &HEADER, &batch), 13u);
}

TEST(Protocol, MouseAbsLayoutAndRoundTrip) {
  const Bytes out = encoded([](auto* to, auto room) {
    return lund_encode_mouse_abs(to, room, &HEADER, 0x01020304, 0x0506, 0xFFFF);
  });
  EXPECT_EQ(out, packet(49, {4, 3, 2, 1, 6, 5, 0xFF, 0xFF}));
  lund_mouse_abs mouse;
  ASSERT_EQ(lund_decode_mouse_abs(out.data(), out.size(), &mouse), 0);
  EXPECT_EQ(mouse.seq, 0x01020304u);
  EXPECT_EQ(mouse.x, 0x0506);
  EXPECT_EQ(mouse.y, 0xFFFF);
}

TEST(Protocol, AudioLayoutAndRoundTrip) {
  const lund_audio_packet audio = {.seq = 0x01020304, .timestamp_us = 0x0807060504030201};
  const Bytes out = encoded([&](auto* to, auto room) {
    return lund_encode_audio(to, room, &HEADER, &audio, TAIL, sizeof(TAIL));
  });
  EXPECT_EQ(out, packet(64, {4, 3, 2, 1, 1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3}));
  lund_audio_packet got;
  const lund_byte* opus = nullptr;
  std::size_t opus_size = 0;
  ASSERT_EQ(lund_decode_audio(out.data(), out.size(), &got, &opus, &opus_size), 0);
  EXPECT_EQ(got.seq, audio.seq);
  EXPECT_EQ(got.timestamp_us, audio.timestamp_us);
  EXPECT_EQ(Bytes(opus, opus + opus_size), Bytes({1, 2, 3}));
}

TEST(Protocol, AudioTailMayBeEmpty) {
  const Bytes bytes = packet(64, Bytes(12));
  lund_audio_packet audio;
  const lund_byte* opus = nullptr;
  std::size_t opus_size = 7;
  ASSERT_EQ(lund_decode_audio(bytes.data(), bytes.size(), &audio, &opus, &opus_size), 0);
  EXPECT_EQ(opus_size, 0u);
}

TEST(Protocol, DiscoverLayoutAndRoundTrip) {
  const lund_discover discover = {.nonce = 0x01020304};
  const Bytes out = encoded(
      [&](auto* to, auto room) { return lund_encode_discover(to, room, &HEADER, &discover); });
  EXPECT_EQ(out, packet(9, {4, 3, 2, 1}));
  lund_discover got;
  ASSERT_EQ(lund_decode_discover(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.nonce, 0x01020304u);
}

TEST(Protocol, DiscoverReplyLayoutAndRoundTrip) {
  const Bytes out = discover_reply_packet("den");
  EXPECT_EQ(out, packet(10, {4, 3, 2, 1, 8, 7, 6, 5, 0x94, 0x26, 0x80, 0x07, 0x38, 0x04, 1, 3, 'd',
                             'e', 'n'}));
  lund_discover_reply got;
  ASSERT_EQ(lund_decode_discover_reply(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.nonce, 0x01020304u);
  EXPECT_EQ(got.lan_id, 0x05060708u);
  EXPECT_EQ(got.port, 9876);
  EXPECT_EQ(got.width, 1920);
  EXPECT_EQ(got.height, 1080);
  EXPECT_EQ(got.busy, 1);
  EXPECT_STREQ(got.name, "den");
}

TEST(Protocol, DiscoverReplyNameOf70BytesEncodesAs63) {
  const Bytes out = discover_reply_packet(std::string(70, 'n').c_str());
  ASSERT_EQ(out.size(), 87u);
  EXPECT_EQ(out[23], 63);
  lund_discover_reply got;
  ASSERT_EQ(lund_decode_discover_reply(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.name, std::string(63, 'n'));
}

TEST(Protocol, DiscoverReplyWithoutANameIs24Bytes) {
  EXPECT_EQ(discover_reply_packet(nullptr).size(), 24u);
}

TEST(Protocol, DiscoverReplyNameOf64BytesOrBeyondThePacketFails) {
  Bytes bytes = discover_reply_packet(std::string(63, 'n').c_str());
  lund_discover_reply got;
  EXPECT_EQ(lund_decode_discover_reply(bytes.data(), bytes.size() - 1, &got), -1);
  bytes.resize(200);
  bytes[23] = 64;
  EXPECT_EQ(lund_decode_discover_reply(bytes.data(), bytes.size(), &got), -1);
}

TEST(Protocol, BooleansEncodeAsZeroOrOneAndDecodeAsTheyStand) {
  for (const bool value : {false, true}) {
    EXPECT_EQ(encoded([&](auto* to, auto room) {
                return lund_encode_audio_control(to, room, &HEADER, value);
              }),
              packet(11, {static_cast<lund_byte>(value)}));
    EXPECT_EQ(encoded([&](auto* to, auto room) {
                return lund_encode_pair_back_ack(to, room, &HEADER, value);
              }),
              packet(15, {static_cast<lund_byte>(value)}));
  }
  std::uint8_t got = 0;
  EXPECT_EQ(lund_decode_audio_control(packet(11, {200}).data(), 9, &got), 0);
  EXPECT_EQ(got, 200);
  EXPECT_EQ(lund_decode_pair_back_ack(packet(15, {201}).data(), 9, &got), 0);
  EXPECT_EQ(got, 201);
}

TEST(Protocol, ClipboardLayoutAndRoundTrip) {
  const lund_clipboard_chunk chunk = {
      .id = 0x01020304, .kind = 5, .total = 0x00060708, .offset = 0x0009};
  const Bytes out = encoded([&](auto* to, auto room) {
    return lund_encode_clipboard(to, room, &HEADER, &chunk, TAIL, sizeof(TAIL));
  });
  EXPECT_EQ(out, packet(12, {4, 3, 2, 1, 5, 8, 7, 6, 0, 9, 0, 0, 0, 1, 2, 3}));
  lund_clipboard_chunk got;
  const lund_byte* bytes = nullptr;
  std::size_t size = 0;
  ASSERT_EQ(lund_decode_clipboard(out.data(), out.size(), &got, &bytes, &size), 0);
  EXPECT_EQ(got.id, chunk.id);
  EXPECT_EQ(got.kind, 5);
  EXPECT_EQ(got.total, chunk.total);
  EXPECT_EQ(got.offset, 9u);
  EXPECT_EQ(bytes, out.data() + 21);
  EXPECT_EQ(size, 3u);
}

TEST(Protocol, ClipboardTotalAboveTheLimitFailsInBothDirections) {
  lund_clipboard_chunk chunk = {.total = 16'777'216};
  Bytes bytes = clipboard_packet(chunk, 1);
  ASSERT_EQ(bytes.size(), 22u);
  EXPECT_EQ(decode_clipboard(bytes), 0);
  chunk.total = 16'777'217;
  EXPECT_EQ(clipboard_packet(chunk, 1).size(), 0u);
  bytes[13] = 1;
  EXPECT_EQ(decode_clipboard(bytes), -1);
}

TEST(Protocol, ClipboardTotalOfZeroFailsInBothDirections) {
  EXPECT_EQ(clipboard_packet({.total = 0}, 0).size(), 0u);
  EXPECT_EQ(decode_clipboard(packet(12, Bytes(13))), -1);
}

TEST(Protocol, ClipboardChunkBeyondItsItemFailsInBothDirections) {
  EXPECT_EQ(clipboard_packet({.total = 10, .offset = 8}, 3).size(), 0u);
  EXPECT_EQ(clipboard_packet({.total = 10, .offset = 11}, 0).size(), 0u);
  Bytes bytes = clipboard_packet({.total = 10, .offset = 8}, 2);
  EXPECT_EQ(decode_clipboard(bytes), 0);
  bytes.push_back(0);
  EXPECT_EQ(decode_clipboard(bytes), -1);
  bytes = clipboard_packet({.total = 10, .offset = 10}, 0);
  EXPECT_EQ(decode_clipboard(bytes), 0);
  bytes[17] = 11;
  EXPECT_EQ(decode_clipboard(bytes), -1);
}

TEST(Protocol, ClipboardAckLayoutAndRoundTrip) {
  const lund_clipboard_ack ack = sample_clipboard_ack();
  const Bytes out = encoded(
      [&](auto* to, auto room) { return lund_encode_clipboard_ack(to, room, &HEADER, &ack); });
  EXPECT_EQ(out, packet(13, {4, 3, 2, 1,    3,    2,    0x11, 0, 0, 0, 0x22,
                             0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 4, 3, 2, 1}));
  lund_clipboard_ack got;
  ASSERT_EQ(lund_decode_clipboard_ack(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.id, ack.id);
  EXPECT_EQ(got.status, 3);
  ASSERT_EQ(got.range_count, 2);
  EXPECT_EQ(got.ranges[1].offset, 0xFFFFFFFFu);
  EXPECT_EQ(got.ranges[1].length, 0x01020304u);
}

TEST(Protocol, ClipboardAckHoldsAtMost64RangesAndAllOfThem) {
  lund_clipboard_ack ack;
  ack.range_count = 64;
  Bytes out = encoded(
      [&](auto* to, auto room) { return lund_encode_clipboard_ack(to, room, &HEADER, &ack); });
  ASSERT_EQ(out.size(), 14u + 64 * 8);
  EXPECT_EQ(lund_decode_clipboard_ack(out.data(), out.size(), &ack), 0);
  EXPECT_EQ(lund_decode_clipboard_ack(out.data(), out.size() - 1, &ack), -1);
  out.resize(14 + 65 * 8);
  out[13] = 65;
  EXPECT_EQ(lund_decode_clipboard_ack(out.data(), out.size(), &ack), -1);
  ack.range_count = 65;
  EXPECT_EQ(lund_encode_clipboard_ack(out.data(), out.size(), &HEADER, &ack), 0u);
}

TEST(Protocol, PairBackLayoutAndRoundTrip) {
  const Bytes out = pair_back_packet("den");
  EXPECT_EQ(out, packet(14, {0x34, 0x12, 2, 0x0D, 0x0C, 0x0B, 0x0A, 4, 3, 2, 1, 3, 'd', 'e', 'n'}));
  lund_pair_back got;
  ASSERT_EQ(lund_decode_pair_back(out.data(), out.size(), &got), 0);
  EXPECT_EQ(got.back_value, 0x1234);
  ASSERT_EQ(got.back_count, 2);
  EXPECT_EQ(got.back_values[0], 0x0A0B0C0Du);
  EXPECT_EQ(got.back_values[1], 0x01020304u);
  EXPECT_STREQ(got.name, "den");
}

TEST(Protocol, PairBackNameIsCutTo63Bytes) {
  const Bytes out = pair_back_packet(std::string(70, 'n').c_str());
  EXPECT_EQ(out.size(), 12u + 8 + 63);
  EXPECT_EQ(out[19], 63);
}

TEST(Protocol, PairBackRefusesFiveValuesAndTruncation) {
  Bytes out = pair_back_packet("den");
  lund_pair_back back;
  for (std::size_t size = 0; size < out.size(); ++size)
    EXPECT_EQ(lund_decode_pair_back(out.data(), size, &back), -1) << size;
  out.resize(100);
  out[10] = 5;
  EXPECT_EQ(lund_decode_pair_back(out.data(), out.size(), &back), -1);
  back.back_count = 5;
  EXPECT_EQ(lund_encode_pair_back(out.data(), out.size(), &HEADER, &back, ""), 0u);
}

TEST(Protocol, PairBackNameOf64BytesFails) {
  Bytes out = pair_back_packet(std::string(63, 'n').c_str());
  out.resize(out.size() + 10);
  out[19] = 64;
  lund_pair_back back;
  EXPECT_EQ(lund_decode_pair_back(out.data(), out.size(), &back), -1);
}
