// The packets of pointer, input, sound and clipboard.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "connection/protocol.h"
#include "tests/support/packets.h"

namespace {

using namespace packets;

constexpr lund_byte TAIL[3] = {1, 2, 3};

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

}  // namespace

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
