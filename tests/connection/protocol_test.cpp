// The packets that open, hold and end a session.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <string>

#include "connection/protocol.h"
#include "tests/support/packets.h"

namespace {

using namespace packets;
using ::testing::ElementsAreArray;

constexpr std::uint8_t U32_TYPES[] = {7, 34, 50};

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

Bytes pair_back_packet(const char* name) {
  const lund_pair_back back = sample_pair_back();
  return encoded(
      [&](auto* out, auto room) { return lund_encode_pair_back(out, room, &HEADER, &back, name); });
}

}  // namespace

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
