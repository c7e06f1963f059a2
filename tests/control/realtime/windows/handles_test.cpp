#include "control/windows/handles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/windows/wide_text.h"

namespace {

std::vector<int> closed;

struct CountedKind {
  using Value = int;
  static Value none() { return -1; }
  static void close(Value value) { closed.push_back(value); }
};
using Counted = Owned<CountedKind>;

class OwnedValue : public testing::Test {
 protected:
  void SetUp() override { closed.clear(); }
};

TEST_F(OwnedValue, IsGivenBackOnceByTheLastThatHasIt) {
  {
    Counted first(1);
    Counted second = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(second);
    EXPECT_EQ(second.get(), 1);
  }
  EXPECT_EQ(closed, std::vector{1});
}

TEST_F(OwnedValue, MakesWayForAnother) {
  Counted one(1);
  one = Counted(2);
  EXPECT_EQ(closed, std::vector{1});
  *one.receive() = 3;
  EXPECT_EQ(closed, (std::vector{1, 2}));
  one.reset();
  one.reset();
  EXPECT_EQ(closed, (std::vector{1, 2, 3}));
}

TEST_F(OwnedValue, ThatIsReleasedIsItsTakersToGiveBack) {
  {
    Counted one(1);
    EXPECT_EQ(one.release(), 1);
    EXPECT_FALSE(one);
  }
  EXPECT_TRUE(closed.empty());
}

TEST_F(OwnedValue, MovedIntoItselfStays) {
  Counted one(1);
  Counted& same = one;
  one = std::move(same);
  EXPECT_EQ(one.get(), 1);
  EXPECT_TRUE(closed.empty());
}

TEST(OwnedFile, ThatCouldNotBeOpenedIsNone) {
  EXPECT_FALSE(owned_file(INVALID_HANDLE_VALUE));
  EXPECT_FALSE(owned_file(nullptr));
}

TEST(WideText, GoesThereAndBack) {
  const std::string text = "a\xC3\xBC\xE6\xBC\xA2\xF0\x9F\x96\xA5";
  const std::wstring wide = L"a\u00fc\u6f22\xD83D\xDDA5";
  EXPECT_EQ(to_wide(text), wide);
  EXPECT_EQ(to_utf8(wide), text);
  EXPECT_EQ(to_wide(""), L"");
  EXPECT_EQ(to_utf8(L""), "");
  EXPECT_EQ(to_utf8(std::wstring_view(L"a\0b", 3)), std::string("a\0b", 3));
}

TEST(WideText, WhatIsNotValidBecomesTheReplacementCharacter) {
  EXPECT_EQ(to_utf8(L"\xD83D"), "\xEF\xBF\xBD");
  EXPECT_EQ(to_wide("\xFF"), L"\xFFFD");
}

}  // namespace
