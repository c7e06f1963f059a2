#include "capture/cursor_icon.h"

#include <gtest/gtest.h>

#include "tests/support/fake_pointer.h"

namespace {

using fake_capture::Icon;
using Masks = std::vector<std::uint8_t>;
using Pixels = std::vector<std::uint32_t>;

constexpr std::uint32_t CLEAR = 0, BLACK = 0xFF000000, WHITE = 0xFFFFFFFF;

std::uint32_t pixel(const CursorBitmap& image, int x, int y) {
  return load_le<std::uint32_t>(&image.pixels[static_cast<std::size_t>(y * image.width + x) * 4]);
}

std::optional<CursorBitmap> converted(const Icon& icon) {
  int open = 0;
  fake_capture::FakeIcon fake(icon, open);
  CursorBitmap image;
  if (convert_icon(fake, &image)) return image;
  EXPECT_TRUE(image.pixels.empty()) << "a refusal leaves the result as it was";
  return std::nullopt;
}

TEST(CursorIcon, ColourWhoseAlphaIsAll0TakesItFromTheMask) {
  const auto image =
      converted({2, 2, {0x112233, 0x445566, 0x778899, 0}, {0x40, 0, 0, 0, 0x80, 0, 0, 0}, 1, 0});
  ASSERT_TRUE(image);
  EXPECT_EQ(pixel(*image, 0, 0), 0xFF112233u);
  EXPECT_EQ(pixel(*image, 1, 0), 0x00445566u);
  EXPECT_EQ(pixel(*image, 0, 1), 0x00778899u);
  EXPECT_EQ(pixel(*image, 1, 1), BLACK);
  EXPECT_EQ(image->hot_x, 1);
}

TEST(CursorIcon, MaskOfAWideColourCursorGoesOnInItsNextBytes) {
  Masks mask(8, 0xFF);
  mask[4] = 0x7F;  // pixel 32
  const auto image = converted({33, 1, Pixels(33, 0x123456), mask, 0, 0});
  ASSERT_TRUE(image);
  EXPECT_EQ(pixel(*image, 31, 0), 0x00123456u);
  EXPECT_EQ(pixel(*image, 32, 0), 0xFF123456u);
}

TEST(CursorIcon, ColourWithAnyAlphaKeepsItsOwn) {
  const auto image = converted({2, 1, {0x00112233, 0x01445566}, {0, 0, 0, 0}, 0, 0});
  ASSERT_TRUE(image);
  EXPECT_EQ(pixel(*image, 0, 0), 0x00112233u);
  EXPECT_EQ(pixel(*image, 1, 0), 0x01445566u);
}

TEST(CursorIcon, ColourWithoutMaskKeepsItsAlphaOf0) {
  const auto image = converted({1, 1, {0x00112233}, {}, 0, 0});
  ASSERT_TRUE(image);
  EXPECT_EQ(pixel(*image, 0, 0), 0x00112233u);
}

TEST(CursorIcon, MonochromeIsMadeOfItsTwoMasks) {
  // 33 pixels a row, so that a row takes 8 bytes; the first two rows are AND, the others XOR.
  Masks mask(40, 0);
  mask[0] = 0x7F;  // pixel 0 black, the next 31 transparent
  mask[1] = mask[2] = mask[3] = 0xFF;
  mask[4] = 0x80;   // pixel 32 transparent
  mask[24] = 0x80;  // pixel 0 of the second row white
  const auto image = converted({33, 5, {}, mask, 40, 1});
  ASSERT_TRUE(image);
  EXPECT_EQ(image->width, 33);
  EXPECT_EQ(image->height, 2) << "an odd row is left out";
  EXPECT_EQ(pixel(*image, 0, 0), BLACK);
  EXPECT_EQ(pixel(*image, 1, 0), CLEAR);
  EXPECT_EQ(pixel(*image, 32, 0), CLEAR);
  EXPECT_EQ(pixel(*image, 0, 1), WHITE);
  EXPECT_EQ(pixel(*image, 1, 1), BLACK);
  EXPECT_EQ(image->hot_x, 32);
}

TEST(CursorIcon, Of256PixelsIsTheLargest) {
  EXPECT_TRUE(converted({256, 256, Pixels(256 * 256, WHITE), {}, 0, 0}));
  EXPECT_TRUE(converted({256, 513, {}, Masks(32 * 513), 0, 0}));
  const Pixels pixels(300 * 300, WHITE);
  const Masks mask(300 * 2 * 40);
  for (const Icon& icon : {Icon{300, 300, pixels, {}, 0, 0}, Icon{257, 1, pixels, {}, 0, 0},
                           Icon{1, 257, pixels, {}, 0, 0}, Icon{300, 600, {}, mask, 0, 0},
                           Icon{257, 2, {}, mask, 0, 0}, Icon{8, 514, {}, mask, 0, 0}}) {
    EXPECT_FALSE(converted(icon)) << icon.width << " x " << icon.height;
  }
}

TEST(CursorIcon, WithoutPixelsIsNone) {
  EXPECT_FALSE(converted({8, 1, {}, Masks(8), 0, 0})) << "half a row for each mask";
  EXPECT_FALSE(converted({0, 4, {}, Masks(8), 0, 0}));
  EXPECT_FALSE(converted({0, 1, {WHITE}, {}, 0, 0}));
  EXPECT_FALSE(converted({1, 0, {WHITE}, {}, 0, 0}));
  EXPECT_FALSE(converted({1, 1, {}, {}, 0, 0})) << "neither bitmap";
}

TEST(CursorIcon, ThatCannotBeReadIsNone) {
  const Icon readable{1, 2, {0, 0}, Masks(8), 0, 0};
  ASSERT_TRUE(converted(readable));
  Icon unsized = readable;
  unsized.sized = false;
  EXPECT_FALSE(converted(unsized));
  Icon colourless = readable;
  colourless.colour_reads = false;
  EXPECT_FALSE(converted(colourless));
  Icon maskless = readable;
  maskless.mask_reads = false;
  EXPECT_FALSE(converted(maskless)) << "its alpha is wanted from there";
  maskless.colour.clear();
  EXPECT_FALSE(converted(maskless));
}

}  // namespace
