#include "control/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// By the definition: the code point that `text` is one sequence of, or -1.
long code_point(const std::string& text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t size = text.size();
  static constexpr long SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
  const long lead = byte(0);
  const std::size_t length = lead < 0x80             ? 1
                             : (lead & 0xE0) == 0xC0 ? 2
                             : (lead & 0xF0) == 0xE0 ? 3
                             : (lead & 0xF8) == 0xF0 ? 4
                                                     : 0;
  if (length == 0 || length != size) return -1;
  long value = length == 1 ? lead : lead & (0x7F >> length);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return -1;
    value = value << 6 | (byte(i) & 0x3F);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return value < SMALLEST[length] || surrogate || value > 0x10FFFF ? -1 : value;
}

std::string of(std::initializer_list<int> bytes) {
  std::string text;
  for (const int byte : bytes) text += static_cast<char>(byte);
  return text;
}

TEST(Utf8, EverySequenceOfOneToThreeBytesIsJudgedAsItsCodePointIs) {
  const auto agrees = [](const std::string& text) {
    return (utf8_sequence_length(text) == text.size()) == (code_point(text) >= 0);
  };
  for (int a = 0; a < 256; ++a) {
    ASSERT_TRUE(agrees(of({a}))) << a;
    for (int b = 0; b < 256; ++b) {
      ASSERT_TRUE(agrees(of({a, b}))) << a << ' ' << b;
      // What matters of a third byte is its two highest bits.
      for (const int c : {0x00, 0x7F, 0x80, 0xBF, 0xC0, 0xFF})
        ASSERT_TRUE(agrees(of({a, b, c}))) << a << ' ' << b << ' ' << c;
    }
  }
}

TEST(Utf8, FourBytesReachFromU10000ToU10FFFF) {
  EXPECT_TRUE(is_utf8(of({0xF0, 0x90, 0x80, 0x80})));
  EXPECT_TRUE(is_utf8(of({0xF4, 0x8F, 0xBF, 0xBF})));
  EXPECT_FALSE(is_utf8(of({0xF0, 0x8F, 0xBF, 0xBF})));
  EXPECT_FALSE(is_utf8(of({0xF4, 0x90, 0x80, 0x80})));
  EXPECT_FALSE(is_utf8(of({0xF5, 0x80, 0x80, 0x80})));
}

TEST(Utf8, ATextIsValidWhenEachSequenceIs) {
  EXPECT_TRUE(is_utf8(""));
  EXPECT_TRUE(is_utf8("Büro, 部屋, 🖥"));
  EXPECT_TRUE(is_utf8(std::string(1, '\0')));
  EXPECT_FALSE(is_utf8("B\xFCro"));
  EXPECT_FALSE(is_utf8("cut \xF0\x9F\x96"));
}

}  // namespace
