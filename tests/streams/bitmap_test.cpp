#include "streams/bitmap.h"

#include <gtest/gtest.h>

#include "tests/streams/dib_builder.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::int32_t LEAST = INT32_MIN;

bool converts(const DibBuilder& dib, std::size_t cut = 0) {
  Bytes block = dib.build();
  block.resize(block.size() - cut);
  const Bytes exact(block);  // so that a sanitizer sees each byte read beyond it
  Image image;
  return image_from_dib(exact, &image);
}

Bytes pixels_of(const DibBuilder& dib) {
  Image image;
  EXPECT_TRUE(image_from_dib(dib.build(), &image));
  return image.pixels;
}

std::uint64_t pixels_at(const DibBuilder& dib) {
  const auto layout = read_dib_header(dib.build());
  EXPECT_TRUE(layout);
  return layout ? layout->pixels : 0;
}

const Bytes PIXEL{10, 20, 30, 40};

// ---- What a header must hold

TEST(Bitmap, ABlockShorterThanAHeaderIsNone) {
  Bytes block = DibBuilder{.rows = PIXEL}.build();
  for (std::size_t size = 0; size < 40; ++size)
    EXPECT_FALSE(read_dib_header(std::span(block).first(size))) << size;
  EXPECT_TRUE(read_dib_header(std::span(block).first(40)));
}

TEST(Bitmap, AHeaderSaysItsSizeAndLiesWithinTheBlock) {
  Bytes block = DibBuilder{.rows = PIXEL}.build();  // 44 bytes
  const auto with_size = [&block](std::uint32_t size) {
    store_le(block.data(), size);
    return read_dib_header(block).has_value();
  };
  EXPECT_FALSE(with_size(0));
  EXPECT_FALSE(with_size(12));
  EXPECT_FALSE(with_size(39));
  EXPECT_TRUE(with_size(40));
  EXPECT_TRUE(with_size(44));
  EXPECT_FALSE(with_size(45));
  EXPECT_FALSE(with_size(0xFFFFFFFF));
}

TEST(Bitmap, WidthIsAtLeast1AndHeightNot0) {
  EXPECT_FALSE(converts({.width = 0, .rows = PIXEL}));
  EXPECT_FALSE(converts({.width = -1, .rows = PIXEL}));
  EXPECT_FALSE(converts({.height = 0, .rows = PIXEL}));
  EXPECT_TRUE(converts({.height = -1, .rows = PIXEL}));
}

TEST(Bitmap, APictureHasAtMost268435456Pixels) {
  EXPECT_TRUE(read_dib_header(DibBuilder{.width = 0x4000, .height = 0x4000}.build()));
  EXPECT_FALSE(read_dib_header(DibBuilder{.width = 0x4000, .height = 0x4001}.build()));
  EXPECT_FALSE(read_dib_header(DibBuilder{.width = 0x4000, .height = -0x4001}.build()));
  EXPECT_FALSE(read_dib_header(DibBuilder{.width = 1, .height = LEAST}.build()));
  EXPECT_FALSE(read_dib_header(DibBuilder{.width = INT32_MAX, .height = LEAST}.build()));
}

// ---- Where the pixels begin

TEST(Bitmap, PixelsFollowAHeaderOf40BytesAndItsPalette) {
  EXPECT_EQ(pixels_at({.bits = 32}), 40u);
  EXPECT_EQ(pixels_at({.bits = 24, .colours_used = 3}), 52u);
  EXPECT_EQ(pixels_at({.bits = 8}), 40u + 4 * 256);
  EXPECT_EQ(pixels_at({.bits = 4}), 40u + 4 * 16);
  EXPECT_EQ(pixels_at({.bits = 1}), 40u + 4 * 2);
  EXPECT_EQ(pixels_at({.bits = 8, .colours_used = 5}), 60u);
  EXPECT_EQ(pixels_at({.bits = 9}), 40u);
  EXPECT_EQ(pixels_at({.bits = 24, .colours_used = 0xFFFFFFFF}), 40u + 4 * 0xFFFFFFFFull);
}

TEST(Bitmap, MasksStandBehindAHeaderOf40Bytes) {
  const std::vector<std::uint32_t> masks{1, 2, 4};
  EXPECT_EQ(pixels_at({.compression = DIB_BITFIELDS, .masks = masks}), 52u);
  EXPECT_EQ(pixels_at({.compression = DIB_BITFIELDS, .colours_used = 2, .masks = masks}), 60u);
  EXPECT_EQ(pixels_at({.bits = 4, .compression = DIB_BITFIELDS, .masks = masks}), 52u + 4 * 16);
  const auto layout =
      read_dib_header(DibBuilder{.compression = DIB_BITFIELDS, .masks = masks}.build());
  EXPECT_EQ(layout->red, 1u);
  EXPECT_EQ(layout->green, 2u);
  EXPECT_EQ(layout->blue, 4u);
  EXPECT_EQ(layout->alpha, 0u);
  EXPECT_FALSE(read_dib_header(DibBuilder{.compression = DIB_BITFIELDS, .masks = {1, 2}}.build()));
}

TEST(Bitmap, PixelsFollowALongerHeaderAndItsPalette) {
  EXPECT_EQ(pixels_at({.header_bytes = 124}), 124u);
  EXPECT_EQ(pixels_at({.header_bytes = 108, .bits = 8}), 108u + 4 * 256);
  EXPECT_EQ(pixels_at({.header_bytes = 108, .bits = 9}), 108u);
  EXPECT_EQ(pixels_at({.header_bytes = 108, .bits = 8, .colours_used = 7}), 108u + 28);
  EXPECT_EQ(pixels_at({.header_bytes = 56, .compression = DIB_BITFIELDS, .masks = {1, 2, 4, 8}}),
            56u);
}

TEST(Bitmap, MasksStandInALongerHeaderFrom52BytesOnAndAlphaFrom56On) {
  const auto masks_in = [](std::uint32_t header) {
    return *read_dib_header(DibBuilder{
        .header_bytes = header,
        .compression = DIB_BITFIELDS,
        .masks = {1, 2, 4, 8}}.build());
  };
  EXPECT_EQ(masks_in(51).red, 0xFF0000u);
  EXPECT_EQ(masks_in(51).green, 0xFF00u);
  EXPECT_EQ(masks_in(51).blue, 0xFFu);
  EXPECT_EQ(masks_in(52).red, 1u);
  EXPECT_EQ(masks_in(52).green, 2u);
  EXPECT_EQ(masks_in(52).blue, 4u);
  EXPECT_EQ(masks_in(55).alpha, 0u);
  EXPECT_EQ(masks_in(56).alpha, 8u);
}

TEST(Bitmap, RowsArePaddedTo4Bytes) {
  const auto stride = [](std::int32_t width, std::uint16_t bits) {
    return read_dib_header(DibBuilder{.width = width, .bits = bits}.build())->stride;
  };
  EXPECT_EQ(stride(1, 1), 4u);
  EXPECT_EQ(stride(32, 1), 4u);
  EXPECT_EQ(stride(33, 1), 8u);
  EXPECT_EQ(stride(1, 24), 4u);
  EXPECT_EQ(stride(3, 24), 12u);
  EXPECT_EQ(stride(5, 24), 16u);
  EXPECT_EQ(stride(5, 32), 20u);
}

// ---- Copied as they are

TEST(Bitmap, PixelsOf24BitsBecomeOpaque) {
  EXPECT_EQ(pixels_of({.width = 1, .height = 2, .bits = 24, .rows = {1, 2, 3, 99, 4, 5, 6, 99}}),
            (Bytes{4, 5, 6, 255, 1, 2, 3, 255}));
}

TEST(Bitmap, PixelsOf32BitsKeepTheirAlphaIfAnyOfThemHasOne) {
  EXPECT_EQ(pixels_of({.width = 2, .rows = {1, 2, 3, 0, 4, 5, 6, 1}}),
            (Bytes{1, 2, 3, 0, 4, 5, 6, 1}));
}

TEST(Bitmap, PixelsOf32BitsWithoutAnyAlphaBecomeOpaque) {
  EXPECT_EQ(pixels_of({.width = 2, .rows = {1, 2, 3, 0, 4, 5, 6, 0}}),
            (Bytes{1, 2, 3, 255, 4, 5, 6, 255}));
}

TEST(Bitmap, AnAlphaMaskOf0MakesOpaqueWhateverTheTopByteHas) {
  DibBuilder dib{.header_bytes = 124,
                 .compression = DIB_BITFIELDS,
                 .masks = {0xFF0000, 0xFF00, 0xFF, 0},
                 .rows = PIXEL};
  EXPECT_EQ(pixels_of(dib), (Bytes{10, 20, 30, 255}));
  dib.masks[3] = 0xFF000000;
  EXPECT_EQ(pixels_of(dib), PIXEL);
  dib.header_bytes = 40;
  dib.masks.pop_back();
  EXPECT_EQ(pixels_of(dib), (Bytes{10, 20, 30, 255}));
}

TEST(Bitmap, RowsRunUpwardsUnlessTheHeightIsNegative) {
  const Bytes rows{1, 1, 1, 255, 2, 2, 2, 255};
  EXPECT_EQ(pixels_of({.height = -2, .rows = rows}), rows);
  EXPECT_EQ(pixels_of({.height = 2, .rows = rows}), (Bytes{2, 2, 2, 255, 1, 1, 1, 255}));
}

TEST(Bitmap, ARowThatIsMissingAByteFailsTheConversion) {
  for (const std::uint16_t bits : {std::uint16_t{24}, std::uint16_t{32}}) {
    const DibBuilder dib{.width = 3, .height = 2, .bits = bits, .rows = Bytes(2 * 12)};
    EXPECT_TRUE(converts(dib)) << bits;
    EXPECT_FALSE(converts(dib, 1)) << bits;
  }
}

TEST(Bitmap, PixelsThatWouldBeginBehindTheBlockFailTheConversion) {
  EXPECT_FALSE(converts({.colours_used = 2, .rows = PIXEL}));
  EXPECT_FALSE(converts({.colours_used = 0xFFFFFFFF, .rows = PIXEL}));
}

// ---- Converted

TEST(Bitmap, PaletteOf1BitIsReadFromTheHighestBitOn) {
  EXPECT_EQ(
      pixels_of(
          {.width = 3, .bits = 1, .palette = {0x010203, 0xFFFEFD}, .rows = {0b0100'0000, 0, 0, 0}}),
      (Bytes{3, 2, 1, 255, 0xFD, 0xFE, 0xFF, 255, 3, 2, 1, 255}));
}

TEST(Bitmap, PaletteOf4And8Bits) {
  std::vector<std::uint32_t> palette(16);
  palette[15] = 0x112233;
  EXPECT_EQ(pixels_of({.width = 2, .bits = 4, .palette = palette, .rows = {0x0F, 0, 0, 0}}),
            (Bytes{0, 0, 0, 255, 0x33, 0x22, 0x11, 255}));
  EXPECT_EQ(pixels_of({.width = 2,
                       .height = -1,
                       .bits = 8,
                       .colours_used = 2,
                       .palette = {0xAABBCC, 0x112233},
                       .rows = {1, 0, 0, 0}}),
            (Bytes{0x33, 0x22, 0x11, 255, 0xCC, 0xBB, 0xAA, 255}));
}

TEST(Bitmap, AnIndexBehindThePaletteIsBlack) {
  EXPECT_EQ(
      pixels_of({.bits = 8, .colours_used = 1, .palette = {0xFFFFFF}, .rows = {200, 0, 0, 0}}),
      (Bytes{0, 0, 0, 255}));
}

TEST(Bitmap, SixteenBitsAre555UnlessMasksSayOtherwise) {
  EXPECT_EQ(pixels_of({.width = 2, .bits = 16, .rows = {0x00, 0x7C, 0xE0, 0x03}}),
            (Bytes{0, 0, 255, 255, 0, 255, 0, 255}));
  const Bytes masked = pixels_of({.width = 2,
                                  .bits = 16,
                                  .compression = DIB_BITFIELDS,
                                  .masks = {0xF800, 0x7E0, 0x1F},
                                  .rows = {0x00, 0xF8, 0x10, 0x00}});
  EXPECT_EQ(Bytes(masked.begin(), masked.begin() + 4), (Bytes{0, 0, 255, 255}));
  EXPECT_NEAR(masked[4], 16 * 255 / 31.0, 1);  // systems differ in how they round
}

TEST(Bitmap, MasksMayHaveAnyOrderAndOtherWidths) {
  EXPECT_EQ(
      pixels_of(
          {.compression = DIB_BITFIELDS, .masks = {0xFF, 0xFF00, 0xFF0000}, .rows = {1, 2, 3, 4}}),
      (Bytes{3, 2, 1, 255}));
  EXPECT_EQ(pixels_of({.compression = DIB_BITFIELDS,
                       .masks = {0x3FF00000, 0xFFC00, 0x3FF},
                       .rows = {0xFF, 0x03, 0xF0, 0x3F}}),
            (Bytes{255, 0, 255, 255}));
}

TEST(Bitmap, WhatTheSystemKnowsNoWayForFailsTheConversion) {
  constexpr std::uint32_t JPEG = 4;
  const Bytes rows(4096);
  EXPECT_FALSE(converts({.compression = JPEG, .rows = rows}));
  EXPECT_FALSE(converts({.bits = 0, .rows = rows}));
  EXPECT_FALSE(converts({.bits = 2, .rows = rows}));
  EXPECT_FALSE(converts({.bits = 48, .rows = rows}));
}

TEST(Bitmap, AConvertedRowThatIsMissingAByteFailsToo) {
  const DibBuilder dib{
      .width = 5, .height = 2, .bits = 8, .colours_used = 1, .palette = {0}, .rows = Bytes(16)};
  EXPECT_TRUE(converts(dib));
  EXPECT_FALSE(converts(dib, 1));
}

// ---- Out again

TEST(Bitmap, APictureIsLaidOverWhiteBottomRowFirst) {
  const Image image{1, 3, {0, 100, 255, 128, 7, 8, 9, 0, 7, 8, 9, 255}};
  const Bytes block = dib_over_white(image);
  const auto layout = read_dib_header(block);
  ASSERT_TRUE(layout);
  EXPECT_EQ(load_le<std::uint32_t>(block.data()), 40u);
  EXPECT_EQ(load_le<std::uint32_t>(block.data() + 8), 3u);
  EXPECT_EQ(load_le<std::uint16_t>(block.data() + 12), 1u);
  EXPECT_EQ(layout->bits, 32u);
  EXPECT_EQ(layout->compression, DIB_RGB);
  EXPECT_FALSE(layout->top_down);
  EXPECT_EQ(load_le<std::uint32_t>(block.data() + 20), 12u);
  EXPECT_EQ(Bytes(block.begin() + 40, block.end()),
            (Bytes{7, 8, 9, 255, 255, 255, 255, 255, 127, 177, 255, 255}));
}

TEST(Bitmap, CompositeRoundsToTheNearestForEveryColourAndAlpha) {
  Image image{256, 256, Bytes(256 * 256 * 4)};
  for (std::size_t a = 0; a < 256; ++a) {
    for (std::size_t c = 0; c < 256; ++c) {
      image.pixels[(a * 256 + c) * 4] = static_cast<std::uint8_t>(c);
      image.pixels[(a * 256 + c) * 4 + 3] = static_cast<std::uint8_t>(a);
    }
  }
  const Bytes block = dib_over_white(image);
  for (std::size_t a = 0; a < 256; ++a) {
    for (std::size_t c = 0; c < 256; ++c) {
      const std::size_t expected = (c * a + 255 * (255 - a) + 127) / 255;
      ASSERT_EQ(block[40 + ((255 - a) * 256 + c) * 4], expected) << c << " under " << a;
    }
  }
}

TEST(Bitmap, AFileIsAHeaderOf14BytesAndTheBlock) {
  const Bytes block = dib_over_white({2, 1, {1, 2, 3, 255, 4, 5, 6, 255}});
  const Bytes file = bmp_file_from_dib(block);
  ASSERT_EQ(file.size(), block.size() + 14);
  EXPECT_EQ(file[0], 'B');
  EXPECT_EQ(file[1], 'M');
  EXPECT_EQ(load_le<std::uint32_t>(&file[2]), file.size());
  EXPECT_EQ(load_le<std::uint32_t>(&file[10]), 54u);
  EXPECT_EQ(dib_from_bmp_file(file), block);
}

TEST(Bitmap, AGapBeforeTheFilesPixelsGoes) {
  const Bytes block = DibBuilder{.rows = PIXEL}.build();
  Bytes file = bmp_file_from_dib(block);
  file.insert(file.begin() + 54, 6, 0xEE);
  store_le(&file[10], std::uint32_t{60});
  EXPECT_EQ(dib_from_bmp_file(file), block);
}

TEST(Bitmap, WhatIsNoFileGivesNoBlock) {
  const Bytes file = bmp_file_from_dib(DibBuilder{.rows = PIXEL}.build());
  EXPECT_TRUE(dib_from_bmp_file({}).empty());
  EXPECT_TRUE(dib_from_bmp_file(std::span(file).first(13)).empty());
  EXPECT_TRUE(dib_from_bmp_file(std::span(file).first(53)).empty());
  Bytes other = file;
  other[0] = 'X';
  EXPECT_TRUE(dib_from_bmp_file(other).empty());
  for (const std::uint32_t at : {0u, 13u, 59u, 0xFFFFFFFFu}) {
    other = file;
    store_le(&other[10], at);
    EXPECT_TRUE(dib_from_bmp_file(other).empty()) << at;
  }
  EXPECT_TRUE(bmp_file_from_dib({}).empty());
}

}  // namespace
