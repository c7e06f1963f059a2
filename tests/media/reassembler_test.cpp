#include <gtest/gtest.h>

#include <algorithm>

#include "media/video_transport.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/video_frames.h"

namespace {

using namespace video_frames;

// Offsets of header fields, for tests that falsify them.
constexpr std::size_t BLOCK_INDEX = 12, BLOCK_COUNT = 14, SHARD_INDEX = 16, DATA_SHARDS = 17,
                      PARITY_SHARDS = 18, FLAGS = 19, SHARD_SIZE = 20, FRAME_SIZE = 22,
                      BLOCK_OFFSET = 26, CAPTURE_TIME = 30, ENCODE_TIME = 38;

Bytes with_byte(Bytes datagram, std::size_t offset, unsigned value) {
  datagram[offset] = static_cast<std::uint8_t>(value);
  return datagram;
}

struct Popped {
  bool any = false;
  std::uint32_t skipped = 0;
  Bytes bytes;
  lund_reassembled_frame frame;
};

Popped pop(const Reassembler& r) {
  Popped out;
  out.any = lund_reassembler_pop(r.get(), &out.frame, &out.skipped) == 1;
  if (out.any) out.bytes.assign(out.frame.data, out.frame.data + out.frame.size);
  return out;
}

// Payloads of 100 bytes, a quarter of parity, two at least.
struct ReassemblerTest : testing::Test {
  Packetizer p = make_packetizer(142, 25, 2);
  Reassembler r = make_reassembler();

  std::vector<Bytes> frame(std::uint32_t id, std::size_t size) {
    return packetize(p.get(), id, random_bytes(size, id));
  }
  std::int32_t push_all(const std::vector<Bytes>& datagrams) {
    std::int32_t result = 0;
    for (const auto& datagram : datagrams) result = push(r.get(), datagram);
    return result;
  }
};

TEST_F(ReassemblerTest, GivesAFrameWithItsHeader) {
  const Bytes sent = random_bytes(15'000, 5);
  EXPECT_EQ(push_all(packetize(p.get(), 5, sent, 1)), 1);
  const Popped got = pop(r);
  ASSERT_TRUE(got.any);
  EXPECT_EQ(got.bytes, sent);
  EXPECT_EQ(got.frame.frame_id, 5u);
  EXPECT_EQ(got.frame.flags, 1);
  EXPECT_EQ(got.frame.capture_time_us, info_of(5).capture_time_us);
  EXPECT_EQ(got.frame.encode_time_us, info_of(5).encode_time_us);
  EXPECT_EQ(got.frame.recovered, 0u);
  EXPECT_EQ(got.skipped, 0u);
  EXPECT_FALSE(pop(r).any);
}

TEST_F(ReassemblerTest, AMaximumFrameSizeOutOfRangeGivesNone) {
  EXPECT_EQ(lund_reassembler_create(0), nullptr);
  EXPECT_EQ(lund_reassembler_create(0x1'0000'0000), nullptr);
  EXPECT_NE(make_reassembler(0xFFFFFFFF), nullptr);
  EXPECT_NE(make_reassembler(1), nullptr);
}

TEST_F(ReassemblerTest, ShortMemoryGivesNone) {
  const AllocationLimit short_memory(64);
  EXPECT_EQ(lund_reassembler_create(1000), nullptr);
}

TEST_F(ReassemblerTest, NullArgumentsAreHarmless) {
  lund_reassembler_destroy(nullptr);
  EXPECT_EQ(lund_reassembler_push(nullptr, nullptr, 0), -1);
  EXPECT_EQ(lund_reassembler_push(r.get(), nullptr, 0), -1);
  lund_reassembled_frame frame;
  EXPECT_EQ(lund_reassembler_pop(nullptr, &frame, nullptr), 0);
  push_all(this->frame(1, 10));
  EXPECT_EQ(lund_reassembler_pop(r.get(), nullptr, nullptr), 0);
  EXPECT_EQ(lund_reassembler_pop(r.get(), &frame, nullptr), 1);
}

TEST_F(ReassemblerTest, ARepeatedShardIsCountedOnceAndIsNoError) {
  const auto datagrams = frame(1, 1000);
  EXPECT_EQ(push(r.get(), datagrams[0]), 0);
  EXPECT_EQ(push(r.get(), datagrams[0]), 0);
  EXPECT_EQ(push(r.get(), datagrams.back()), 0);
  EXPECT_EQ(push(r.get(), datagrams.back()), 0);
  EXPECT_EQ(stats_of(r).shards_received, 2u);
  EXPECT_EQ(stats_of(r).shards_invalid, 0u);
}

TEST_F(ReassemblerTest, BlocksInReverseOrderCompleteTheSame) {
  auto datagrams = frame(1, 25'000);
  std::reverse(datagrams.begin(), datagrams.end());
  EXPECT_EQ(push_all(datagrams), 1);
  EXPECT_EQ(pop(r).bytes, random_bytes(25'000, 1));
}

TEST_F(ReassemblerTest, ALostShardIsRebuiltAlsoWhenParityComesFirst) {
  for (const bool parity_first : {false, true}) {
    auto datagrams = frame(1, 1000);  // 10 data shards, 3 of parity
    if (parity_first) std::rotate(datagrams.begin(), datagrams.begin() + 10, datagrams.end());
    const std::size_t lost = parity_first ? 3 + 4 : 4;
    datagrams.erase(datagrams.begin() + static_cast<std::ptrdiff_t>(lost));
    const auto fresh = make_reassembler();
    for (const auto& datagram : datagrams) push(fresh.get(), datagram);
    const Popped got = pop(fresh);
    ASSERT_TRUE(got.any);
    EXPECT_EQ(got.bytes, random_bytes(1000, 1));
    // With parity first, the last two data shards come too late to be needed.
    EXPECT_EQ(got.frame.recovered, parity_first ? 3u : 1u);
    EXPECT_EQ(stats_of(fresh).shards_recovered, got.frame.recovered);
  }
}

TEST_F(ReassemblerTest, AFrameOfParityAloneIsRebuilt) {
  const auto strong = make_packetizer(142, 100, 0);
  const auto datagrams = packetize(strong.get(), 1, random_bytes(6'400, 1));
  ASSERT_EQ(datagrams.size(), 128u);
  for (std::size_t i = 64; i < 128; ++i) push(r.get(), datagrams[i]);
  const Popped got = pop(r);
  EXPECT_EQ(got.bytes, random_bytes(6'400, 1));
  EXPECT_EQ(got.frame.recovered, 64u);
}

TEST_F(ReassemblerTest, ThePaddingOfTheLastShardIsNotPartOfTheFrame) {
  const Bytes sent(101, 0xFF);  // two shards of 51 bytes
  push_all(packetize(p.get(), 1, sent));
  const Popped got = pop(r);
  EXPECT_EQ(got.frame.size, 101u);
  EXPECT_EQ(got.bytes, sent);
  EXPECT_EQ(got.frame.data[101], 0);
}

TEST_F(ReassemblerTest, APaddedLastShardIsRebuiltToo) {
  auto datagrams = frame(1, 951);
  datagrams.erase(datagrams.begin() + 9);
  push_all(datagrams);
  EXPECT_EQ(pop(r).bytes, random_bytes(951, 1));
}

TEST_F(ReassemblerTest, ANinthFrameEvictsTheOldestThatIsOlder) {
  std::vector<std::vector<Bytes>> frames;
  for (std::uint32_t id = 0; id < 9; ++id) frames.push_back(frame(id, 1000));
  for (std::uint32_t id = 0; id < 8; ++id) push(r.get(), frames[id][0]);
  EXPECT_EQ(push(r.get(), frames[8][0]), 0);
  // Frame 8 has a slot: it completes with the rest of its shards.
  for (std::size_t i = 1; i < 10; ++i) push(r.get(), frames[8][i]);
  const Popped got = pop(r);
  ASSERT_TRUE(got.any);
  EXPECT_EQ(got.frame.frame_id, 8u);
  EXPECT_EQ(got.skipped, 8u);
  EXPECT_EQ(stats_of(r).frames_skipped, 8u);
}

TEST_F(ReassemblerTest, ANinthFrameThatIsTheOldestIsDropped) {
  std::vector<std::vector<Bytes>> frames;
  for (std::uint32_t id = 10; id < 19; ++id) frames.push_back(frame(id, 1000));
  push(r.get(), frames[0][0]);  // the start
  for (std::size_t i = 8; i >= 2; --i) push(r.get(), frames[i][0]);
  const auto before = stats_of(r);
  EXPECT_EQ(push(r.get(), frame(9, 1000)[0]), 0) << "the start moves back, but there is no room";
  EXPECT_EQ(stats_of(r).shards_received, before.shards_received);
  EXPECT_EQ(stats_of(r).shards_invalid, 0u);
}

TEST_F(ReassemblerTest, AnUnreadCompleteFrameThatIsEvictedIsLost) {
  push_all(frame(0, 100));
  for (std::uint32_t id = 1; id < 8; ++id) EXPECT_EQ(push(r.get(), frame(id, 1000)[0]), 1);
  EXPECT_EQ(push(r.get(), frame(8, 1000)[0]), 0) << "nothing is ready any more";
  EXPECT_FALSE(pop(r).any);
}

TEST_F(ReassemblerTest, ACompleteFrameLeavesNoRoomForOlderShards) {
  const auto nine = frame(9, 1000);
  push(r.get(), nine[0]);
  push_all(frame(10, 1000));
  EXPECT_EQ(pop(r).frame.frame_id, 10u);
  const auto before = stats_of(r);
  for (const auto& datagram : nine) EXPECT_EQ(push(r.get(), datagram), 0);
  EXPECT_EQ(stats_of(r).shards_received, before.shards_received);
  EXPECT_EQ(stats_of(r).shards_invalid, 0u);
}

TEST_F(ReassemblerTest, CompleteFramesArePoppedOldestFirst) {
  push_all(frame(3, 300));
  push_all(frame(5, 500));
  EXPECT_EQ(push_all(frame(6, 600)), 1);
  for (const std::uint32_t id : {3u, 5u, 6u}) {
    const Popped got = pop(r);
    EXPECT_EQ(got.frame.frame_id, id);
    EXPECT_EQ(got.skipped, id == 5 ? 1u : 0u);
    EXPECT_EQ(got.bytes, random_bytes(id * 100, id));
  }
  EXPECT_FALSE(pop(r).any);
  EXPECT_EQ(stats_of(r).frames_completed, 3u);
  EXPECT_EQ(stats_of(r).frames_skipped, 1u);
}

TEST_F(ReassemblerTest, ShardsOfACompleteFrameAreDroppedWithoutError) {
  const auto datagrams = frame(1, 1000);
  for (std::size_t i = 0; i < 10; ++i) push(r.get(), datagrams[i]);
  EXPECT_EQ(push(r.get(), datagrams[10]), 1) << "still unread";
  pop(r);
  EXPECT_EQ(push(r.get(), datagrams[11]), 0) << "late";
  EXPECT_EQ(stats_of(r).shards_received, 10u);
}

TEST_F(ReassemblerTest, LateParityOfAFinishedBlockIsCountedAndIgnored) {
  const auto datagrams = frame(1, 10'000);  // two blocks
  const auto m = header_of(datagrams[0]).parity_shards;
  for (std::size_t i = 0; i < 50u + m; ++i) EXPECT_EQ(push(r.get(), datagrams[i]), 0);
  EXPECT_EQ(stats_of(r).shards_received, 50u + m);
  for (std::size_t i = 50u + m; i < datagrams.size(); ++i) push(r.get(), datagrams[i]);
  EXPECT_EQ(pop(r).bytes, random_bytes(10'000, 1));
}

TEST_F(ReassemblerTest, FrameNumbersStayInOrderAcrossTheWrap) {
  for (const std::uint32_t id : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u}) push_all(frame(id, 200));
  for (const std::uint32_t id : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u}) {
    const Popped got = pop(r);
    EXPECT_EQ(got.frame.frame_id, id);
    EXPECT_EQ(got.skipped, 0u);
  }
  EXPECT_EQ(push_all(frame(0xFFFFFFFF, 200)), 0) << "late now";
  EXPECT_EQ(stats_of(r).frames_skipped, 0u);
}

TEST_F(ReassemblerTest, BeforeTheFirstFrameTheStartMovesBackUpToSevenFrames) {
  push(r.get(), frame(20, 1000)[0]);
  EXPECT_EQ(push_all(frame(12, 1000)), 0) << "8 older";
  EXPECT_EQ(push_all(frame(13, 1000)), 1) << "7 older";
  const Popped got = pop(r);
  EXPECT_EQ(got.frame.frame_id, 13u);
  EXPECT_EQ(got.skipped, 0u);
  EXPECT_EQ(stats_of(r).frames_skipped, 0u);
  EXPECT_EQ(push_all(frame(12, 1000)), 0) << "a frame has been completed";
}

TEST_F(ReassemblerTest, ACorruptGeometryIsInvalidAndLeavesAllAsItWas) {
  const auto datagrams = frame(3, 10'000);
  const Bytes& good = datagrams[0];
  std::vector<Bytes> bad = {
      {},
      Bytes(good.begin(), good.begin() + 41),
      with_byte(good, 0, 0x51),
      with_byte(good, 1, 2),
      with_byte(good, 2, 15),
      Bytes(good.begin(), good.end() - 1),
      with_byte(good, SHARD_SIZE, 99),
      with_byte(good, BLOCK_INDEX, 1),
      with_byte(good, BLOCK_INDEX, 2),
      with_byte(good, BLOCK_COUNT, 3),
      with_byte(good, SHARD_INDEX, 50 + header_of(good).parity_shards),
      with_byte(good, DATA_SHARDS, 0),
      with_byte(good, DATA_SHARDS, 49),
      with_byte(good, DATA_SHARDS, 65),
      with_byte(good, PARITY_SHARDS, 206),
      with_byte(good, BLOCK_OFFSET, 1),
      with_byte(good, FRAME_SIZE + 2, 1),
      with_byte(good, FRAME_SIZE + 3, 1),
  };
  bad.emplace_back(good);
  bad.back().push_back(0);
  Bytes empty_frame = with_byte(with_byte(good, FRAME_SIZE, 0), FRAME_SIZE + 1, 0);
  bad.push_back(empty_frame);
  Bytes empty_shard(good.begin(), good.begin() + 42);
  bad.push_back(with_byte(empty_shard, SHARD_SIZE, 0));

  push(r.get(), datagrams[1]);
  for (std::size_t i = 0; i < bad.size(); ++i)
    EXPECT_EQ(push(r.get(), bad[i]), -1) << "falsified header " << i;
  EXPECT_EQ(stats_of(r).shards_invalid, bad.size());
  EXPECT_EQ(stats_of(r).shards_received, 1u);
  push_all(datagrams);
  EXPECT_EQ(pop(r).bytes, random_bytes(10'000, 3));
}

TEST_F(ReassemblerTest, AShardAboveTheLongestIsInvalid) {
  Bytes datagram(42 + 1431);
  const Bytes good = packetize(make_packetizer(1472, 0, 0).get(), 1, Bytes(1430, 1))[0];
  std::copy(good.begin(), good.end(), datagram.begin());
  EXPECT_EQ(push(r.get(), good), 1);
  store_le(&datagram[SHARD_SIZE], std::uint16_t{1431});
  store_le(&datagram[FRAME_SIZE], std::uint32_t{1431});
  EXPECT_EQ(push(r.get(), datagram), -1);
}

TEST_F(ReassemblerTest, FramesAboveTheMaximumAreInvalid) {
  r = make_reassembler(1000);
  EXPECT_EQ(push(r.get(), frame(1, 1001)[0]), -1);
  EXPECT_EQ(push_all(frame(1, 1000)), 1);
}

TEST_F(ReassemblerTest, MoreBlocksThanTheirCountHoldsAreInvalid) {
  r = make_reassembler(0xFFFFFFFF);
  Bytes datagram = packetize(make_packetizer(43, 0, 0).get(), 1, Bytes(64, 1))[0];
  store_le(&datagram[FRAME_SIZE], std::uint32_t{65'536 * 64});
  store_le(&datagram[BLOCK_COUNT], std::uint16_t{0});
  EXPECT_EQ(push(r.get(), datagram), -1);
}

TEST_F(ReassemblerTest, ShardsOfOneFrameMustAgree) {
  const auto datagrams = frame(1, 1000);
  push(r.get(), datagrams[0]);
  for (const std::size_t field : {FLAGS, CAPTURE_TIME, CAPTURE_TIME + 7, ENCODE_TIME})
    EXPECT_EQ(push(r.get(), with_byte(datagrams[1], field, datagrams[1][field] ^ 1)), -1);
  EXPECT_EQ(push(r.get(), with_byte(datagrams[1], PARITY_SHARDS, 4)), -1) << "another m";
  EXPECT_EQ(push(r.get(), packetize(p.get(), 1, Bytes(999, 1))[1]), -1) << "another size";
  EXPECT_EQ(stats_of(r).shards_invalid, 6u);
  push_all(datagrams);
  EXPECT_EQ(pop(r).bytes, random_bytes(1000, 1));
}

TEST_F(ReassemblerTest, ShortMemoryDropsTheShardAndTheFrameMayComeAgain) {
  const auto datagrams = frame(1, 10'000);
  {
    const AllocationLimit short_memory(5'000);
    EXPECT_EQ(push(r.get(), datagrams[0]), 0);
  }
  EXPECT_EQ(stats_of(r).shards_received, 0u);
  EXPECT_EQ(stats_of(r).shards_invalid, 0u);
  EXPECT_EQ(push_all(datagrams), 1);
  EXPECT_EQ(pop(r).bytes, random_bytes(10'000, 1));
}

TEST_F(ReassemblerTest, OnceTheSlotsHaveGrownNothingIsAllocated) {
  std::vector<std::vector<Bytes>> frames;
  for (std::uint32_t id = 0; id < 200; ++id) {
    frames.push_back(frame(id, id % 40 == 0 ? 20'000 : 500 + id * 61 % 3'000));
    frames.back().erase(frames.back().begin());  // one shard lost
  }
  // Eight large frames at a time grow all the slots.
  for (std::uint32_t id = 0; id < 8; ++id) push(r.get(), frame(id - 8, 20'000)[0]);
  lund_reassembled_frame got;
  const AllocationCount allocations;
  for (const auto& datagrams : frames) {
    for (const auto& datagram : datagrams) push(r.get(), datagram);
    ASSERT_EQ(lund_reassembler_pop(r.get(), &got, nullptr), 1);
  }
  EXPECT_EQ(allocations.count(), 0u);
}

}  // namespace
