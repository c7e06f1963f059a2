// What holds for every encoder and every decoder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "connection/protocol.h"
#include "tests/support/packets.h"

namespace {

using namespace packets;
using ::testing::ElementsAre;

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

TEST(Protocol, BytesBehindTheKnownFieldsAreIgnored) {
  for (const Decoder& one : decoders()) {
    if (std::string(one.name) == "cursor_shape" || std::string(one.name) == "clipboard") continue;
    Bytes bytes = one.shortest;
    bytes.resize(bytes.size() + 50);
    EXPECT_EQ(one.decode(bytes.data(), bytes.size()), 0) << one.name;
  }
}
