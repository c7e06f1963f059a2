// A running session: frames, pointer, and the line of each second.
#include "host/screen_session.h"

#include <gmock/gmock.h>

#include "connection/byte_order.h"
#include "media/video_transport.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/host_world.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

CursorBitmap cursor(std::uint8_t shade, int side = 8) {
  CursorBitmap bitmap;
  bitmap.width = bitmap.height = side;
  bitmap.hot_x = 3;
  bitmap.hot_y = 4;
  bitmap.pixels.assign(static_cast<std::size_t>(side) * static_cast<std::size_t>(side) * 4, shade);
  return bitmap;
}

class ScreenSessionTest : public HostWorld {
 protected:
  FakeCapture& capture(std::size_t index = 0) { return *platform.captures[index]; }
  FakeAudio& audio() { return *platform.audios[0]; }

  // Lines that belong to a session's second.
  std::vector<std::string> seconds() {
    std::vector<std::string> lines = log();
    std::erase_if(lines, [](const std::string& line) { return line.find(" fps ") == line.npos; });
    return lines;
  }
  std::optional<lund_cursor_pos> only_position(TestLink& link, std::uint8_t* flags = nullptr) {
    const std::vector<peer::bytes> packets = link.receive(LUND_PKT_CURSOR_POS);
    lund_cursor_pos pos;
    if (packets.size() != 1 ||
        lund_decode_cursor_pos(packets[0].data(), packets[0].size(), &pos) != 0)
      return std::nullopt;
    if (flags) *flags = packets[0][3];
    return pos;
  }
  // Ticks while the client stays alive.
  void run_alive_ms(TestLink& link, std::uint64_t ms) {
    for (std::uint64_t done = 0; done < ms; done += 100) {
      link.send(peer::packet(99));
      run_ms(100);
    }
  }
};

lund_hello with_audio() {
  lund_hello hello;
  hello.audio = 1;
  return hello;
}

}  // namespace

// ---- Video

TEST_F(ScreenSessionTest, AFrameArrivesWholeWithItsNumberAndTimes) {
  TestLink laptop = stream();
  capture().frame(true, 5'000, 123);
  capture().frame(false, 100'000, 456);
  lund_reassembler* reassembler = lund_reassembler_create(1 << 20);
  for (const peer::bytes& shard : laptop.receive(LUND_PKT_VIDEO_SHARD))
    EXPECT_GE(lund_reassembler_push(reassembler, shard.data(), shard.size()), 0);
  lund_reassembled_frame frame;
  ASSERT_EQ(lund_reassembler_pop(reassembler, &frame, nullptr), 1);
  EXPECT_EQ(frame.frame_id, 0u);
  EXPECT_EQ(frame.size, 5'000u);
  EXPECT_EQ(frame.flags, 1);
  EXPECT_EQ(frame.capture_time_us, 123u);
  EXPECT_EQ(frame.encode_time_us, 3'000u);
  EXPECT_EQ(frame.data[4'999], 0x5A);
  ASSERT_EQ(lund_reassembler_pop(reassembler, &frame, nullptr), 1);
  EXPECT_EQ(frame.frame_id, 1u);
  EXPECT_EQ(frame.size, 100'000u);
  EXPECT_EQ(frame.flags, 0);
  lund_reassembler_destroy(reassembler);
}

TEST_F(ScreenSessionTest, EachBlockHasAtLeastTwoParityShards) {
  lund_hello hello;
  hello.fec_percent = 1;
  TestLink laptop = stream(hello);
  capture().frame(true, 100);
  EXPECT_EQ(laptop.receive(LUND_PKT_VIDEO_SHARD).size(), 3u);
}

TEST_F(ScreenSessionTest, AFrameAndAPositionNeedNoHeap) {
  TestLink laptop = stream();
  capture().object->pointer_sink(1, 2, 1);
  capture().frame(true, 200'000);
  fake_udp().keeps = false;
  const std::uint64_t sent_before = fake_udp().count;
  const AllocationCount allocations;
  for (int i = 0; i < 20; ++i) {
    capture().frame(i == 10, 200'000);
    capture().object->pointer_sink(5, 6, 1);
  }
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_GT(fake_udp().count - sent_before, 3'000u);
}

TEST_F(ScreenSessionTest, SoundNeedsNoHeap) {
  TestLink laptop = stream(with_audio());
  fake_udp().keeps = false;
  const std::uint8_t opus[120] = {};
  audio().object->on_packet(opus, sizeof opus, 0);  // a lock may be made when it is first taken
  const std::uint64_t sent_before = fake_udp().count;
  const AllocationCount allocations;
  for (std::uint64_t i = 0; i < 100; ++i) audio().object->on_packet(opus, sizeof opus, i);
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_EQ(fake_udp().count - sent_before, 100u);
}

TEST_F(ScreenSessionTest, TheFirstFrameIsDescribed) {
  TestLink laptop = stream();
  log();
  virtual_time::advance_ms(40);
  capture().frame(true, 3'000);
  EXPECT_TRUE(
      logged("first frame: keyframe 3000 bytes, 40.0 ms after HELLO, encode 3.00 ms "
             "(submit->packet 2.00 ms), 5 packets sealed in 0.0 us"));
  capture().frame(false, 3'000);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ScreenSessionTest, AFirstFrameThatIsNoKeyframeIsCalledSo) {
  TestLink laptop = stream();
  capture().frame(false, 10);
  EXPECT_THAT(log(), Contains(StartsWith("first frame: NON-keyframe 10 bytes, ")));
  capture().frame(true, 10);
  run_ms(1'000);
  EXPECT_THAT(seconds(), ElementsAre(HasSubstr("key 1 (init 0, req 0/0 in)")));
}

TEST_F(ScreenSessionTest, AnEmptyFrameAndAFrameAfterTheEndDoNothing) {
  TestLink laptop = stream();
  capture().frame(true, 0);
  EXPECT_THAT(laptop.receive(), IsEmpty());
  const auto kept = session(laptop);
  capture().during_stop = [&] { capture().frame(true, 100); };
  laptop.bye();
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(ScreenSessionTest, AFrameThatThePacketizerRefusesIsLostAndSaid) {
  TestLink laptop = stream();
  log();
  EncodedVideoFrame frame;
  frame.size = 5;  // without data
  capture().object->frame_sink(frame);
  EXPECT_THAT(log(), Contains("packetizer rejected frame 0 (5 bytes)"));
  capture().frame(true, 5);
  lund_video_shard shard;
  const auto shards = laptop.receive(LUND_PKT_VIDEO_SHARD);
  ASSERT_FALSE(shards.empty());
  lund_decode_video_shard(shards[0].data(), shards[0].size(), &shard, nullptr, nullptr);
  EXPECT_EQ(shard.frame_id, 1u);
}

// ---- Keyframes

TEST_F(ScreenSessionTest, KeyframeRequestsAreCountedAndAskedForAtMostTenTimesASecond) {
  TestLink laptop = stream();
  laptop.send(peer::packet(LUND_PKT_KEYFRAME_REQUEST));
  EXPECT_EQ(capture().keyframe_requests, 1);
  virtual_time::advance_us(99'999);
  laptop.send(peer::packet(LUND_PKT_KEYFRAME_REQUEST));
  EXPECT_EQ(capture().keyframe_requests, 1);
  virtual_time::advance_us(1);
  laptop.send(peer::packet(LUND_PKT_KEYFRAME_REQUEST));
  EXPECT_EQ(capture().keyframe_requests, 2);
  run_ms(1'000);
  EXPECT_THAT(seconds(), ElementsAre(HasSubstr("key 0 (init 0, req 0/3 in)")));
}

TEST_F(ScreenSessionTest, KeyframesAreCountedByTheirCause) {
  TestLink laptop = stream();
  capture().frame(true);
  capture().frame(true);  // the capture's own
  laptop.send(peer::packet(LUND_PKT_KEYFRAME_REQUEST));
  capture().frame(false);
  capture().frame(true);
  capture().frame(true);  // the request has been answered
  run_ms(1'000);
  EXPECT_THAT(seconds(), ElementsAre(HasSubstr("key 4 (init 1, req 1/1 in)")));
}

// ---- Pointer

TEST_F(ScreenSessionTest, AShapeTravelsInChunksAndThePositionFollowsWithItsHash) {
  TestLink laptop = stream();
  capture().object->pointer_sink(100, 200, 1);
  laptop.receive();
  const CursorBitmap big = cursor(7, 32);
  capture().object->cursor_sink(big);
  const std::vector<peer::bytes> packets = laptop.receive();
  ASSERT_EQ(packets.size(), 5u);  // 4096 bytes in chunks of 1348, and the position
  peer::bytes pixels;
  for (std::size_t i = 0; i < 4; ++i) {
    lund_cursor_shape shape;
    const std::uint8_t* chunk = nullptr;
    std::size_t chunk_size = 0;
    ASSERT_EQ(
        lund_decode_cursor_shape(packets[i].data(), packets[i].size(), &shape, &chunk, &chunk_size),
        0);
    EXPECT_LE(packets[i].size(), 1'376u);
    EXPECT_EQ(shape.shape_id, cursor_hash(big));
    EXPECT_EQ(shape.width, 32);
    EXPECT_EQ(shape.height, 32);
    EXPECT_EQ(shape.hot_x, 3);
    EXPECT_EQ(shape.hot_y, 4);
    EXPECT_EQ(shape.total_size, 4'096u);
    EXPECT_EQ(shape.offset, pixels.size());
    pixels.insert(pixels.end(), chunk, chunk + chunk_size);
  }
  EXPECT_EQ(pixels, big.pixels);
  lund_cursor_pos pos;
  ASSERT_EQ(lund_decode_cursor_pos(packets[4].data(), packets[4].size(), &pos), 0);
  EXPECT_EQ(pos.x, 100);
  EXPECT_EQ(pos.y, 200);
  EXPECT_EQ(pos.shape_id, cursor_hash(big));
  EXPECT_EQ(packets[4][3], 1);  // visible
}

TEST_F(ScreenSessionTest, TheShapeInUseIsNotSentAgain) {
  TestLink laptop = stream();
  capture().object->cursor_sink(cursor(1));
  capture().object->cursor_sink(cursor(1));
  EXPECT_EQ(laptop.receive().size(), 1u);  // without a position, the shape alone
  capture().object->cursor_sink(cursor(2));
  capture().object->cursor_sink(cursor(1));  // known to the client, but not in use
  EXPECT_EQ(laptop.receive().size(), 2u);
}

TEST_F(ScreenSessionTest, The65thShapePushesTheOldestOutOfTheCache) {
  TestLink laptop = stream();
  for (std::uint8_t shade = 1; shade <= 64; ++shade) capture().object->cursor_sink(cursor(shade));
  capture().object->cursor_sink(cursor(1));  // a hit doesn't make it younger
  laptop.receive();
  laptop.u32(LUND_PKT_CURSOR_REQUEST, cursor_hash(cursor(1)));
  EXPECT_EQ(laptop.receive(LUND_PKT_CURSOR_SHAPE).size(), 1u);
  capture().object->cursor_sink(cursor(65));
  laptop.receive();
  laptop.u32(LUND_PKT_CURSOR_REQUEST, cursor_hash(cursor(1)));
  EXPECT_THAT(laptop.receive(), IsEmpty());
  laptop.u32(LUND_PKT_CURSOR_REQUEST, cursor_hash(cursor(2)));
  EXPECT_EQ(laptop.receive(LUND_PKT_CURSOR_SHAPE).size(), 1u);
}

TEST_F(ScreenSessionTest, AShapeOfInconsistentSizeIsNotSent) {
  TestLink laptop = stream();
  CursorBitmap broken = cursor(1);
  broken.pixels.pop_back();
  capture().object->cursor_sink(broken);
  CursorBitmap wide = cursor(2, 1);
  wide.width = 65'536;
  wide.pixels.resize(65'536 * 4);
  capture().object->cursor_sink(wide);
  capture().object->cursor_sink(CursorBitmap{});
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(ScreenSessionTest, AShapeIsCutToTheDatagramsOfNowAndComesAgainWholeWhenAskedFor) {
  TestLink laptop = stream();
  ASSERT_TRUE(session(laptop)->lower_payload(1'176));
  const CursorBitmap big = cursor(7, 48);
  for (const bool asked : {false, true}) {
    SCOPED_TRACE(asked);
    if (asked)
      laptop.u32(LUND_PKT_CURSOR_REQUEST, cursor_hash(big));
    else
      capture().object->cursor_sink(big);
    const std::vector<peer::bytes> packets = laptop.receive();
    ASSERT_EQ(packets.size(), 9u);  // 9216 bytes in chunks of 1148, and no position yet
    peer::bytes pixels;
    for (const peer::bytes& packet : packets) {
      lund_cursor_shape shape;
      const std::uint8_t* chunk = nullptr;
      std::size_t chunk_size = 0;
      ASSERT_EQ(lund_decode_cursor_shape(packet.data(), packet.size(), &shape, &chunk, &chunk_size),
                0);
      EXPECT_LE(packet.size(), 1'176u);
      EXPECT_EQ(shape.shape_id, cursor_hash(big));
      EXPECT_EQ(shape.offset, pixels.size());
      pixels.insert(pixels.end(), chunk, chunk + chunk_size);
    }
    EXPECT_EQ(pixels, big.pixels);
  }
}

TEST_F(ScreenSessionTest, ARequestForAShapeThatWasNeverSentIsNotAnswered) {
  TestLink laptop = stream();
  laptop.u32(LUND_PKT_CURSOR_REQUEST, 0);
  capture().object->cursor_sink(cursor(1));
  laptop.receive();
  laptop.u32(LUND_PKT_CURSOR_REQUEST, 0);
  laptop.u32(LUND_PKT_CURSOR_REQUEST, cursor_hash(cursor(2)));
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(ScreenSessionTest, PositionsBeforeTheFirstShapeCarryNoneAndLaterOnesTheShapeInUse) {
  TestLink laptop = stream();
  capture().object->pointer_sink(1, 2, 1);
  const auto before = only_position(laptop);
  ASSERT_TRUE(before);
  EXPECT_EQ(before->shape_id, 0u);
  capture().object->cursor_sink(cursor(1));
  capture().object->cursor_sink(cursor(2));
  laptop.receive();
  std::uint8_t flags = 77;
  capture().object->pointer_sink(3, 4, 0);
  const auto after = only_position(laptop, &flags);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->shape_id, cursor_hash(cursor(2)));
  EXPECT_EQ(flags, 0);
  run_ms(1'000);
  const auto repeated = only_position(laptop);
  ASSERT_TRUE(repeated);
  EXPECT_EQ(repeated->shape_id, cursor_hash(cursor(2)));
}

TEST_F(ScreenSessionTest, AnEndedSessionSendsNothingOfThePointer) {
  TestLink laptop = stream();
  const auto ended = session(laptop);
  ended->capture->cursor_sink(cursor(1));
  ended->capture->pointer_sink(1, 2, 1);
  laptop.bye();
  laptop.receive();
  ended->capture->cursor_sink(cursor(2));
  ended->capture->pointer_sink(3, 4, 1);
  ended->tick(lund_now_us() + 2'000'000);
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(ScreenSessionTest, APositionIsRepeatedAfterASecondOfRest) {
  TestLink laptop = stream();
  capture().object->pointer_sink(9, 8, 0);
  ASSERT_TRUE(only_position(laptop));
  run_ms(900);
  EXPECT_FALSE(only_position(laptop));
  run_ms(100);
  std::uint8_t flags = 77;
  const auto repeated = only_position(laptop, &flags);
  ASSERT_TRUE(repeated);
  EXPECT_EQ(repeated->x, 9);
  EXPECT_EQ(flags, 0);
}

// ---- The line of each second

TEST_F(ScreenSessionTest, ASecondWithoutAFrameIsLoggedWithZeros) {
  TestLink laptop = stream();
  log();
  run_ms(1'000);
  EXPECT_THAT(seconds(), ElementsAre("  0.0 fps   0.00 Mbps enc  0.00/ 0.00 ms cap->pkt  0.00 ms "
                                     "key 0 (init 0, req 0/0 in)     0 pkt/s err 0 seal 0/0 us "
                                     "audio off"));
}

TEST_F(ScreenSessionTest, ASecondIsLoggedWithAllItsNumbers) {
  TestLink laptop = stream(with_audio());
  log();
  virtual_time::advance_ms(20);
  const std::uint64_t captured = lund_now_us() - 8'000;
  capture().frame(true, 50'000, captured);           // 38 data and 6 parity shards
  capture().frame(false, 1'000, captured);           // 1 and 2
  capture().frame(false, 1'000, lund_now_us() + 5);  // a time to come adds no latency
  fake_udp().sends_fail = true;
  capture().frame(false, 1'000, captured);
  fake_udp().sends_fail = false;
  const std::uint8_t opus[10] = {};
  audio().object->on_packet(opus, sizeof opus, 1);
  lund_client_stats stats;
  stats.frames_received = 9;
  stats.frames_lost = 1;
  stats.client_value = 12'345;
  stats.fec_frames = 2;
  stats.decode_us = 1'250;
  stats.rtt_us = 480;
  const lund_packet_header header;
  peer::bytes packet(64);
  packet.resize(lund_encode_client_stats(packet.data(), packet.size(), &header, &stats));
  laptop.send(packet);
  virtual_time::advance_ms(980);
  host().tick_step();
  EXPECT_THAT(seconds(),
              ElementsAre("  4.0 fps   0.42 Mbps enc  2.00/ 2.00 ms cap->pkt  6.00 ms key 1 (init "
                          "1, req 0/0 in)    54 pkt/s err 3 seal 0/0 us audio 1 | client rtt 0.48 "
                          "ms loss 10.0% (1 fr, 2 fec) dec 1.25 ms"));
  const ScreenStatus status = host().status().screens[0];
  EXPECT_DOUBLE_EQ(status.measured_fps, 4.0);
  EXPECT_DOUBLE_EQ(status.measured_mbps, 0.424);
  EXPECT_DOUBLE_EQ(status.encode_ms, 2.0);
  EXPECT_DOUBLE_EQ(status.rtt_ms, 0.48);
  EXPECT_DOUBLE_EQ(status.loss_percent, 10.0);
  EXPECT_DOUBLE_EQ(status.decode_ms, 1.25);
  EXPECT_TRUE(status.client_stats_valid);
}

TEST_F(ScreenSessionTest, WithoutAReportOfTheClientTheStatusKeepsItsOldValues) {
  TestLink laptop = stream();
  const lund_packet_header header;
  lund_client_stats stats;
  stats.rtt_us = 2'000;
  peer::bytes packet(64);
  packet.resize(lund_encode_client_stats(packet.data(), packet.size(), &header, &stats));
  laptop.send(packet);
  run_ms(1'000);
  run_ms(1'000);
  const ScreenStatus status = host().status().screens[0];
  EXPECT_FALSE(status.client_stats_valid);
  EXPECT_DOUBLE_EQ(status.rtt_ms, 2.0);
  EXPECT_THAT(seconds(), ElementsAre(HasSubstr(" | client rtt 2.00 ms"), Not(HasSubstr("client"))));
}

TEST_F(ScreenSessionTest, ASideScreensLineBeginsWithItsTagAndHasNoSound) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  log();
  run_ms(1'000);
  EXPECT_THAT(seconds(),
              ElementsAre(AllOf(StartsWith("  0.0 fps"), HasSubstr("audio off")),
                          AllOf(StartsWith("screen 1:   0.0 fps"), Not(HasSubstr("audio")))));
}

TEST_F(ScreenSessionTest, TheStatusChangesOnceASecondForEachSession) {
  TestLink laptop = stream();
  int changes = 0;
  host().on_status_change = [&] { ++changes; };
  run_alive_ms(laptop, 5'000);
  EXPECT_EQ(changes, 5);
}
