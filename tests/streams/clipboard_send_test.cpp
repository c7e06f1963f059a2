// The sending half, against a peer made by hand: passes, probes, limits, pacing.
#include "streams/clipboard_send.h"

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

constexpr std::uint64_t SECOND_US = 1'000'000;

using Ranges = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset, length
Ranges ranges_of(const std::vector<Chunk>& chunks) {
  Ranges ranges;
  for (const Chunk& c : chunks)
    ranges.emplace_back(c.chunk.offset, static_cast<std::uint32_t>(c.bytes.size()));
  return ranges;
}

class ClipboardSend : public testing::Test {
 protected:
  ClipboardSend() {
    virtual_time::reset();
    make();
  }
  void make(std::uint32_t rate = 0, std::uint64_t mtu = MTU) { end.emplace(rate, mtu); }
  // Ten chunks, all sent; the end waits for an answer.
  void send_ten_chunks() {
    item = item_of(10 * CHUNK);
    id = end->offer(item);
    EXPECT_EQ(end->pass().size(), 10u);
  }
  void ack(std::uint8_t status, const std::vector<lund_clipboard_range>& missing = {}) {
    EXPECT_EQ(end->receive(ack_packet(id, status, missing)), 1);
  }

  std::optional<End> end;
  Bytes item;
  std::uint32_t id = 0;
};

// --- offering

TEST_F(ClipboardSend, ExactlyTheLimitIsTakenAndOneByteMoreIsRefused) {
  EXPECT_EQ(end->offer(Bytes(1'048'576), LUND_CLIP_TEXT), 1u);
  EXPECT_EQ(end->offer(Bytes(16'777'216), LUND_CLIP_PNG), 2u);
  end->log.clear();
  EXPECT_EQ(end->offer(Bytes(1'048'577), LUND_CLIP_TEXT), 0u);
  EXPECT_EQ(end->offer(Bytes(16'777'217), LUND_CLIP_PNG), 0u);
  EXPECT_THAT(end->log, ElementsAre("clipboard: not sending text of 1048577 B (limit 1048576 B)",
                                    "clipboard: not sending PNG of 16777217 B (limit 16777216 B)"));
  EXPECT_FALSE(end->idle()) << "the item on its way goes on";
}

TEST_F(ClipboardSend, AnUnknownKindIsRefused) {
  for (const std::uint8_t kind : Bytes{0, 3, 255}) EXPECT_EQ(end->offer(Bytes(9), kind), 0u);
  EXPECT_EQ(end->logged("clipboard: not sending ? of 9 B (limit 0 B)"), 3);
  EXPECT_TRUE(end->idle());
}

TEST_F(ClipboardSend, NothingToSendIsRefusedSilently) {
  EXPECT_EQ(lund_clip_offer(nullptr, LUND_CLIP_TEXT, "x", 1), 0u);
  EXPECT_EQ(lund_clip_offer(end->clip, LUND_CLIP_TEXT, nullptr, 1), 0u);
  EXPECT_EQ(lund_clip_offer(end->clip, LUND_CLIP_TEXT, "x", 0), 0u);
  EXPECT_THAT(end->log, IsEmpty());
}

TEST_F(ClipboardSend, WithoutASessionNothingIsTaken) {
  make(0, 0);
  EXPECT_EQ(end->offer(Bytes(9)), 0u);
  EXPECT_TRUE(end->idle());
  EXPECT_THAT(end->log, IsEmpty());
  lund_clip_set_session(end->clip, SESSION, MTU);
  EXPECT_EQ(end->offer(Bytes(9)), 1u) << "the refused one took no id";
}

TEST_F(ClipboardSend, ShortOfMemoryAnItemIsRefusedAndTheOneOnItsWayGoesOn) {
  ASSERT_EQ(end->offer(Bytes(9)), 1u);
  const Bytes large(1'000'000);
  {
    const AllocationLimit limit(100'000);
    EXPECT_EQ(end->offer(large), 0u);
  }
  EXPECT_EQ(end->logged("clipboard: not sending PNG of 1000000 B: out of memory"), 1);
  EXPECT_EQ(end->pass().size(), 1u);
}

TEST_F(ClipboardSend, TheItemIsCopied) {
  Bytes text = {'a', 'b', 'c'};
  end->offer(text, LUND_CLIP_TEXT);
  text.assign(3, 'x');
  EXPECT_EQ(end->pass().at(0).bytes, (Bytes{'a', 'b', 'c'}));
}

TEST_F(ClipboardSend, AnOfferDuringATransferReplacesItAndTakesANewId) {
  send_ten_chunks();
  EXPECT_EQ(end->offer(item_of(50), LUND_CLIP_TEXT), 2u);
  EXPECT_THAT(end->log, ElementsAre("clipboard: sending #1 PNG, 13550 B",
                                    "clipboard: #1 superseded before it was acknowledged",
                                    "clipboard: sending #2 text, 50 B"));
  const auto chunks = end->pass();
  ASSERT_EQ(chunks.size(), 1u);
  EXPECT_EQ(chunks[0].chunk.id, 2u);
  ack(CLIP_COMPLETE);  // of the first
  EXPECT_FALSE(end->idle());
}

TEST_F(ClipboardSend, TheIdAfterTheLargestIs1) {
  lund_clip_set_last_id(end->clip, 0xFFFFFFFE);
  EXPECT_EQ(end->offer(Bytes(1)), 0xFFFFFFFFu);
  EXPECT_EQ(end->offer(Bytes(1)), 1u);
}

// --- passes

TEST_F(ClipboardSend, EveryChunkCarriesIdKindTotalAndOffset) {
  item = item_of(3 * CHUNK + 7);
  end->offer(item);
  const auto chunks = end->pass();
  EXPECT_EQ(ranges_of(chunks),
            (Ranges{{0, CHUNK}, {CHUNK, CHUNK}, {2 * CHUNK, CHUNK}, {3 * CHUNK, 7}}));
  for (const Chunk& c : chunks) {
    EXPECT_EQ(c.header.session_id, SESSION);
    EXPECT_EQ(c.header.flags, 0);
    EXPECT_EQ(c.chunk.id, 1u);
    EXPECT_EQ(c.chunk.kind, LUND_CLIP_PNG);
    EXPECT_EQ(c.chunk.total, item.size());
    EXPECT_TRUE(std::equal(c.bytes.begin(), c.bytes.end(), item.begin() + c.chunk.offset));
  }
}

TEST_F(ClipboardSend, AChunkIsWhatThePathCarriesWithinTheEnginesOwnBounds) {
  for (const auto& [mtu, chunk] : {std::pair{1u, 16u}, std::pair{37u, 16u}, std::pair{38u, 17u},
                                   std::pair{1'472u, 1'451u}, std::pair{9'000u, 1'451u}}) {
    make(0, mtu);
    end->offer(Bytes(5'000));
    EXPECT_EQ(end->pass().at(0).bytes.size(), chunk) << "at " << mtu;
  }
}

TEST_F(ClipboardSend, ProbesRepeatTheTailEach100MsAndAfter5SecondsWithoutAnAnswerTheItemIsGivenUp) {
  send_ten_chunks();
  const std::uint64_t pass_end = lund_now_us();
  end->run_for_us(5 * SECOND_US - 1);
  std::vector<Bytes> probes = end->take();
  ASSERT_EQ(probes.size(), 49u);
  for (const Bytes& probe : probes) {
    EXPECT_EQ(chunk_of(probe).chunk.offset, 9 * CHUNK);
    EXPECT_EQ(chunk_of(probe).end(), item.size());
  }
  EXPECT_FALSE(end->idle());
  end->run_for_us(1);
  EXPECT_EQ(lund_now_us(), pass_end + 5 * SECOND_US);
  EXPECT_TRUE(end->idle());
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_EQ(end->log.back(), "clipboard: #1 PNG, 13550 B: no answer for 5 s, gave up");
}

TEST_F(ClipboardSend, ProbesGoOutExactlyEach100Ms) {
  send_ten_chunks();
  for (int i = 0; i < 5; ++i) {
    end->run_for_us(99'999);
    EXPECT_THAT(end->sent, IsEmpty());
    end->run_for_us(1);
    EXPECT_EQ(end->take().size(), 1u);
  }
}

TEST_F(ClipboardSend, AnAnswerStartsThe5SecondsAnewAtTheEndOfItsPass) {
  send_ten_chunks();
  end->run_for_ms(4'900);
  end->take();
  ack(CLIP_MISSING);
  end->pass();
  end->run_for_ms(4'999);
  EXPECT_FALSE(end->idle());
  end->run_for_ms(1);
  EXPECT_TRUE(end->idle());
}

TEST_F(ClipboardSend, The5SecondsBeginWithTheEndOfThePassHoweverLongItTook) {
  make(1'000);
  end->offer(Bytes(30'000));
  end->run_for_ms(15'000);  // of which the pass took more than 12
  EXPECT_FALSE(end->idle());
  EXPECT_EQ(end->log.size(), 1u);
  end->run_for_ms(5'000);
  EXPECT_TRUE(end->idle());
}

TEST_F(ClipboardSend, TwoMinutesAfterTheOfferItIsGivenUpHoweverTalkativeThePeer) {
  item = item_of(10 * CHUNK);
  id = end->offer(item);
  const std::uint64_t offered = lund_now_us();
  end->pass();
  for (int passes = 1; passes < 60; ++passes) {
    end->run_for_us(offered + static_cast<std::uint64_t>(passes) * 2 * SECOND_US - lund_now_us());
    ack(CLIP_MISSING, {{0, 1}});
  }
  end->run_for_us(offered + 120 * SECOND_US - lund_now_us());
  EXPECT_FALSE(end->idle());
  end->run_for_us(1);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 PNG, 13550 B: gave up after 60 passes in 2 min");
}

TEST_F(ClipboardSend, TwoMinutesEndAPassThatIsStillBeingPacedOut) {
  make(1'000);
  end->offer(Bytes(1'000'000));
  end->run_for_us(120 * SECOND_US + 1'000'000);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 PNG, 1000000 B: gave up after 1 passes in 2 min");
}

// --- answers

TEST_F(ClipboardSend, AnAnswerOfCompleteEndsTheItem) {
  send_ten_chunks();
  end->run_for_ms(50);
  ack(CLIP_COMPLETE);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 PNG, 13550 B delivered in 50 ms (1 pass)");
}

TEST_F(ClipboardSend, AnAnswerOfCompleteEndsTheItemDuringAPassToo) {
  end->offer(Bytes(100'000));
  lund_clip_step(end->clip);
  end->receive(ack_packet(1, CLIP_COMPLETE));
  EXPECT_TRUE(end->idle());
}

TEST_F(ClipboardSend, AnyOtherAnswerIsARejection) {
  for (const std::uint8_t status : Bytes{2, 3, 255}) {
    send_ten_chunks();
    ack(status);
    EXPECT_TRUE(end->idle());
    EXPECT_EQ(end->log.back(),
              "clipboard: #" + std::to_string(id) + " PNG, 13550 B rejected by the peer");
  }
}

TEST_F(ClipboardSend, WhatTheAnswerListsIsTheNextPassWithTheTail) {
  send_ten_chunks();
  ack(CLIP_MISSING, {{100, 50}, {5'000, CHUNK + 1}});
  EXPECT_EQ(ranges_of(end->pass()),
            (Ranges{{100, 50}, {5'000, CHUNK}, {5'000 + CHUNK, 1}, {9 * CHUNK, CHUNK}}));
  ack(CLIP_COMPLETE);
  EXPECT_THAT(end->log.back(), testing::EndsWith("(2 passes)"));
}

TEST_F(ClipboardSend, ARangeThatReachesTheEndNeedsNoTail) {
  send_ten_chunks();
  ack(CLIP_MISSING, {{0, 1}, {10 * CHUNK - 30, 30}});
  EXPECT_EQ(ranges_of(end->pass()), (Ranges{{0, 1}, {10 * CHUNK - 30, 30}}));
}

TEST_F(ClipboardSend, AnAnswerWithoutRangesMakesAPassOfTheTailAlone) {
  send_ten_chunks();
  ack(CLIP_MISSING);
  EXPECT_EQ(ranges_of(end->pass()), (Ranges{{9 * CHUNK, CHUNK}}));
}

TEST_F(ClipboardSend, RangesAreCutToTheItemAndEmptyOnesSkipped) {
  send_ten_chunks();
  ack(CLIP_MISSING,
      {{0, 0}, {10 * CHUNK, 1}, {0xFFFFFFFF, 0xFFFFFFFF}, {5, 6}, {10 * CHUNK - 3, 0xFFFFFFFF}});
  EXPECT_EQ(ranges_of(end->pass()), (Ranges{{5, 6}, {10 * CHUNK - 3, 3}}));
}

TEST_F(ClipboardSend, SixtyFourRangesAndTheTailAreOnePass) {
  send_ten_chunks();
  std::vector<lund_clipboard_range> missing;
  for (std::uint32_t i = 0; i < LUND_RANGES_MAX; ++i) missing.push_back({100 * i, 10});
  ack(CLIP_MISSING, missing);
  const Ranges sent = ranges_of(end->pass());
  ASSERT_EQ(sent.size(), 65u);
  EXPECT_EQ(sent[63], std::pair(6'300u, 10u));
  EXPECT_EQ(sent[64], std::pair(9 * CHUNK, CHUNK));
}

TEST_F(ClipboardSend, AnAnswerToAnOldIdOrAnotherSessionChangesNothing) {
  send_ten_chunks();
  for (const std::uint8_t status : {CLIP_COMPLETE, CLIP_MISSING, CLIP_REJECTED}) {
    end->receive(ack_packet(id - 1, status));
    end->receive(ack_packet(id + 1, status));
    end->receive(ack_packet(id, status, {}, SESSION + 1));
  }
  EXPECT_EQ(lund_clip_step(end->clip), 100u) << "still waiting, for the whole time";
  EXPECT_THAT(end->sent, IsEmpty());
  EXPECT_EQ(end->log.size(), 1u);
}

TEST_F(ClipboardSend, AnAnswerOfMissingDuringAPassChangesNothing) {
  item = item_of(30 * CHUNK);
  id = end->offer(item);
  lund_clip_step(end->clip);
  ack(CLIP_MISSING, {{0, 10}});
  EXPECT_EQ(end->pass().size(), 30u);
  ack(CLIP_COMPLETE);
  EXPECT_THAT(end->log.back(), testing::EndsWith("(1 pass)"));
}

// --- sessions

TEST_F(ClipboardSend, AnotherSessionDropsTheItem) {
  send_ten_chunks();
  lund_clip_set_session(end->clip, SESSION + 1, MTU);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 dropped (session changed)");
  ack(CLIP_COMPLETE);
  EXPECT_EQ(end->log.size(), 2u);
}

TEST_F(ClipboardSend, TheEndOfTheSessionDropsTheItem) {
  send_ten_chunks();
  lund_clip_set_session(end->clip, 0, 0);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 dropped (session ended)");
}

TEST_F(ClipboardSend, TheSameSessionAgainChangesNothing) {
  send_ten_chunks();
  lund_clip_set_session(end->clip, SESSION, MTU);
  EXPECT_FALSE(end->idle());
  EXPECT_EQ(end->log.size(), 1u);
}

TEST_F(ClipboardSend, AnotherPacketSizeDropsTheItemAndHoldsForTheNext) {
  send_ten_chunks();
  lund_clip_set_session(end->clip, SESSION, 1'176);
  EXPECT_TRUE(end->idle());
  EXPECT_EQ(end->log.back(), "clipboard: #1 dropped (session changed)");
  EXPECT_EQ(end->offer(Bytes(5'000)), 2u);
  EXPECT_EQ(end->pass().at(0).bytes.size(), 1'155u);
}

// --- pacing

TEST_F(ClipboardSend, ABurstOf16KiBAndAPacketGoesOutAtOnceAndThenTheRateHolds) {
  end->offer(Bytes(1'000'000));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(lund_clip_step(end->clip), 0u);
  EXPECT_EQ(end->sent.size(), 12u);
  // 16,384 + 1,376 less 12 packets leaves 1,248 bytes: a packet in 26 µs, and no sleep is below 1
  // ms.
  EXPECT_EQ(lund_clip_step(end->clip), 1u);
  end->take();
  virtual_time::advance_ms(1);  // 5,000 bytes more
  for (int i = 0; i < 4; ++i) EXPECT_EQ(lund_clip_step(end->clip), 0u);
  EXPECT_EQ(lund_clip_step(end->clip), 1u);
}

TEST_F(ClipboardSend, SleepsRoundUpToWholeMilliseconds) {
  make(1'000);
  end->offer(Bytes(1'000'000));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(lund_clip_step(end->clip), 0u);
  EXPECT_EQ(lund_clip_step(end->clip), 129u);  // 128 bytes short: 128,001 µs
  virtual_time::advance_ms(129);
  EXPECT_EQ(lund_clip_step(end->clip), 0u);
  EXPECT_EQ(end->sent.size(), 13u);
}

TEST_F(ClipboardSend, AnIdleTimeSavesNoMoreThanTheBurst) {
  end->offer(Bytes(1));
  end->pass();
  end->receive(ack_packet(1, CLIP_COMPLETE));
  virtual_time::advance_ms(3'600'000);
  end->offer(Bytes(1'000'000));
  for (int i = 0; i < 12; ++i) EXPECT_EQ(lund_clip_step(end->clip), 0u);
  EXPECT_EQ(lund_clip_step(end->clip), 1u);
}

TEST_F(ClipboardSend, ALargeItemGoesOutAtTheRateAndInNoWindowAboveIt) {
  for (const std::uint32_t rate : {100'000u, 5'000'000u, 10'000'000u}) {
    make(rate == 5'000'000 ? 0 : rate);
    Sendings sent;
    std::size_t bytes = 0;
    end->wire = [&](const Bytes& packet) {
      sent.emplace_back(lund_now_us(), packet.size());
      bytes += packet.size();
    };
    const std::uint64_t start = lund_now_us();
    end->offer(Bytes(rate));
    end->pass();
    for (const std::uint64_t window : {10'000, 100'000, 1'000'000}) {
      const std::uint64_t allowed = rate * window / SECOND_US + BURST_BYTES + MTU;
      EXPECT_LE(most_within(sent, window), allowed) << rate << " " << window;
    }
    const double seconds = static_cast<double>(lund_now_us() - start) / 1e6;
    const double achieved = (static_cast<double>(bytes) - BURST_BYTES - MTU) / seconds;
    EXPECT_GT(achieved, 0.95 * rate);
    EXPECT_LE(achieved, rate);
  }
}

// A sleep is a millisecond at least and saves no more than the burst.
TEST_F(ClipboardSend, NoRateIsFasterThanABurstEachMillisecond) {
  make(400'000'000);
  const std::uint64_t start = lund_now_us();
  end->offer(Bytes(1'200 * CHUNK));
  EXPECT_EQ(end->pass().size(), 1'200u);
  EXPECT_EQ(lund_now_us() - start, 99'000u);  // 12 packets at once, and 12 in each of 99
}

TEST_F(ClipboardSend, LogLinesAreCutAt255Characters) {
  std::string line;
  const lund_clip_config config{
      .log = [](void* user, const char* text) { *static_cast<std::string*>(user) = text; },
      .user = &line};
  clip_log(config, "%s", std::string(300, 'x').c_str());
  EXPECT_EQ(line, std::string(255, 'x'));
}

}  // namespace
