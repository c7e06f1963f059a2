// The receiving half, against a peer made by hand: gaps, answers, what replaces and outlives what.
#include "streams/clipboard_receive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "tests/streams/clipboard_rig.h"
#include "tests/support/allocation_counter.h"

namespace {

using namespace clipboard_rig;
using testing::ElementsAre;
using testing::IsEmpty;

using Ranges = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset, length

class ClipboardReceive : public testing::Test {
 protected:
  ClipboardReceive() {
    virtual_time::reset();
    make();
  }
  void make(std::uint64_t mtu = MTU) { end.emplace(0, mtu); }

  void chunk(std::uint32_t offset, std::uint32_t length, std::uint32_t id = 1,
             std::uint8_t kind = LUND_CLIP_PNG) {
    EXPECT_EQ(end->receive(chunk_packet(item, offset, length, id, kind)), 1);
  }
  void tail(std::uint32_t id = 1, std::uint8_t kind = LUND_CLIP_PNG) {
    chunk(static_cast<std::uint32_t>(item.size()) - 10, 10, id, kind);
  }
  void whole(std::uint32_t id = 1) { chunk(0, static_cast<std::uint32_t>(item.size()), id); }

  // The one answer sent since the last call.
  lund_clipboard_ack answer() {
    const auto packets = end->take();
    EXPECT_EQ(packets.size(), 1u);
    return packets.size() == 1 ? ack_of(packets[0]) : lund_clipboard_ack{};
  }
  Ranges gaps() {
    const lund_clipboard_ack ack = answer();
    EXPECT_EQ(ack.status, CLIP_MISSING);
    Ranges ranges;
    for (int i = 0; i < ack.range_count; ++i)
      ranges.emplace_back(ack.ranges[i].offset, ack.ranges[i].length);
    return ranges;
  }

  std::optional<End> end;
  Bytes item = item_of(1'000);
};

TEST_F(ClipboardReceive, OtherPacketsAreNotItsOwn) {
  const Bytes pong = {0x50, 1, LUND_PKT_PONG, 0, 0, 0, 0, 0};
  EXPECT_EQ(end->receive(pong), 0);
  EXPECT_EQ(end->receive({0x50, 1, LUND_PKT_CLIPBOARD, 0}), 0);  // shorter than a header
  EXPECT_EQ(end->receive({0x50, 2, LUND_PKT_CLIPBOARD, 0, 0, 0, 0, 0}), 0);  // sealed
  EXPECT_EQ(lund_clip_receive(end->clip, nullptr, 0), 0);
  const Bytes packet = chunk_packet(item, 0, 10);
  EXPECT_EQ(lund_clip_receive(nullptr, packet.data(), packet.size()), 0);
}

TEST_F(ClipboardReceive, MalformedPacketsOfItsTypesAreTakenAndIgnored) {
  EXPECT_EQ(end->receive({0x50, 1, LUND_PKT_CLIPBOARD, 0, 0x44, 0x33, 0x22, 0x11}), 1);
  EXPECT_EQ(end->receive({0x50, 1, LUND_PKT_CLIPBOARD_ACK, 0, 0x44, 0x33, 0x22, 0x11}), 1);
  Bytes beyond = chunk_packet(item, 990, 10);
  beyond.push_back(0);  // a byte more than the item has
  EXPECT_EQ(end->receive(beyond), 1);
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_THAT(end->log, IsEmpty());
}

TEST_F(ClipboardReceive, ChunksInAnyOrderMakeTheItem) {
  chunk(500, 490);
  chunk(0, 200);
  virtual_time::advance_ms(12);
  chunk(990, 10);
  EXPECT_EQ(gaps(), (Ranges{{200, 300}}));
  chunk(200, 300);
  ASSERT_EQ(end->items.size(), 1u);
  EXPECT_EQ(end->items[0].bytes, item);
  const lund_clipboard_ack ack = answer();
  EXPECT_EQ(ack.id, 1u);
  EXPECT_EQ(ack.status, CLIP_COMPLETE);
  EXPECT_EQ(ack.range_count, 0);
  EXPECT_THAT(end->log, ElementsAre("clipboard: received #1 PNG, 1000 B in 12 ms"));
}

TEST_F(ClipboardReceive, OfAPassLostButForTheTailOneGapFrom0IsAnswered) {
  tail();
  EXPECT_EQ(gaps(), (Ranges{{0, 990}}));
}

TEST_F(ClipboardReceive, OnlyTheEndOfTheItemAsksForAnAnswer) {
  chunk(0, 100);
  chunk(200, 789);
  EXPECT_THAT(end->sent, IsEmpty());
  chunk(995, 5);
  EXPECT_EQ(gaps(), (Ranges{{100, 100}, {989, 6}}));
}

TEST_F(ClipboardReceive, AnEmptyChunkAtTheEndAsksToo) {
  chunk(1'000, 0);
  EXPECT_EQ(gaps(), (Ranges{{0, 1'000}}));
}

TEST_F(ClipboardReceive, RepeatedAndOverlappingChunksCountOnce) {
  for (int i = 0; i < 5; ++i) chunk(0, 400);
  for (int i = 0; i < 5; ++i) chunk(300, 300);
  tail();
  EXPECT_EQ(gaps(), (Ranges{{600, 390}}));
  EXPECT_THAT(end->items, IsEmpty());
  chunk(600, 390);
  ASSERT_EQ(end->items.size(), 1u);
  EXPECT_EQ(end->items[0].bytes, item);
}

TEST_F(ClipboardReceive, ARepeatedProbeAfterCompletionGetsTheStoredAnswerAndNoNewDelivery) {
  whole();
  answer();
  for (int i = 0; i < 3; ++i) {
    tail();
    EXPECT_EQ(answer().status, CLIP_COMPLETE);
  }
  chunk(0, 500);  // a late duplicate asks nothing
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_EQ(end->items.size(), 1u);
  EXPECT_EQ(end->log.size(), 1u);
}

TEST_F(ClipboardReceive, TheAnswerOfTheLastItemIsRepeatedWhileTheNextArrives) {
  whole(1);
  answer();
  chunk(0, 100, 2);
  tail(1);
  EXPECT_EQ(answer().id, 1u);
  tail(2);
  EXPECT_EQ(answer().id, 2u);
}

// --- rejections

TEST_F(ClipboardReceive, TextAboveItsLimitIsRejected) {
  item = item_of(1'048'577);
  chunk(0, 1'000, 7, LUND_CLIP_TEXT);
  EXPECT_THAT(end->log, ElementsAre("clipboard: rejecting #7: text of 1048577 B"));
  const lund_clipboard_ack ack = answer();
  EXPECT_EQ(ack.id, 7u);
  EXPECT_EQ(ack.status, CLIP_REJECTED);
  EXPECT_EQ(ack.range_count, 0);
}

TEST_F(ClipboardReceive, ItemsOfExactlyTheLimitsAreTaken) {
  item = item_of(1'048'576);
  tail(1, LUND_CLIP_TEXT);
  EXPECT_EQ(gaps(), (Ranges{{0, 1'048'566}}));
  item = item_of(16'777'216);
  tail(2);
  EXPECT_EQ(gaps(), (Ranges{{0, 16'777'206}}));
}

TEST_F(ClipboardReceive, AnImageAboveTheLimitDoesNotEvenDecode) {
  Bytes packet = chunk_packet(item, 0, 100);
  packet[13] = 1, packet[14] = 0, packet[15] = 0, packet[16] = 1;  // a total of 16,777,217
  EXPECT_EQ(end->receive(packet), 1);
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_THAT(end->log, IsEmpty());
}

TEST_F(ClipboardReceive, AnUnknownKindIsRejectedAndItsProbesAreAnsweredWithTheSame) {
  chunk(0, 100, 1, 3);
  EXPECT_EQ(answer().status, CLIP_REJECTED);
  chunk(100, 100, 1, 3);
  EXPECT_THAT(end->sent, IsEmpty());
  tail(1, 3);
  EXPECT_EQ(answer().status, CLIP_REJECTED);
  EXPECT_THAT(end->log, ElementsAre("clipboard: rejecting #1: ? of 1000 B"));
}

TEST_F(ClipboardReceive, ANewerItemThatIsRejectedStillReplacesThePartialOne) {
  chunk(0, 100);
  chunk(0, 100, 2, 9);
  EXPECT_THAT(end->log, ElementsAre("clipboard: incoming #1 (100 of 1000 B) replaced by #2",
                                    "clipboard: rejecting #2: ? of 1000 B"));
  EXPECT_EQ(answer().status, CLIP_REJECTED);
  chunk(100, 900, 1);
  EXPECT_THAT(end->items, IsEmpty());
}

TEST_F(ClipboardReceive, ShortOfMemoryAnItemIsRejected) {
  item = item_of(1'000'000);
  const Bytes packet = chunk_packet(item, 0, 1'000);
  {
    const AllocationLimit limit(100'000);
    EXPECT_EQ(end->receive(packet), 1);
  }
  EXPECT_THAT(end->log, ElementsAre("clipboard: rejecting #1: out of memory for 1000000 B"));
  EXPECT_EQ(answer().status, CLIP_REJECTED);
  item = item_of(1'000);
  whole(2);
  EXPECT_EQ(end->items.size(), 1u);
}

// --- which item

TEST_F(ClipboardReceive, ANewerItemReplacesThePartialOne) {
  chunk(0, 300);
  const Bytes first = std::exchange(item, item_of(800, 2));
  chunk(0, 700, 2);
  EXPECT_THAT(end->log, ElementsAre("clipboard: incoming #1 (300 of 1000 B) replaced by #2"));
  EXPECT_EQ(end->receive(chunk_packet(first, 300, 700, 1)), 1);  // an older one is ignored now
  EXPECT_THAT(end->sent, IsEmpty());
  chunk(700, 100, 2);
  ASSERT_EQ(end->items.size(), 1u);
  EXPECT_EQ(end->items[0].bytes, item);
}

TEST_F(ClipboardReceive, AnItemOlderThanTheLastThatEndedIsIgnored) {
  whole(5);
  answer();
  whole(4);
  tail(0x80000006);  // behind by half the circle less one
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_EQ(end->items.size(), 1u);
}

TEST_F(ClipboardReceive, IdsWrap) {
  chunk(0, 100, 0xFFFFFFFF);
  chunk(0, 100, 1);
  EXPECT_THAT(end->log,
              ElementsAre("clipboard: incoming #4294967295 (100 of 1000 B) replaced by #1"));
  whole(1);
  answer();
  whole(0xFFFFFFFF);
  EXPECT_THAT(end->sent, IsEmpty());
}

TEST_F(ClipboardReceive, AChunkOfAnotherKindOrTotalThanItsItemIsIgnored) {
  chunk(0, 990);
  chunk(990, 10, 1, LUND_CLIP_TEXT);
  const Bytes longer = item_of(1'100);
  EXPECT_EQ(end->receive(chunk_packet(longer, 990, 110)), 1);
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_THAT(end->items, IsEmpty());
  tail();
  EXPECT_EQ(end->items.size(), 1u);
}

TEST_F(ClipboardReceive, ALocalCopyMadeWhileAnItemArrivesBeatsItAndThePeerStillSeesDelivered) {
  chunk(0, 990);
  virtual_time::advance_us(1);
  end->offer(item_of(5), LUND_CLIP_TEXT);
  end->log.clear();
  tail();
  EXPECT_THAT(end->items, IsEmpty());
  EXPECT_EQ(answer().status, CLIP_COMPLETE);
  EXPECT_THAT(end->log,
              ElementsAre("clipboard: received #1 PNG, 1000 B in 0 ms; not applied (something "
                          "newer was copied here meanwhile)"));
  tail();
  EXPECT_EQ(answer().status, CLIP_COMPLETE);
}

TEST_F(ClipboardReceive, ALocalCopyMadeBeforeAnItemArrivesDoesNotBeatIt) {
  end->offer(item_of(5), LUND_CLIP_TEXT);
  whole();  // in the very same microsecond
  EXPECT_EQ(end->items.size(), 1u);
}

// --- sessions

TEST_F(ClipboardReceive, PacketsOfAnotherSessionAreIgnored) {
  EXPECT_EQ(end->receive(chunk_packet(item, 0, 1'000, 1, LUND_CLIP_PNG, SESSION + 1)), 1);
  EXPECT_EQ(end->receive(chunk_packet(item, 0, 1'000, 1, LUND_CLIP_PNG, 0)), 1);
  EXPECT_THAT(end->sent, IsEmpty());
}

TEST_F(ClipboardReceive, WithoutASessionPacketsThatNameNoneAreIgnoredToo) {
  make(0);
  EXPECT_EQ(end->receive(chunk_packet(item, 0, 1'000, 1, LUND_CLIP_PNG, 0)), 1);
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_THAT(end->items, IsEmpty());
}

TEST_F(ClipboardReceive, AnotherSessionForgetsThePartialItemAndTheLastAnswer) {
  whole(5);
  chunk(0, 400, 6);
  end->take();
  lund_clip_set_session(end->clip, SESSION + 1, MTU);
  const auto send = [&](std::uint32_t offset, std::uint32_t length, std::uint32_t id) {
    end->receive(chunk_packet(item, offset, length, id, LUND_CLIP_PNG, SESSION + 1));
  };
  send(990, 10, 5);  // an id that had ended is a new item now
  EXPECT_EQ(gaps(), (Ranges{{0, 990}}));
  send(990, 10, 6);
  EXPECT_EQ(gaps(), (Ranges{{0, 990}}));
}

TEST_F(ClipboardReceive, AnotherPacketSizeForgetsThePartialItem) {
  chunk(0, 400);
  lund_clip_set_session(end->clip, SESSION, MTU - 200);
  tail();
  EXPECT_EQ(gaps(), (Ranges{{0, 990}}));
}

TEST_F(ClipboardReceive, TheSameSessionAgainForgetsNothing) {
  chunk(0, 400);
  lund_clip_set_session(end->clip, SESSION, MTU);
  tail();
  EXPECT_EQ(gaps(), (Ranges{{400, 590}}));
}

// --- the answer

TEST_F(ClipboardReceive, TheAnswerListsAsManyGapsAsThePathsPacketHolds) {
  item = item_of(10'000);
  for (const auto& [mtu, room] :
       {std::pair{1u, 1u}, std::pair{14u, 1u}, std::pair{29u, 1u}, std::pair{30u, 2u},
        std::pair{37u, 2u}, std::pair{525u, 63u}, std::pair{526u, 64u}, std::pair{1'472u, 64u}}) {
    make(mtu);
    for (std::uint32_t at = 0; at < 10'000; at += 100) chunk(at, 50);
    chunk(9'990, 10);
    const auto packets = end->take();
    ASSERT_EQ(packets.size(), 1u);
    const lund_clipboard_ack ack = ack_of(packets[0]);
    EXPECT_EQ(ack.range_count, room) << "at " << mtu;
    EXPECT_EQ(packets[0].size(), 14 + 8 * room);
    EXPECT_EQ(ack.ranges[room - 1].offset, 100 * room - 50);
    EXPECT_EQ(ack.ranges[room - 1].length, 50u);
  }
}

TEST_F(ClipboardReceive, TheAnswerNamesTheSession) {
  tail();
  lund_packet_header header;
  ASSERT_EQ(lund_decode_header(end->sent.at(0).data(), end->sent.at(0).size(), &header), 0);
  EXPECT_EQ(header.session_id, SESSION);
  EXPECT_EQ(header.flags, 0);
}

// --- what it costs

TEST_F(ClipboardReceive, NothingIsAllocatedForAChunkButTheFirst) {
  item = item_of(100 * CHUNK);
  std::vector<Bytes> packets;
  for (std::uint32_t i = 0; i < 100; ++i) packets.push_back(chunk_packet(item, i * CHUNK, CHUNK));
  end->receive(packets[0]);
  const AllocationCount allocations;
  for (std::size_t i = 1; i < 99; ++i) lund_clip_receive(end->clip, packets[i].data(), CHUNK + 21);
  EXPECT_EQ(allocations.count(), 0u);
  end->receive(packets[99]);
  EXPECT_EQ(end->items.size(), 1u);
}

// --- callbacks

void ignore(void*, const std::uint8_t*, std::uint64_t) {}

TEST_F(ClipboardReceive, WithoutOthersThanSendItWorksToo) {
  const lund_clip_config config{.send = ignore};
  lund_clip* clip = lund_clip_create_stepped(&config);
  lund_clip_set_session(clip, SESSION, MTU);
  const Bytes packet = chunk_packet(item, 0, 1'000);
  EXPECT_EQ(lund_clip_receive(clip, packet.data(), packet.size()), 1);
  EXPECT_NE(lund_clip_offer(clip, LUND_CLIP_PNG, item.data(), item.size()), 0u);
  lund_clip_destroy(clip);
}

TEST_F(ClipboardReceive, WhoeverTakesAnItemMayUseTheEngine) {
  struct Echo {
    lund_clip* clip;
    std::uint32_t offered;
  } echo{};
  const lund_clip_config config{
      .send = ignore,
      .on_data =
          [](void* user, std::uint32_t, std::uint8_t kind, std::uint8_t* data, std::uint64_t size) {
            Echo& e = *static_cast<Echo*>(user);
            e.offered = lund_clip_offer(e.clip, kind, data, size);
            lund_clip_set_session(e.clip, SESSION + 1, MTU);
            lund_clip_free(data);
          },
      .user = &echo};
  echo.clip = lund_clip_create_stepped(&config);
  lund_clip_set_session(echo.clip, SESSION, MTU);
  const Bytes packet = chunk_packet(item, 0, 1'000);
  lund_clip_receive(echo.clip, packet.data(), packet.size());
  EXPECT_EQ(echo.offered, 1u);
  lund_clip_destroy(echo.clip);
}

}  // namespace
