#include "media/cursor_convert.h"

#include <gtest/gtest.h>

#include "connection/byte_order.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::uint32_t CLEAR = 0, BLACK = 0xFF000000, WHITE = 0xFFFFFFFF;

Bytes pixels(const std::vector<std::uint32_t>& values) {
  Bytes bytes(values.size() * 4);
  for (std::size_t i = 0; i < values.size(); ++i) store_le(&bytes[i * 4], values[i]);
  return bytes;
}

CursorBitmap bitmap(int width, int height, const std::vector<std::uint32_t>& values, int hot_x = 0,
                    int hot_y = 0) {
  return {width, height, hot_x, hot_y, pixels(values)};
}

std::uint32_t pixel(const CursorBitmap& cursor, int x, int y) {
  return load_le<std::uint32_t>(&cursor.pixels[static_cast<std::size_t>(y * cursor.width + x) * 4]);
}

// A colour or masked colour image without padding between its rows.
CursorBitmap convert(int type, int width, int height, const std::vector<std::uint32_t>& values) {
  const Bytes data = pixels(values);
  CursorBitmap out;
  EXPECT_TRUE(cursor_convert(type, data.data(), data.size(), width, height, width * 4, 0, 0, &out));
  return out;
}

// A monochrome image of up to 8 pixels a row: AND rows, then XOR rows.
CursorBitmap convert_mono(int width, const Bytes& rows) {
  CursorBitmap out;
  EXPECT_TRUE(cursor_convert(CURSOR_MONOCHROME, rows.data(), rows.size(), width,
                             static_cast<int>(rows.size()), 1, 0, 0, &out));
  return out;
}

TEST(CursorConvert, ColourIsCopiedAsItIs) {
  const auto out = convert(CURSOR_COLOUR, 2, 1, {0x80123456, 0x00ABCDEF});
  EXPECT_EQ(out.pixels, pixels({0x80123456, 0x00ABCDEF}));
}

TEST(CursorConvert, RowsMayBePadded) {
  Bytes data(16 + 8, 0xEE);
  store_le(&data[0], 0xFF000001u);
  store_le(&data[4], 0xFF000002u);
  store_le(&data[16], 0xFF000003u);
  store_le(&data[20], 0xFF000004u);
  CursorBitmap out;
  ASSERT_TRUE(cursor_convert(CURSOR_COLOUR, data.data(), data.size(), 2, 2, 16, 0, 0, &out));
  EXPECT_EQ(out.pixels, pixels({0xFF000001, 0xFF000002, 0xFF000003, 0xFF000004}));
}

TEST(CursorConvert, TheFourMonochromeCombinations) {
  // Spread out, so that the outline of the inverting pixel meets none of the others.
  const auto out = convert_mono(8, {0b00111111, 0b01000001});
  ASSERT_EQ(out.height, 1);
  const std::uint32_t expected[] = {BLACK, WHITE, CLEAR, CLEAR, CLEAR, CLEAR, WHITE, BLACK};
  for (int x = 0; x < 8; ++x) EXPECT_EQ(pixel(out, x, 0), expected[x]) << "pixel " << x;
}

TEST(CursorConvert, MonochromeBitsGoOnInTheNextByte) {
  const Bytes rows = {0xFF, 0x7F, 0x00, 0x00};  // 2 bytes a row: AND, then XOR
  CursorBitmap out;
  ASSERT_TRUE(cursor_convert(CURSOR_MONOCHROME, rows.data(), rows.size(), 9, 2, 2, 0, 0, &out));
  EXPECT_EQ(pixel(out, 7, 0), CLEAR);
  EXPECT_EQ(pixel(out, 8, 0), BLACK);
}

TEST(CursorConvert, AMonochromeImageOfHeightOneIsRejected) {
  const Bytes rows = {0, 0};
  CursorBitmap out;
  EXPECT_FALSE(cursor_convert(CURSOR_MONOCHROME, rows.data(), rows.size(), 8, 1, 1, 0, 0, &out));
}

TEST(CursorConvert, AnOddMonochromeHeightIsRoundedDown) {
  const Bytes rows = {0, 0, 0};
  CursorBitmap out;
  ASSERT_TRUE(cursor_convert(CURSOR_MONOCHROME, rows.data(), rows.size(), 8, 3, 1, 0, 0, &out));
  EXPECT_EQ(out.height, 1);
}

TEST(CursorConvert, AnInvertingPixelAtACornerIsOutlinedOnlyWithinTheImage) {
  // 3 x 3, the top left pixel inverts, all others are transparent.
  const auto out = convert_mono(3, {0xFF, 0xFF, 0xFF, 0x80, 0x00, 0x00});
  EXPECT_EQ(out.pixels, pixels({BLACK, WHITE, CLEAR, WHITE, WHITE, CLEAR, CLEAR, CLEAR, CLEAR}));
}

TEST(CursorConvert, TheOutlineDoesNotGrowFromItselfNorCoverThePicture) {
  // A row of 5 whose middle inverts, with a black pixel at its right.
  const auto out = convert_mono(5, {0b11101000, 0b00100000});
  EXPECT_EQ(out.pixels, pixels({CLEAR, WHITE, BLACK, BLACK, CLEAR}));
}

TEST(CursorConvert, MaskedColourCopiesShowsThroughOrInverts) {
  const auto out =
      convert(CURSOR_MASKED_COLOUR, 4, 1, {0x00123456, 0xFF000000, 0xFF000000, 0xFF000001});
  EXPECT_EQ(pixel(out, 0, 0), 0xFF123456u) << "opaque";
  EXPECT_EQ(pixel(out, 1, 0), CLEAR) << "mask and no colour: transparent";
  EXPECT_EQ(pixel(out, 2, 0), WHITE) << "transparent beside the inverting pixel";
  EXPECT_EQ(pixel(out, 3, 0), BLACK) << "mask and the least colour: inverting";
}

TEST(CursorConvert, ABlackMaskedColourPixelIsOpaque) {
  EXPECT_EQ(pixel(convert(CURSOR_MASKED_COLOUR, 1, 1, {0}), 0, 0), BLACK);
}

TEST(CursorConvert, AnInvertingPixelOutlinesNoVisiblePixelAndNoOtherInvertingOne) {
  const auto out = convert(CURSOR_MASKED_COLOUR, 3, 1, {0x00445566, 0xFF808080, 0xFFFFFFFF});
  EXPECT_EQ(out.pixels, pixels({0xFF445566, BLACK, BLACK}));
}

TEST(CursorConvert, AnIBeamThatInvertsIsBlackWithAWhiteOutline) {
  // 5 x 3: AND all ones, XOR the middle column.
  const Bytes rows = {0xF8, 0xF8, 0xF8, 0x20, 0x20, 0x20};
  const auto out = convert_mono(5, rows);
  for (int y = 0; y < 3; ++y) {
    const std::uint32_t expected[] = {CLEAR, WHITE, BLACK, WHITE, CLEAR};
    for (int x = 0; x < 5; ++x) EXPECT_EQ(pixel(out, x, y), expected[x]) << x << ", " << y;
  }
}

TEST(CursorConvert, TheLargestImageIsConvertedAndOneMoreIsNot) {
  const Bytes row(4097 * 4, 0x11);
  CursorBitmap out;
  EXPECT_TRUE(cursor_convert(CURSOR_COLOUR, row.data(), row.size(), 4096, 1, 4096 * 4, 0, 0, &out));
  EXPECT_FALSE(
      cursor_convert(CURSOR_COLOUR, row.data(), row.size(), 4097, 1, 4097 * 4, 0, 0, &out));
}

TEST(CursorConvert, TheLastRowNeedsNoPadding) {
  const Bytes data(16 + 8, 0x22);
  CursorBitmap out;
  EXPECT_TRUE(cursor_convert(CURSOR_COLOUR, data.data(), 24, 2, 2, 16, 0, 0, &out));
  EXPECT_FALSE(cursor_convert(CURSOR_COLOUR, data.data(), 23, 2, 2, 16, 0, 0, &out));
  // The rows of masks are whole.
  EXPECT_TRUE(cursor_convert(CURSOR_MONOCHROME, data.data(), 16, 8, 4, 4, 0, 0, &out));
  EXPECT_FALSE(cursor_convert(CURSOR_MONOCHROME, data.data(), 15, 8, 4, 4, 0, 0, &out));
}

TEST(CursorConvert, TheHotSpotIsBroughtInside) {
  const Bytes data = pixels(std::vector<std::uint32_t>(12, WHITE));
  CursorBitmap out;
  ASSERT_TRUE(cursor_convert(CURSOR_COLOUR, data.data(), data.size(), 4, 3, 16, 99, -2, &out));
  EXPECT_EQ(out.hot_x, 3);
  EXPECT_EQ(out.hot_y, 0);
  const Bytes rows = {0, 0, 0, 0};
  ASSERT_TRUE(cursor_convert(CURSOR_MONOCHROME, rows.data(), 4, 8, 4, 1, 7, 3, &out));
  EXPECT_EQ(out.hot_x, 7);
  EXPECT_EQ(out.hot_y, 1) << "of the image, not of the two masks";
}

TEST(CursorConvert, WhatDoesNotFitIsRejectedAndLeavesTheResultAsItWas) {
  const Bytes data(64, 0);
  CursorBitmap out = bitmap(1, 1, {WHITE});
  const auto rejected = [&](int type, std::uint64_t size, int width, int height, int pitch) {
    return !cursor_convert(type, data.data(), size, width, height, pitch, 0, 0, &out);
  };
  EXPECT_TRUE(rejected(0, 64, 2, 2, 8));
  EXPECT_TRUE(rejected(3, 64, 2, 2, 8));
  EXPECT_TRUE(rejected(5, 64, 2, 2, 8));
  for (const int type : {CURSOR_COLOUR, CURSOR_MASKED_COLOUR}) {
    EXPECT_TRUE(rejected(type, 64, 0, 2, 8));
    EXPECT_TRUE(rejected(type, 64, 2, 0, 8));
    EXPECT_TRUE(rejected(type, 64, 4097, 1, 20'000));
    EXPECT_TRUE(rejected(type, 64, 1, 4097, 4));
    EXPECT_TRUE(rejected(type, 64, 2, 2, 0));
    EXPECT_TRUE(rejected(type, 64, 2, 2, -8));
    EXPECT_TRUE(rejected(type, 64, 2, 2, 7));
    EXPECT_TRUE(rejected(type, 15, 2, 2, 8));
  }
  EXPECT_TRUE(rejected(CURSOR_MONOCHROME, 3, 8, 4, 1));
  EXPECT_TRUE(rejected(CURSOR_MONOCHROME, 64, 9, 4, 1)) << "a row is wider than its pitch";
  EXPECT_TRUE(rejected(CURSOR_MONOCHROME, 64, 8, 2, INT32_MAX));
  EXPECT_FALSE(cursor_convert(CURSOR_COLOUR, nullptr, 64, 2, 2, 8, 0, 0, &out));
  EXPECT_FALSE(cursor_convert(CURSOR_COLOUR, data.data(), 64, 2, 2, 8, 0, 0, nullptr));
  EXPECT_EQ(out.pixels, pixels({WHITE}));
}

TEST(CursorScale, SmallDifferencesAndUselessFactorsGiveACopy) {
  const auto source = bitmap(2, 1, {0xFF112233, 0x80445566}, 1, 0);
  for (const double factor : {1.0, 1.005, 0.995, 0.0, -1.0}) {
    const auto out = cursor_scale(source, factor);
    EXPECT_EQ(out.pixels, source.pixels) << factor;
    EXPECT_EQ(out.width, 2);
    EXPECT_EQ(out.hot_x, 1);
  }
  EXPECT_TRUE(cursor_scale(CursorBitmap{}, 2.0).pixels.empty());
}

TEST(CursorScale, TwoPerCentAreResampled) {
  std::vector<std::uint32_t> values;
  for (std::uint32_t i = 0; i < 100; ++i) values.push_back(0xFF000000 | (i * 2));
  const auto out = cursor_scale(bitmap(100, 1, values), 1.02);
  EXPECT_EQ(out.width, 102);
  EXPECT_EQ(out.height, 1);
  EXPECT_EQ(out.pixels.size(), 102u * 4);
  // Pixel 100 lies at 100.5 x 100 / 102 - 0.5 = 98.03 of the source, whose values go up in twos.
  EXPECT_EQ(pixel(out, 100, 0), 0xFF000000u | 196);
  EXPECT_EQ(pixel(out, 50, 0), 0xFF000000u | 98);  // at 49.01
}

TEST(CursorScale, TwoPerCentLessAreResampledToo) {
  EXPECT_EQ(cursor_scale(bitmap(100, 1, std::vector<std::uint32_t>(100, WHITE)), 0.98).width, 98);
}

TEST(CursorScale, AnImageOfUniformAlphaKeepsItsColourThroughBothFilters) {
  const auto source = bitmap(7, 5, std::vector<std::uint32_t>(35, 0x80406020));
  for (const double factor : {0.5, 0.75, 1.5, 3.0}) {
    const auto out = cursor_scale(source, factor);
    for (int y = 0; y < out.height; ++y)
      for (int x = 0; x < out.width; ++x) EXPECT_EQ(pixel(out, x, y), 0x80406020u) << factor;
  }
}

TEST(CursorScale, ShrinkingAveragesOverBothAxes) {
  const auto out =
      cursor_scale(bitmap(2, 2, {0xFF000000, 0xFF000064, 0xFF0000C8, 0xFF000064}), 0.5);
  ASSERT_EQ(out.pixels.size(), 4u);
  EXPECT_EQ(pixel(out, 0, 0), 0xFF000064u);
}

TEST(CursorScale, EnlargingInterpolatesDownwardsToo) {
  const auto out = cursor_scale(bitmap(1, 2, {0xFF000000, 0xFF0000C8}), 2.0);
  ASSERT_EQ(out.height, 4);
  const std::uint32_t expected[] = {0xFF000000, 0xFF000032, 0xFF000096, 0xFF0000C8};
  for (int y = 0; y < 4; ++y) EXPECT_EQ(pixel(out, 1, y), expected[y]);
}

TEST(CursorScale, ALineThatVanishesKeepsOnePixel) {
  const auto out = cursor_scale(bitmap(1, 100, std::vector<std::uint32_t>(100, WHITE)), 0.25);
  EXPECT_EQ(out.width, 1);
  EXPECT_EQ(out.height, 25);
  EXPECT_EQ(pixel(out, 0, 24), WHITE);
}

TEST(CursorScale, ShrinkingAveragesByArea) {
  // 3 pixels into 2: each output pixel covers one and a half.
  const auto out = cursor_scale(bitmap(3, 1, {0xFF000000, 0xFF00005A, 0xFF0000B4}), 0.5);
  ASSERT_EQ(out.width, 2);
  EXPECT_EQ(out.height, 1);
  EXPECT_EQ(pixel(out, 0, 0), 0xFF00001Eu);  // (0 x 1 + 90 x 0.5) / 1.5 = 30
  EXPECT_EQ(pixel(out, 1, 0), 0xFF000096u);  // (90 x 0.5 + 180 x 1) / 1.5 = 150
}

TEST(CursorScale, EnlargingInterpolatesBetweenCentres) {
  const auto out = cursor_scale(bitmap(2, 1, {0xFF000000, 0xFF0000C8}), 2.0);
  ASSERT_EQ(out.width, 4);
  ASSERT_EQ(out.height, 2);
  for (int y = 0; y < 2; ++y) {
    EXPECT_EQ(pixel(out, 0, y), 0xFF000000u);
    EXPECT_EQ(pixel(out, 1, y), 0xFF000032u);  // a quarter of 200
    EXPECT_EQ(pixel(out, 2, y), 0xFF000096u);
    EXPECT_EQ(pixel(out, 3, y), 0xFF0000C8u);
  }
}

TEST(CursorScale, TransparentPixelsDoNotTintTheEdge) {
  // Opaque red beside transparent pixels that hold green: the mixture stays red.
  const auto out =
      cursor_scale(bitmap(2, 2, {0xFFFF0000, 0x0000FF00, 0xFFFF0000, 0x0000FF00}), 0.5);
  ASSERT_EQ(out.width, 1);
  EXPECT_EQ(pixel(out, 0, 0), 0x80FF0000u);
}

TEST(CursorScale, AnAlphaBelowOneHalfComesOutWhollyTransparent) {
  // Two of five pixels with alpha 1 average to 0.4, three to 0.6.
  std::vector<std::uint32_t> two(5, 0), three(5, 0);
  for (std::size_t i = 0; i < 3; ++i) three[i] = 0x01FFFFFF;
  for (std::size_t i = 0; i < 2; ++i) two[i] = 0x01FFFFFF;
  EXPECT_EQ(pixel(cursor_scale(bitmap(5, 1, two), 0.2), 0, 0), CLEAR);
  EXPECT_EQ(pixel(cursor_scale(bitmap(5, 1, three), 0.2), 0, 0), 0x01FFFFFFu);
}

TEST(CursorScale, TheHotSpotStaysInside) {
  const auto source = bitmap(4, 4, std::vector<std::uint32_t>(16, WHITE), 3, 3);
  const auto half = cursor_scale(source, 0.5);  // 1.5 rounds to 2
  EXPECT_EQ(half.width, 2);
  EXPECT_EQ(half.hot_x, 1);
  EXPECT_EQ(half.hot_y, 1);
  const auto tiny = cursor_scale(source, 0.01);
  EXPECT_EQ(tiny.width, 1);
  EXPECT_EQ(tiny.height, 1);
  EXPECT_EQ(tiny.hot_x, 0);
  EXPECT_EQ(pixel(tiny, 0, 0), WHITE);
  EXPECT_EQ(cursor_scale(source, 3.0).hot_x, 9);
}

TEST(CursorScale, AHotSpotAtTheFarCornerStaysAtTheFarCorner) {
  for (const double factor : {0.3, 0.5, 0.77, 1.3, 1.5, 2.0}) {
    const auto out =
        cursor_scale(bitmap(5, 3, std::vector<std::uint32_t>(15, WHITE), 4, 2), factor);
    EXPECT_LT(out.hot_x, out.width) << factor;
    EXPECT_LT(out.hot_y, out.height) << factor;
  }
}

TEST(CursorUnpremultiply, DividesByAlphaAndRounds) {
  const std::uint32_t values[] = {0xFF102030, 0x80402010, 0x01010000, 0x00000000, 0x00112233};
  Bytes out(sizeof values);
  cursor_unpremultiply(values, 5, out.data());
  // 0x40 x 255 / 0x80 = 127.5, 0x20: 63.75, 0x10: 31.9; without alpha there is no colour.
  EXPECT_EQ(out, pixels({0xFF102030, 0x80804020, 0x01FF0000, CLEAR, CLEAR}));
}

TEST(CursorUnpremultiply, PremultipliedAgainEveryPixelIsWhatItWas) {
  for (std::uint32_t alpha = 1; alpha < 256; ++alpha) {
    for (std::uint32_t colour = 0; colour <= alpha; ++colour) {
      const std::uint32_t value = alpha << 24 | colour << 16;
      Bytes out(4);
      cursor_unpremultiply(&value, 1, out.data());
      const std::uint32_t straight = out[2];
      ASSERT_EQ((straight * alpha + 127) / 255, colour) << "alpha " << alpha;
    }
  }
}

TEST(CursorUnpremultiply, AColourAboveItsAlphaBecomesTheBrightest) {
  const std::uint32_t value = 0x10FF2011;
  Bytes out(4);
  cursor_unpremultiply(&value, 1, out.data());
  EXPECT_EQ(out, pixels({0x10FFFFFF}));
}

TEST(CursorHash, KnowsTheHotSpotTheSizeAndThePixels) {
  const std::vector<std::uint32_t> values(6, WHITE);
  const auto hash = cursor_hash(bitmap(2, 3, values, 0, 0));
  EXPECT_EQ(cursor_hash(bitmap(2, 3, values, 0, 0)), hash);
  EXPECT_NE(cursor_hash(bitmap(2, 3, values, 1, 0)), hash);
  EXPECT_NE(cursor_hash(bitmap(2, 3, values, 0, 1)), hash);
  EXPECT_NE(cursor_hash(bitmap(3, 2, values, 0, 0)), hash);
  EXPECT_NE(cursor_hash(bitmap(2, 3, std::vector<std::uint32_t>(6, BLACK), 0, 0)), hash);
}

TEST(CursorHash, IsTheFoldedFnvOfShapeAndPixels) {
  EXPECT_EQ(cursor_hash(bitmap(2, 1, {0x80123456, 0xFF00FF01}, 1, 0)), 0x00F1A857u);
}

}  // namespace
