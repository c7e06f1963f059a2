#include "apps/ctl/shown_text.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

TEST(ShownText, OrdinaryTextStaysAsItIs) {
  const std::string text = "Büro \"7\" 日本 \U0001F5A5 ~!";
  EXPECT_EQ(shown_text(text), text);
}

TEST(ShownText, NoControlCharacterPasses) {
  for (int byte = 0; byte < 32; ++byte)
    EXPECT_EQ(shown_text(std::string("a") + static_cast<char>(byte) + "b"), "a?b") << byte;
  EXPECT_EQ(shown_text("a\x7f"), "a?");
  EXPECT_EQ(shown_text("\x1b[2J"), "?[2J");
  for (int value = 0x80; value < 0xA0; ++value)  // C1, of which U+009B begins a sequence too
    EXPECT_EQ(shown_text(std::string("\xC2") + static_cast<char>(value)), "?") << value;
  EXPECT_EQ(shown_text("\u00A0"), "\u00A0");
}

TEST(ShownText, NothingTurnsTheDirectionOfALine) {
  for (const char* text :
       {"\u061C", "\u200E", "\u200F", "\u2028", "\u2029", "\u202A", "\u202E", "\u2066", "\u2069"})
    EXPECT_EQ(shown_text(text), "?") << text;
  EXPECT_EQ(shown_text("\u2027\u202F\u2065\u206A"), "\u2027\u202F\u2065\u206A");
}

TEST(ShownText, BytesThatAreNotUtf8AreReplacedOneByOne) {
  EXPECT_EQ(shown_text("\x9B"
                       "31m"),
            "?31m");
  EXPECT_EQ(shown_text("\xFF\xC3"), "??");
  EXPECT_EQ(shown_text("\xC0\x9B"), "??");                          // a long form
  EXPECT_EQ(shown_text("\xED\xA0\x80"), "???");                     // a surrogate
  EXPECT_EQ(shown_text("\xE6\x97\xA5\xE6\x97"), "\xE6\x97\xA5??");  // cut off after 128 bytes, say
}

}  // namespace
}  // namespace ctl
