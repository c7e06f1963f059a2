#include "apps/client/picture.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <vector>

namespace {

// One colour all over, 4:2:0.
struct PlainPicture {
  std::vector<std::uint8_t> y, u, v;
  int width, height;

  PlainPicture(int w, int h, std::array<std::uint8_t, 3> yuv)
      : y(static_cast<std::size_t>(w * h), yuv[0]),
        u(static_cast<std::size_t>((w + 1) / 2 * ((h + 1) / 2)), yuv[1]),
        v(u.size(), yuv[2]),
        width(w),
        height(h) {}
  DecodedPicture picture() const {
    return {
        width, height, {y.data(), u.data(), v.data()}, {width, (width + 1) / 2, (width + 1) / 2}};
  }
};

void expect_colour(std::array<std::uint8_t, 3> yuv, std::array<int, 3> rgb) {
  const RgbPicture picture = to_rgb(PlainPicture(5, 3, yuv).picture());
  ASSERT_EQ(picture.pixels.size(), 5U * 3U * 3U);
  for (std::size_t i = 0; i < picture.pixels.size(); ++i)
    EXPECT_NEAR(picture.pixels[i], rgb[i % 3], 1) << "byte " << i;
}

}  // namespace

TEST(Picture, ColoursAreBt709FullRange) {
  expect_colour({0, 128, 128}, {0, 0, 0});
  expect_colour({255, 128, 128}, {255, 255, 255});
  expect_colour({54, 99, 255}, {255, 0, 0});  // ITU-R BT.709: Y = 0.2126 of 255
  expect_colour({182, 30, 12}, {0, 255, 0});
  expect_colour({18, 255, 116}, {0, 0, 255});
}

TEST(Picture, APngThatCannotBeWrittenLeavesNothing) {
  const RgbPicture picture = to_rgb(PlainPicture(4, 4, {10, 128, 128}).picture());
  EXPECT_FALSE(write_png("/proc/no/such/place.png", picture));
  const auto path = std::filesystem::temp_directory_path() / "lunderhaze-picture-test.png";
  EXPECT_TRUE(write_png(path, picture));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_FALSE(std::filesystem::exists(path.string() + ".tmp"));
  std::filesystem::remove(path);
}
