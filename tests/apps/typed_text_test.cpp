#include "apps/client/typed_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

KeyStroke stroke_of(char c) {
  std::string error;
  const auto strokes = key_strokes(std::string(1, c), &error);
  return strokes && strokes->size() == 1 ? strokes->front() : KeyStroke{};
}

}  // namespace

TEST(TypedText, KeysAreThoseOfAUsKeyboard) {
  EXPECT_EQ(stroke_of('a'), (KeyStroke{0x04, false}));
  EXPECT_EQ(stroke_of('z'), (KeyStroke{0x1D, false}));
  EXPECT_EQ(stroke_of('Q'), (KeyStroke{0x14, true}));
  EXPECT_EQ(stroke_of('1'), (KeyStroke{0x1E, false}));
  EXPECT_EQ(stroke_of('0'), (KeyStroke{0x27, false}));
  EXPECT_EQ(stroke_of('!'), (KeyStroke{0x1E, true}));
  EXPECT_EQ(stroke_of(')'), (KeyStroke{0x27, true}));
  EXPECT_EQ(stroke_of('@'), (KeyStroke{0x1F, true}));
  EXPECT_EQ(stroke_of('\n'), (KeyStroke{0x28, false}));
  EXPECT_EQ(stroke_of('\t'), (KeyStroke{0x2B, false}));
  EXPECT_EQ(stroke_of(' '), (KeyStroke{0x2C, false}));
  EXPECT_EQ(stroke_of('-'), (KeyStroke{0x2D, false}));
  EXPECT_EQ(stroke_of('_'), (KeyStroke{0x2D, true}));
  EXPECT_EQ(stroke_of('='), (KeyStroke{0x2E, false}));
  EXPECT_EQ(stroke_of('+'), (KeyStroke{0x2E, true}));
  EXPECT_EQ(stroke_of('['), (KeyStroke{0x2F, false}));
  EXPECT_EQ(stroke_of('}'), (KeyStroke{0x30, true}));
  EXPECT_EQ(stroke_of('\\'), (KeyStroke{0x31, false}));
  EXPECT_EQ(stroke_of('|'), (KeyStroke{0x31, true}));
  EXPECT_EQ(stroke_of(';'), (KeyStroke{0x33, false}));
  EXPECT_EQ(stroke_of('"'), (KeyStroke{0x34, true}));
  EXPECT_EQ(stroke_of('`'), (KeyStroke{0x35, false}));
  EXPECT_EQ(stroke_of('~'), (KeyStroke{0x35, true}));
  EXPECT_EQ(stroke_of(','), (KeyStroke{0x36, false}));
  EXPECT_EQ(stroke_of('>'), (KeyStroke{0x37, true}));
  EXPECT_EQ(stroke_of('/'), (KeyStroke{0x38, false}));
  EXPECT_EQ(stroke_of('?'), (KeyStroke{0x38, true}));
}

TEST(TypedText, EveryPrintableCharacterHasAKeyOfItsOwn) {
  std::set<std::pair<int, bool>> keys;
  for (char c = ' '; c <= '~'; ++c) {
    const KeyStroke stroke = stroke_of(c);
    EXPECT_NE(stroke.usage, 0) << c;
    keys.insert({stroke.usage, stroke.shift});
  }
  EXPECT_EQ(keys.size(), 95u);
}

TEST(TypedText, WhatNoKeyTypesIsRefusedByName) {
  std::string error;
  EXPECT_FALSE(key_strokes("caf\xC3\xA9", &error));
  EXPECT_EQ(error, "no key of a US keyboard types \"\xC3\xA9\"");
  EXPECT_FALSE(key_strokes("\x1B[2J", &error));
  EXPECT_EQ(error, "no key of a US keyboard types the byte 1B");
  EXPECT_FALSE(key_strokes(std::string(1, '\0'), &error));
  EXPECT_FALSE(key_strokes("\xF0\x9F", &error));  // a cut character
  EXPECT_TRUE(key_strokes("", &error));
}
