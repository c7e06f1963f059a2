#include "apps/client/paint_marker.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

// A grey picture with a marker's bits in its upper left corner.
struct MarkedPicture {
  static constexpr int SIZE = 96;
  std::vector<std::uint8_t> luma = std::vector<std::uint8_t>(SIZE * SIZE, 90);

  explicit MarkedPicture(std::uint64_t bits) {
    for (int y = 0; y < MARKER_PIXELS; ++y)
      for (int x = 0; x < MARKER_PIXELS; ++x) {
        const int square = y / MARKER_SQUARE_PIXELS * MARKER_SQUARES + x / MARKER_SQUARE_PIXELS;
        luma[static_cast<std::size_t>(y * SIZE + x)] = (bits >> (63 - square)) & 1 ? 230 : 25;
      }
  }
  DecodedPicture picture() const {
    return {SIZE, SIZE, {luma.data(), nullptr, nullptr}, {SIZE, 0, 0}};
  }
};

}  // namespace

TEST(PaintMarker, GivesBackTheTimeThatWasPainted) {
  for (const std::uint64_t time :
       {std::uint64_t{1}, std::uint64_t{123'456'789'012}, (std::uint64_t{1} << 48) - 1})
    EXPECT_EQ(read_marker(MarkedPicture(marker_bits(time)).picture()), time);
}

TEST(PaintMarker, OneWrongSquareIsNoMarker) {
  const std::uint64_t bits = marker_bits(987'654'321);
  for (int bit = 0; bit < 64; ++bit)
    EXPECT_EQ(read_marker(MarkedPicture(bits ^ std::uint64_t{1} << bit).picture()), std::nullopt)
        << "bit " << bit;
}

TEST(PaintMarker, APlainDesktopShowsNone) {
  EXPECT_EQ(read_marker(MarkedPicture(0).picture()), std::nullopt);
  EXPECT_EQ(read_marker(MarkedPicture(~std::uint64_t{0}).picture()), std::nullopt);
}

TEST(PaintMarker, APictureTooSmallForOneIsLeftAlone) {
  const MarkedPicture marked(marker_bits(1));
  DecodedPicture small = marked.picture();
  small.height = MARKER_PIXELS - 1;
  EXPECT_EQ(read_marker(small), std::nullopt);
}
