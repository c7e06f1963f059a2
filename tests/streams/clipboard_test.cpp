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

}  // namespace
