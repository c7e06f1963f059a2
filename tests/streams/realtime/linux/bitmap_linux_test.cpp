// What is converted by this platform's own code, and not by the system.
#include <gtest/gtest.h>

#include "tests/streams/dib_builder.h"

namespace {

TEST(BitmapLinux, RunLengthsAreNotConverted) {
  constexpr std::uint32_t RLE8 = 1;
  const auto block =
      DibBuilder{.bits = 8, .compression = RLE8, .rows = std::vector<std::uint8_t>(4096)}.build();
  ASSERT_TRUE(read_dib_header(block));
  Image image;
  EXPECT_FALSE(image_from_dib(block, &image));
}

TEST(BitmapLinux, MasksMayHaveAnyWidth) {
  const DibBuilder dib{.compression = DIB_BITFIELDS,
                       .masks = {0xFFFFFFFF, 0x80000000, 0},
                       .rows = {0xFF, 0xFF, 0xFF, 0xFF}};
  Image image;
  ASSERT_TRUE(image_from_dib(dib.build(), &image));
  EXPECT_EQ(image.pixels, (std::vector<std::uint8_t>{0, 255, 255, 255}));
}

}  // namespace
