#include "streams/clipboard_map.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "tests/support/allocation_counter.h"
#include "tests/support/seeded_random.h"

namespace {

using Range = std::pair<std::uint32_t, std::uint32_t>;  // offset, length
using Ranges = std::vector<Range>;

Ranges gaps_of(const ClipboardMap& map, std::size_t room = LUND_RANGES_MAX) {
  std::array<lund_clipboard_range, LUND_RANGES_MAX> out;
  const std::uint8_t count = map.gaps(std::span(out).first(room));
  Ranges gaps;
  for (int i = 0; i < count; ++i) gaps.emplace_back(out[i].offset, out[i].length);
  return gaps;
}

// The same by a byte a byte.
class Model {
 public:
  explicit Model(std::uint32_t size) : come_(size) {}
  std::uint32_t mark(std::uint32_t offset, std::uint32_t length) {
    std::uint32_t added = 0;
    for (std::uint32_t at = offset; at < offset + length; ++at) {
      added += come_[at] ? 0 : 1;
      come_[at] = true;
    }
    return added;
  }
  Ranges gaps(std::size_t room) const {
    Ranges gaps;
    for (std::uint32_t at = 0; at < come_.size(); ++at) {
      if (come_[at]) continue;
      if (gaps.empty() || gaps.back().first + gaps.back().second != at) {
        if (gaps.size() == room) break;
        gaps.emplace_back(at, 0);
      }
      ++gaps.back().second;
    }
    return gaps;
  }

 private:
  std::vector<bool> come_;
};

TEST(ClipboardMap, EveryRangeOfASmallItemIsMarkedAndNothingElse) {
  constexpr std::uint32_t SIZE = 200;  // three words and a part of one
  for (std::uint32_t offset = 0; offset <= SIZE; ++offset) {
    for (std::uint32_t length = 0; length <= SIZE - offset; ++length) {
      ClipboardMap map;
      ASSERT_TRUE(map.reset(SIZE));
      ASSERT_EQ(map.mark(offset, length), length);
      ASSERT_EQ(map.mark(offset, length), 0u);
      Ranges expected;
      if (length == 0) {
        expected = {{0, SIZE}};
      } else {
        if (offset > 0) expected.emplace_back(0, offset);
        if (offset + length < SIZE) expected.emplace_back(offset + length, SIZE - offset - length);
      }
      ASSERT_EQ(gaps_of(map), expected) << offset << " " << length;
    }
  }
}

TEST(ClipboardMap, RandomMarksGiveTheCountsAndGapsOfAPlainList) {
  SeededRandom random(1);
  for (int round = 0; round < 300; ++round) {
    const auto size = static_cast<std::uint32_t>(1 + random.below(3'000));
    const std::uint64_t longest = 1 + random.below(400);
    const std::size_t room = 1 + random.below(LUND_RANGES_MAX);
    ClipboardMap map;
    ASSERT_TRUE(map.reset(size));
    Model model(size);
    for (int marks = 0; marks < 40; ++marks) {
      const auto offset = static_cast<std::uint32_t>(random.below(size + 1));
      const auto length =
          static_cast<std::uint32_t>(std::min<std::uint64_t>(random.below(longest), size - offset));
      ASSERT_EQ(map.mark(offset, length), model.mark(offset, length));
      ASSERT_EQ(gaps_of(map, room), model.gaps(room)) << "round " << round;
    }
  }
}

TEST(ClipboardMap, AWholeItemHasNoGap) {
  for (const std::uint32_t size : {1u, 7u, 8u, 63u, 64u, 65u, 128u, 16'777'216u}) {
    ClipboardMap map;
    ASSERT_TRUE(map.reset(size));
    EXPECT_EQ(map.mark(0, size), size);
    EXPECT_TRUE(gaps_of(map).empty()) << size;
  }
}

TEST(ClipboardMap, TheWalkStopsWhenTheRoomIsUsedUp) {
  ClipboardMap map;
  ASSERT_TRUE(map.reset(1'000));
  for (std::uint32_t at = 0; at < 1'000; at += 2) map.mark(at, 1);
  EXPECT_EQ(gaps_of(map, 1), (Ranges{{1, 1}}));
  EXPECT_EQ(gaps_of(map).size(), 64u);
  EXPECT_EQ(gaps_of(map).back(), Range(127, 1));
}

TEST(ClipboardMap, AResetForgetsWhatCame) {
  ClipboardMap map;
  ASSERT_TRUE(map.reset(100));
  map.mark(0, 100);
  ASSERT_TRUE(map.reset(90));
  EXPECT_EQ(gaps_of(map), (Ranges{{0, 90}}));
}

TEST(ClipboardMap, ShortOfMemoryItSaysSo) {
  const AllocationLimit limit(1'000);
  ClipboardMap map;
  EXPECT_FALSE(map.reset(16'777'216));
  EXPECT_TRUE(map.reset(1'000));
}

}  // namespace
