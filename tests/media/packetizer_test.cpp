#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "media/video_transport.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/video_frames.h"

namespace {

using namespace video_frames;

std::int32_t count_only(void* count, const std::uint8_t*, std::uint64_t) {
  ++*static_cast<std::uint64_t*>(count);
  return 0;
}

std::int64_t send_size(lund_packetizer* p, std::uint64_t size, std::uint64_t* sent) {
  const Bytes frame(size, 1);
  const lund_frame_info info = info_of(1);
  const std::uint8_t something = 0;
  return lund_packetizer_send_frame(p, 7, &info, size == 0 ? &something : frame.data(), size,
                                    count_only, sent);
}

// The data shards of each block and its parity shards, as the headers say.
std::map<int, std::pair<int, int>> blocks_of(const std::vector<Bytes>& datagrams) {
  std::map<int, std::pair<int, int>> blocks;
  for (const auto& datagram : datagrams) {
    const auto header = header_of(datagram);
    blocks[header.block_index] = {header.data_shards, header.parity_shards};
  }
  return blocks;
}

TEST(Packetizer, DatagramSizesOutOfRangeGiveNone) {
  EXPECT_EQ(lund_packetizer_create(42, 0, 0), nullptr);
  EXPECT_EQ(lund_packetizer_create(1473, 0, 0), nullptr);
  EXPECT_EQ(lund_packetizer_create(0, 0, 0), nullptr);
  EXPECT_EQ(lund_packetizer_create(UINT64_MAX, 0, 0), nullptr);
  EXPECT_NE(make_packetizer(1472, 0, 0), nullptr);
}

TEST(Packetizer, TheSmallestDatagramCarriesOneByte) {
  const auto p = make_packetizer(43, 0, 0);
  ASSERT_NE(p, nullptr);
  const auto datagrams = packetize(p.get(), 1, {10, 20, 30});
  ASSERT_EQ(datagrams.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(header_of(datagrams[i]).shard_size, 1);
    ASSERT_EQ(datagrams[i].size(), 43u);
    EXPECT_EQ(datagrams[i][42], 10 * (i + 1));
  }
}

TEST(Packetizer, ShortMemoryGivesNone) {
  for (const std::size_t limit : {std::size_t{8}, std::size_t{1000}, std::size_t{100'000}}) {
    const AllocationLimit short_memory(limit);
    EXPECT_EQ(lund_packetizer_create(1472, 20, 2), nullptr) << "limit " << limit;
  }
}

TEST(Packetizer, NullIsIgnoredByDestroyAndSetFec) {
  lund_packetizer_destroy(nullptr);
  lund_packetizer_set_fec(nullptr, 10, 2);
}

TEST(Packetizer, WritesTheHeaderFieldByField) {
  const auto p = make_packetizer(1472, 20, 2);
  const Bytes frame = random_bytes(100'000, 1);
  const lund_frame_info info{.frame_id = 0x01020304,
                             .flags = 1,
                             .capture_time_us = 0x1112131415161718,
                             .encode_time_us = 0x21222324};
  std::vector<Bytes> datagrams;
  EXPECT_EQ(lund_packetizer_send_frame(p.get(), 0xA1A2A3A4, &info, frame.data(), frame.size(),
                                       collect, &datagrams),
            84);
  // Two blocks of 35 data shards of 1429 bytes, and 7 parity shards; the first of the second block.
  const Bytes header = {0x50, 1,    16,   0,    0xA4, 0xA3, 0xA2, 0xA1,  //
                        0x04, 0x03, 0x02, 0x01, 1,    0,    2,    0,     //
                        0,    35,   7,    1,    0x95, 0x05,              //
                        0xA0, 0x86, 0x01, 0x00, 0x5F, 0xC3, 0x00, 0x00,  //
                        0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  //
                        0x24, 0x23, 0x22, 0x21};
  ASSERT_EQ(datagrams.size(), 84u);
  EXPECT_EQ(Bytes(datagrams[42].begin(), datagrams[42].begin() + 42), header);
  EXPECT_EQ(datagrams[42 + 35][16], 35) << "parity is numbered behind the data";
  EXPECT_EQ(datagrams[42 + 41][16], 41);
  for (const auto& datagram : datagrams) EXPECT_EQ(datagram.size(), 1471u);
}

TEST(Packetizer, DataLeavesBeforeParityAndBlocksInOrder) {
  const auto p = make_packetizer(142, 10, 2);
  const Bytes frame = random_bytes(15'000, 2);
  const auto datagrams = packetize(p.get(), 1, frame);
  int block = 0;
  int shard = 0;
  for (const auto& datagram : datagrams) {
    const auto header = header_of(datagram);
    ASSERT_EQ(header.block_index, block);
    ASSERT_EQ(header.shard_index, shard);
    if (shard < header.data_shards) {
      const std::size_t offset = header.block_offset + std::size_t(shard) * header.shard_size;
      ASSERT_EQ(Bytes(datagram.begin() + 42, datagram.end()),
                Bytes(frame.begin() + static_cast<std::ptrdiff_t>(offset),
                      frame.begin() + static_cast<std::ptrdiff_t>(offset) + header.shard_size));
    }
    if (++shard == header.data_shards + header.parity_shards) {
      ++block;
      shard = 0;
    }
  }
  EXPECT_EQ(block, 3);
}

TEST(Packetizer, AFrameOfOneByteIsOneShardAndItsParity) {
  const auto p = make_packetizer(1400, 20, 2);
  const auto datagrams = packetize(p.get(), 1, {0xAB});
  ASSERT_EQ(datagrams.size(), 3u);
  for (const auto& datagram : datagrams) EXPECT_EQ(datagram.size(), 43u);
  const auto header = header_of(datagrams[0]);
  EXPECT_EQ(header.block_count, 1);
  EXPECT_EQ(header.data_shards, 1);
  EXPECT_EQ(header.parity_shards, 2);
}

TEST(Packetizer, AFullPayloadIsOneShardWithoutPadding) {
  const auto p = make_packetizer(142, 0, 0);
  const Bytes frame = random_bytes(100, 3);
  const auto datagrams = packetize(p.get(), 1, frame);
  ASSERT_EQ(datagrams.size(), 1u);
  EXPECT_EQ(Bytes(datagrams[0].begin() + 42, datagrams[0].end()), frame);
}

TEST(Packetizer, OneByteMoreThanAPayloadIsTwoEvenShards) {
  const auto p = make_packetizer(142, 0, 0);
  const Bytes frame = random_bytes(101, 4);
  const auto datagrams = packetize(p.get(), 1, frame);
  ASSERT_EQ(datagrams.size(), 2u);
  for (const auto& datagram : datagrams) EXPECT_EQ(header_of(datagram).shard_size, 51);
  EXPECT_EQ(Bytes(datagrams[1].begin() + 42, datagrams[1].end() - 1),
            Bytes(frame.begin() + 51, frame.end()));
  EXPECT_EQ(datagrams[1].back(), 0) << "the padding is zero";
}

TEST(Packetizer, ThePaddingIsZeroAfterAFrameThatFilledIt) {
  const auto p = make_packetizer(142, 0, 0);
  packetize(p.get(), 1, Bytes(199, 0xFF));
  const auto datagrams = packetize(p.get(), 2, Bytes(101, 0xFF));
  EXPECT_EQ(datagrams[1].back(), 0);
}

TEST(Packetizer, SixtyFiveShardsAreTwoEvenBlocks) {
  const auto p = make_packetizer(43, 0, 0);
  const auto blocks = blocks_of(packetize(p.get(), 1, Bytes(65, 1)));
  EXPECT_EQ(blocks, (std::map<int, std::pair<int, int>>{{0, {33, 0}}, {1, {32, 0}}}));
}

TEST(Packetizer, ParityIsLimitedToWhatTheCodeHas) {
  const auto p = make_packetizer(52, 1000, 0);
  EXPECT_EQ(blocks_of(packetize(p.get(), 1, Bytes(640, 1))).at(0), std::make_pair(64, 191));
}

TEST(Packetizer, ParityIsTheGreaterOfPercentageAndMinimum) {
  const auto parity_of = [](int percent, int minimum, std::size_t shards) {
    const auto p = make_packetizer(43, percent, minimum);
    return blocks_of(packetize(p.get(), 1, Bytes(shards, 1))).at(0).second;
  };
  EXPECT_EQ(parity_of(0, 0, 10), 0);
  EXPECT_EQ(parity_of(1, 0, 10), 1) << "rounded up";
  EXPECT_EQ(parity_of(20, 2, 35), 7);
  EXPECT_EQ(parity_of(20, 2, 3), 2);
  EXPECT_EQ(parity_of(-5, -5, 10), 0) << "a negative setting counts as 0";
  EXPECT_EQ(parity_of(2000, 0, 5), 50) << "the percentage is limited to 1000";
  EXPECT_EQ(parity_of(0, 1000, 1), 254);
}

TEST(Packetizer, SetFecHoldsFromTheNextFrame) {
  const auto p = make_packetizer(43, 0, 0);
  EXPECT_EQ(packetize(p.get(), 1, Bytes(10, 1)).size(), 10u);
  lund_packetizer_set_fec(p.get(), 50, 2);
  EXPECT_EQ(packetize(p.get(), 2, Bytes(10, 1)).size(), 15u);
}

TEST(Packetizer, AnEmptyFrameIsRefusedWithoutACall) {
  const auto p = make_packetizer(1400, 20, 2);
  std::uint64_t sent = 0;
  EXPECT_EQ(send_size(p.get(), 0, &sent), -1);
  EXPECT_EQ(sent, 0u);
  EXPECT_EQ(send_size(p.get(), 1, &sent), 3) << "the next frame goes on as usual";
}

TEST(Packetizer, NullArgumentsAreRefusedWithoutACall) {
  const auto p = make_packetizer(1400, 20, 2);
  const lund_frame_info info = info_of(1);
  const std::uint8_t byte = 0;
  std::uint64_t sent = 0;
  const auto send = lund_packetizer_send_frame;
  EXPECT_EQ(send(nullptr, 7, &info, &byte, 1, count_only, &sent), -1);
  EXPECT_EQ(send(p.get(), 7, nullptr, &byte, 1, count_only, &sent), -1);
  EXPECT_EQ(send(p.get(), 7, &info, nullptr, 1, count_only, &sent), -1);
  EXPECT_EQ(send(p.get(), 7, &info, &byte, 1, nullptr, &sent), -1);
  EXPECT_EQ(send(p.get(), 7, &info, &byte, std::uint64_t{UINT32_MAX} + 1, count_only, &sent), -1);
  EXPECT_EQ(sent, 0u);
}

TEST(Packetizer, AsManyBlocksAsTheirCountHoldsAndNotOneMore) {
  const auto p = make_packetizer(43, 0, 0);
  std::uint64_t sent = 0;
  EXPECT_EQ(send_size(p.get(), 65'535 * 64 + 1, &sent), -1);
  EXPECT_EQ(sent, 0u);
  EXPECT_EQ(send_size(p.get(), 65'535 * 64, &sent), 65'535 * 64);
}

TEST(Packetizer, ADatagramThatCannotBeSentDoesNotStopTheFrame) {
  const auto p = make_packetizer(142, 0, 2);
  const lund_frame_info info = info_of(1);
  const Bytes frame(1000, 1);
  int calls = 0;
  const auto failing = [](void* count, const std::uint8_t*, std::uint64_t) -> std::int32_t {
    ++*static_cast<int*>(count);
    return -1;
  };
  EXPECT_EQ(
      lund_packetizer_send_frame(p.get(), 7, &info, frame.data(), frame.size(), failing, &calls),
      12);
  EXPECT_EQ(calls, 12);
}

TEST(Packetizer, SendingAFrameAllocatesNothing) {
  const auto p = make_packetizer(1376, 20, 2);
  const Bytes frame = random_bytes(300'001, 5);
  const lund_frame_info info = info_of(1);
  std::uint64_t sent = 0;
  const AllocationCount allocations;
  lund_packetizer_send_frame(p.get(), 7, &info, frame.data(), frame.size(), count_only, &sent);
  EXPECT_GT(sent, 200u);
  EXPECT_EQ(allocations.count(), 0u);
}

}  // namespace
