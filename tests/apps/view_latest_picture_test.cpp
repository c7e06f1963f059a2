#include "apps/client/view/latest_picture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "apps/client/picture.h"

namespace {

// A picture of one colour, as the host's encoder would make it: BT.709, full range.
struct Flat {
  Flat(int w, int h, int red, int green, int blue) : width(w), height(h) {
    const double luma = 0.2126 * red + 0.7152 * green + 0.0722 * blue;
    auto byte = [](double value) {
      return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
    };
    const auto chroma = static_cast<std::size_t>((w / 2) * (h / 2));
    y.assign(static_cast<std::size_t>(w * h), byte(luma));
    cb.assign(chroma, byte(128 + (blue - luma) / 1.8556));
    cr.assign(chroma, byte(128 + (red - luma) / 1.5748));
  }
  DecodedPicture decoded() const {
    DecodedPicture picture;
    picture.width = width;
    picture.height = height;
    picture.planes[0] = y.data();
    picture.planes[1] = cb.data();
    picture.planes[2] = cr.data();
    picture.strides[0] = width;
    picture.strides[1] = picture.strides[2] = width / 2;
    return picture;
  }
  int width, height;
  std::vector<std::uint8_t> y, cb, cr;
};

TEST(LatestPicture, ColoursAreThoseOfTheStream) {
  const std::uint32_t colours[] = {0x000000, 0xFFFFFF, 0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00,
                                   0x00FFFF, 0xFF00FF, 0x808080, 0x123456, 0xC08040, 0x202020};
  for (const std::uint32_t colour : colours) {
    const int rgb[] = {static_cast<int>(colour >> 16), static_cast<int>(colour >> 8 & 0xFF),
                       static_cast<int>(colour & 0xFF)};
    const Flat flat(64, 32, rgb[0], rgb[1], rgb[2]);
    LatestPicture latest;
    ASSERT_TRUE(latest.offer(flat.decoded(), {}, 1));
    const ShownPicture* shown = latest.take();
    ASSERT_TRUE(shown);
    const RgbPicture exact = to_rgb(flat.decoded());
    const std::size_t middle = 64 * 16 + 32;
    for (std::size_t c = 0; c < 3; ++c)
      EXPECT_NEAR(shown->pixels[4 * middle + 2 - c], exact.pixels[3 * middle + c], 2)
          << std::hex << colour << " channel " << c;
  }
}

TEST(LatestPicture, EveryGreyIsExact) {
  LatestPicture latest;
  for (int grey = 0; grey < 256; ++grey) {
    ASSERT_TRUE(latest.offer(Flat(32, 16, grey, grey, grey).decoded(), {}, 1));
    const ShownPicture* shown = latest.take();
    for (std::size_t c = 0; c < 3; ++c) EXPECT_EQ(shown->pixels[4 * 100 + c], grey);
  }
}

TEST(LatestPicture, TheNewestWinsAndIsTakenOnce) {
  LatestPicture latest;
  EXPECT_EQ(latest.take(), nullptr);
  const Flat dark(32, 16, 10, 10, 10);
  const Flat light(32, 16, 200, 200, 200);
  latest.offer(dark.decoded(), {}, 1);
  latest.offer(light.decoded(), {}, 2);
  const ShownPicture* shown = latest.take();
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->serial, 2U);
  EXPECT_EQ(shown->decoded_us, 2U);
  EXPECT_EQ(shown->pixels[0], 200);
  EXPECT_EQ(latest.replaced(), 1U);
  EXPECT_EQ(latest.take(), nullptr);
}

TEST(LatestPicture, WhatIsShownStaysWholeWhileNewerOnesCome) {
  LatestPicture latest;
  latest.offer(Flat(32, 16, 10, 10, 10).decoded(), {}, 1);
  const ShownPicture* shown = latest.take();
  const std::vector<std::uint8_t> pixels = shown->pixels;
  for (int i = 0; i < 5; ++i) latest.offer(Flat(32, 16, 50 * i, 0, 0).decoded(), {}, 2);
  EXPECT_EQ(shown->pixels, pixels);
  EXPECT_EQ(shown->serial, 1U);
}

TEST(LatestPicture, AnotherSizeIsFollowed) {
  LatestPicture latest;
  latest.offer(Flat(32, 16, 10, 10, 10).decoded(), {}, 1);
  latest.offer(Flat(64, 48, 10, 10, 10).decoded(), {}, 2);
  const ShownPicture* shown = latest.take();
  EXPECT_EQ(shown->width, 64);
  EXPECT_EQ(shown->height, 48);
  EXPECT_EQ(shown->pixels.size(), 64U * 48 * 4);
}

}  // namespace
