// Two ends of the clipboard beside each other: whole transfers, and what the interface promises.
#include "streams/clipboard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "tests/streams/clipboard_rig.h"

namespace {

using namespace clipboard_rig;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

class Clipboard : public testing::Test {
 protected:
  Clipboard() {
    virtual_time::reset();
    a.emplace();
    b.emplace();
  }
  // Runs both until the sender has nothing to send any more.
  void transfer() {
    for (int i = 0; i < 100'000 && !a->idle(); ++i) {
      a->run_for_ms(1);
      exchange(*a, *b);
    }
    EXPECT_TRUE(a->idle());
  }

  std::optional<End> a, b;
};

TEST_F(Clipboard, AnItemSmallerThanAChunkIsOnePacketAndItsAnswerCompletesIt) {
  const Bytes text = {'h', 'e', 'l', 'l', 'o'};
  EXPECT_EQ(a->offer(text, LUND_CLIP_TEXT), 1u);
  EXPECT_EQ(lund_clip_step(a->clip), 0u);
  ASSERT_EQ(a->sent.size(), 1u);
  EXPECT_EQ(chunk_of(a->sent[0]).bytes, text);
  virtual_time::advance_ms(7);
  exchange(*a, *b);
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_EQ(b->items[0].id, 1u);
  EXPECT_EQ(b->items[0].kind, LUND_CLIP_TEXT);
  EXPECT_EQ(b->items[0].bytes, text);
  EXPECT_TRUE(a->idle());
  EXPECT_THAT(a->log, ElementsAre("clipboard: sending #1 text, 5 B",
                                  "clipboard: #1 text, 5 B delivered in 7 ms (1 pass)"));
  EXPECT_THAT(b->log, ElementsAre("clipboard: received #1 text, 5 B in 0 ms"));
}

TEST_F(Clipboard, TheLargestItemsPass) {
  for (const auto& [kind, size] :
       {std::pair{LUND_CLIP_TEXT, 1'048'576u}, std::pair{LUND_CLIP_PNG, 16'777'216u}}) {
    const Bytes item = item_of(size);
    ASSERT_NE(a->offer(item, kind), 0u);
    transfer();
    ASSERT_FALSE(b->items.empty());
    EXPECT_EQ(b->items.back().kind, kind);
    EXPECT_TRUE(b->items.back().bytes == item);
  }
  EXPECT_EQ(b->items.size(), 2u);
}

TEST_F(Clipboard, OfAPassLostButForTheTailTheAnswerIsOneGapFrom0) {
  const Bytes item = item_of(20 * CHUNK);
  a->offer(item);
  const auto chunks = a->pass();
  b->receive(chunk_packet(item, chunks.back().chunk.offset, CHUNK));
  ASSERT_EQ(b->sent.size(), 1u);
  const lund_clipboard_ack ack = ack_of(b->sent[0]);
  ASSERT_EQ(ack.range_count, 1);
  EXPECT_EQ(ack.ranges[0].offset, 0u);
  EXPECT_EQ(ack.ranges[0].length, 19 * CHUNK);
  transfer();
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_TRUE(b->items[0].bytes == item);
  EXPECT_THAT(a->log.back(), EndsWith("(2 passes)"));
}

TEST_F(Clipboard, OfAPassLostWithItsTailAProbeBringsTheAnswer) {
  const Bytes item = item_of(20 * CHUNK);
  a->offer(item);
  a->pass();  // none of it arrives
  transfer();
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_TRUE(b->items[0].bytes == item);
  EXPECT_THAT(a->log.back(), EndsWith("(2 passes)"));
}

TEST_F(Clipboard, AnAnswerThatIsLostIsAskedForAgain) {
  a->offer(item_of(100));
  a->pass();
  b->receive(chunk_packet(item_of(100), 0, 100));
  b->take();  // lost
  EXPECT_EQ(b->items.size(), 1u);
  transfer();
  EXPECT_EQ(b->items.size(), 1u);
  EXPECT_THAT(a->log.back(), StartsWith("clipboard: #1 PNG, 100 B delivered in "));
}

TEST_F(Clipboard, MoreGapsThanAnAnswerHoldsTakeAsManyPassesAsThatNeeds) {
  const Bytes item = item_of(300 * CHUNK);
  a->offer(item);
  const auto chunks = a->pass();
  for (std::size_t i = 1; i < chunks.size(); i += 2)  // each second is lost, 150 gaps
    b->receive(chunk_packet(item, chunks[i].chunk.offset, CHUNK));
  std::vector<std::size_t> passes;
  while (b->items.empty()) {
    for (const Bytes& ack : b->take()) a->receive(ack);
    const auto repeated = a->pass();
    passes.push_back(repeated.size());
    for (const Chunk& c : repeated)
      b->receive(chunk_packet(item, c.chunk.offset, static_cast<std::uint32_t>(c.bytes.size())));
  }
  EXPECT_THAT(passes, ElementsAre(65u, 65u, 23u));  // 64, 64 and 22 gaps, each with the tail
  EXPECT_TRUE(b->items[0].bytes == item);
}

TEST_F(Clipboard, AtASmallPacketSizeTheAnswersRoomIsSmallAndTheItemArrivesAllTheSame) {
  a.emplace(0, 37);
  b.emplace(0, 37);
  const Bytes item = item_of(40 * 16);
  a->offer(item);
  const auto chunks = a->pass();
  for (std::size_t i = 1; i < chunks.size(); i += 2)
    b->receive(chunk_packet(item, chunks[i].chunk.offset, 16));
  transfer();
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_TRUE(b->items[0].bytes == item);
  EXPECT_THAT(a->log.back(), EndsWith("(11 passes)"));  // 20 gaps, two an answer
}

TEST_F(Clipboard, AnOfferDuringATransferReplacesItAtBothEnds) {
  a->offer(item_of(100 * CHUNK));
  for (int i = 0; i < 5; ++i) lund_clip_step(a->clip);
  exchange(*a, *b);
  const Bytes second = item_of(100, 2);
  EXPECT_EQ(a->offer(second, LUND_CLIP_TEXT), 2u);
  transfer();
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_EQ(b->items[0].id, 2u);
  EXPECT_EQ(b->items[0].bytes, second);
  EXPECT_EQ(a->logged("clipboard: #1 superseded before it was acknowledged"), 1);
  EXPECT_EQ(b->logged("clipboard: incoming #1 (6775 of 135500 B) replaced by #2"), 1);
}

TEST_F(Clipboard, ItemsCrossBothWays) {
  const Bytes there = item_of(50'000, 1), back = item_of(60'000, 2);
  a->offer(there);
  transfer();
  b->offer(back);
  for (int i = 0; i < 1'000 && !b->idle(); ++i) {
    b->run_for_ms(1);
    exchange(*a, *b);
  }
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_EQ(b->items[0].bytes, there);
  ASSERT_EQ(a->items.size(), 1u);
  EXPECT_EQ(a->items[0].bytes, back);
}

TEST_F(Clipboard, CopiesMadeAtBothEndsAtOnceChangePlaces) {
  a->offer(item_of(50'000, 1));
  virtual_time::advance_us(1);
  b->offer(item_of(50'000, 2));
  for (int i = 0; i < 1'000 && !(a->idle() && b->idle()); ++i) {
    a->run_for_us(500);
    b->run_for_us(500);
    exchange(*a, *b);
  }
  // Both began to send before anything of the other's arrived, so both apply what came.
  EXPECT_EQ(a->items.size(), 1u);
  EXPECT_EQ(b->items.size(), 1u);
}

TEST_F(Clipboard, ALocalCopyMadeWhileAnItemArrivesWinsAtBothEnds) {
  a->offer(item_of(100 * CHUNK));
  for (int i = 0; i < 5; ++i) lund_clip_step(a->clip);
  exchange(*a, *b);
  virtual_time::advance_ms(1);
  const Bytes newer = item_of(10, 2);
  b->offer(newer, LUND_CLIP_TEXT);
  for (int i = 0; i < 1'000 && !(a->idle() && b->idle()); ++i) {
    a->run_for_us(500);
    b->run_for_us(500);
    exchange(*a, *b);
  }
  EXPECT_THAT(b->items, testing::IsEmpty());
  ASSERT_EQ(a->items.size(), 1u);
  EXPECT_EQ(a->items[0].bytes, newer);
  EXPECT_THAT(a->log.back(), StartsWith("clipboard: #1 PNG, 135500 B delivered in "));
}

TEST_F(Clipboard, TheIdAfterTheLargestReplacesItAtThePeer) {
  lund_clip_set_last_id(a->clip, 0xFFFFFFFE);
  a->offer(item_of(100));
  transfer();
  const Bytes second = item_of(200);
  EXPECT_EQ(a->offer(second), 1u);
  transfer();
  ASSERT_EQ(b->items.size(), 2u);
  EXPECT_EQ(b->items[0].id, 0xFFFFFFFFu);
  EXPECT_EQ(b->items[1].id, 1u);
  EXPECT_EQ(b->items[1].bytes, second);
}

TEST_F(Clipboard, APathThatCarriesLessDropsWhatIsInFlightAndTheNextItemPasses) {
  a->offer(item_of(100 * CHUNK));
  for (int i = 0; i < 5; ++i) lund_clip_step(a->clip);
  exchange(*a, *b);
  lund_clip_set_session(a->clip, SESSION, 1'176);
  const Bytes second = item_of(50'000, 2);
  EXPECT_EQ(a->offer(second), 2u);
  transfer();  // to an end that has not heard of the change
  ASSERT_EQ(b->items.size(), 1u);
  EXPECT_EQ(b->items[0].bytes, second);
}

TEST_F(Clipboard, TooLargeATextIsRejectedAtTheReceiverToo) {
  const Bytes item = item_of(1'048'577);
  b->receive(chunk_packet(item, 0, 100, 1, LUND_CLIP_TEXT));
  ASSERT_EQ(b->sent.size(), 1u);
  EXPECT_EQ(ack_of(b->sent[0]).status, CLIP_REJECTED);
}

TEST_F(Clipboard, NoEngineIsMadeWithoutItsRecordOrItsSend) {
  EXPECT_EQ(lund_clip_create(nullptr), nullptr);
  const lund_clip_config config;
  EXPECT_EQ(lund_clip_create(&config), nullptr);
  lund_clip_destroy(nullptr);
}

}  // namespace
