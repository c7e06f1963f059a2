#include "control/text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Text, TrimmedLosesBlanksTabsAndLineEndsAtItsEndsAlone) {
  EXPECT_EQ(trimmed(" \t\r\n a b\t\r\n"), "a b");
  EXPECT_EQ(trimmed("\va\f"), "\va\f");
  EXPECT_EQ(trimmed(" \t\r\n"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Text, NamesAreTheSameButForTheCaseOfLatinLetters) {
  EXPECT_TRUE(same_but_for_case(R"(\\.\DISPLAY1)", R"(\\.\display1)"));
  EXPECT_TRUE(same_but_for_case("", ""));
  EXPECT_FALSE(same_but_for_case("DISPLAY1", "DISPLAY12"));
  EXPECT_FALSE(same_but_for_case("[", "{"));  // as far apart as A and a
  EXPECT_FALSE(same_but_for_case("\xC4", "\xE4"));
}

TEST(Text, OneIsNoPlural) {
  EXPECT_STREQ(plural(0), "s");
  EXPECT_STREQ(plural(1), "");
  EXPECT_STREQ(plural(2), "s");
}

TEST(Utf8Path, IsTheNameThatWasGiven) {
  constexpr std::u8string_view NAME = u8"B\u00fcro \u20ac \U0001F5A5";
  const std::string_view name(reinterpret_cast<const char*>(NAME.data()), NAME.size());
  EXPECT_TRUE(utf8_path(name).u8string() == NAME);
  EXPECT_TRUE(utf8_path("").empty());
}

}  // namespace
