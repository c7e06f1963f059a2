#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "streams/clipboard.h"
#include "streams/png_fit.h"
#include "tests/streams/clipboard_rig.h"
#include "tests/streams/png_builder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

Bytes decoded(const PngBuilder& kind, std::uint32_t width, std::uint32_t height,
              const Bytes& rows) {
  Image image;
  EXPECT_TRUE(decode_png(kind.build(width, height, rows), &image));
  return image.pixels;
}

bool decodes(const Bytes& png) {
  Image image;
  const Bytes exact(png);
  return decode_png(exact, &image);
}

Image noise(std::uint32_t width, std::uint32_t height) {
  Image image{width, height, clipboard_rig::item_of(std::size_t{width} * height * 4)};
  return image;
}

// ---- Codec

TEST(Png, APictureComesBackByteForByteUnderAnyAlpha) {
  const Image image = noise(61, 47);
  Bytes png;
  ASSERT_TRUE(encode_png(image, &png));
  Image back;
  ASSERT_TRUE(decode_png(png, &back));
  EXPECT_EQ(back.width, 61u);
  EXPECT_EQ(back.height, 47u);
  EXPECT_EQ(back.pixels, image.pixels);
}

TEST(Png, EachColourTypeIsRead) {
  EXPECT_EQ(decoded({PngColours::Rgb}, 1, 1, {1, 2, 3}), (Bytes{3, 2, 1, 255}));
  EXPECT_EQ(decoded({PngColours::Rgba}, 1, 1, {1, 2, 3, 4}), (Bytes{3, 2, 1, 4}));
  EXPECT_EQ(decoded({PngColours::Grey}, 1, 1, {9}), (Bytes{9, 9, 9, 255}));
  EXPECT_EQ(decoded({PngColours::GreyAlpha}, 1, 1, {9, 5}), (Bytes{9, 9, 9, 5}));
  const PngBuilder palette{.colours = PngColours::Palette, .palette = {1, 2, 3, 4, 5, 6}};
  EXPECT_EQ(decoded(palette, 2, 1, {1, 0}), (Bytes{6, 5, 4, 255, 3, 2, 1, 255}));
}

TEST(Png, FewBitsAPixelAreRead) {
  EXPECT_EQ(decoded({PngColours::Grey, 1}, 2, 1, {0b0100'0000}),
            (Bytes{0, 0, 0, 255, 255, 255, 255, 255}));
  EXPECT_EQ(decoded({PngColours::Grey, 2}, 1, 1, {0b0100'0000}), (Bytes{85, 85, 85, 255}));
  EXPECT_EQ(decoded({PngColours::Grey, 4}, 1, 1, {0xF0}), (Bytes{255, 255, 255, 255}));
}

TEST(Png, SixteenBitsAChannelBecomeEight) {
  EXPECT_EQ(decoded({PngColours::Rgba, 16}, 1, 1, {10, 10, 20, 20, 30, 30, 40, 40}),
            (Bytes{30, 20, 10, 40}));
  EXPECT_EQ(decoded({PngColours::Grey, 16}, 1, 1, {77, 77}), (Bytes{77, 77, 77, 255}));
}

TEST(Png, TransparencyIsReadOfEachKind) {
  const PngBuilder palette{
      .colours = PngColours::Palette, .palette = {1, 2, 3, 4, 5, 6}, .palette_alpha = {0, 128}};
  EXPECT_EQ(decoded(palette, 2, 1, {1, 0})[3], 128);
  const Bytes grey = decoded({.colours = PngColours::Grey, .transparent = {9}}, 2, 1, {9, 10});
  EXPECT_EQ(grey[3], 0);
  EXPECT_EQ(grey[7], 255);
  const Bytes colour =
      decoded({.colours = PngColours::Rgb, .transparent = {1, 2, 3}}, 2, 1, {1, 2, 3, 1, 2, 4});
  EXPECT_EQ(colour[3], 0);
  EXPECT_EQ(colour[7], 255);
}

TEST(Png, AnInterlacedPictureIsRead) {
  const Image image = noise(19, 23);
  Bytes rgba = image.pixels;
  for (std::size_t i = 0; i < rgba.size(); i += 4) std::swap(rgba[i], rgba[i + 2]);
  EXPECT_EQ(decoded({.colours = PngColours::Rgba, .interlaced = true}, 19, 23, rgba), image.pixels);
}

TEST(Png, WhatEndsEarlyOrIsChangedIsNoPictureOrOneOfItsSize) {
  Bytes png;
  ASSERT_TRUE(encode_png(noise(8, 8), &png));
  EXPECT_FALSE(decodes({}));
  // Of the last chunk, 12 bytes without content, a reader may do without.
  for (std::size_t size = 0; size < png.size() - 12; ++size)
    EXPECT_FALSE(decodes(Bytes(png.begin(), png.begin() + static_cast<std::ptrdiff_t>(size))))
        << size;
  for (std::size_t i = 0; i < png.size(); ++i) {
    Bytes changed = png;
    changed[i] ^= 0x10;
    Image image;
    if (decode_png(changed, &image)) {
      EXPECT_EQ(image.pixels.size(), std::size_t{image.width} * image.height * 4) << i;
    }
  }
}

// The header is whole, so nothing but its claim is wrong.
TEST(Png, AFileTooShortForThePictureThatItClaimsGetsNoMemory) {
  for (const std::uint8_t depth : {std::uint8_t{1}, std::uint8_t{8}}) {
    Bytes png = PngBuilder{PngColours::Grey, depth}.build(16'384, 16'384, {});
    const std::size_t least = 16'384ull * 16'384 * depth / 8 / 1'032;
    Image image;
    png.resize(least);
    EXPECT_FALSE(decode_png(png, &image));
    EXPECT_TRUE(image.pixels.empty());
  }
}

// ---- Scaling

// The average of the area that a pixel of `out` covers, alpha and all, in real numbers.
double overlap(std::uint32_t to, double ratio, std::uint32_t from) {
  return std::max(std::min((to + 1) * ratio, from + 1.0) - std::max(to * ratio, from + 0.0), 0.0);
}

std::array<double, 4> area_average(const Image& image, const Image& out, std::uint32_t x,
                                   std::uint32_t y) {
  const double ratio_x = static_cast<double>(image.width) / out.width;
  const double ratio_y = static_cast<double>(image.height) / out.height;
  std::array<double, 4> sum{};
  for (std::uint32_t v = 0; v < image.height; ++v) {
    for (std::uint32_t u = 0; u < image.width; ++u) {
      const double covered = overlap(x, ratio_x, u) * overlap(y, ratio_y, v);
      const std::uint8_t* pixel = &image.pixels[(std::size_t{v} * image.width + u) * 4];
      for (std::size_t c = 0; c < 3; ++c) sum[c] += covered * pixel[c] * pixel[3];
      sum[3] += covered * pixel[3];
    }
  }
  for (std::size_t c = 0; c < 3; ++c) sum[c] = sum[3] > 0 ? sum[c] / sum[3] : 0;
  sum[3] /= ratio_x * ratio_y;
  return sum;
}

// A colour as far as it shows: under little alpha a system may keep few bits of it.
double shown(const std::uint8_t* pixel, std::size_t channel) {
  return channel < 3 ? pixel[channel] * pixel[3] / 255.0 : pixel[3];
}

TEST(ScaledImage, APixelIsTheAverageOfWhatItCoversWeightedByAlpha) {
  const Image image = noise(40, 30);
  for (const auto& [width, height] :
       {std::pair{20u, 15u}, std::pair{10u, 6u}, {36u, 27u}, {13u, 7u}}) {
    Image out;
    ASSERT_TRUE(scale_image(image, width, height, &out));
    ASSERT_EQ(out.pixels.size(), width * height * 4);
    for (std::uint32_t y = 0; y < height; ++y) {
      for (std::uint32_t x = 0; x < width; ++x) {
        const auto expected = area_average(image, out, x, y);
        const std::uint8_t* pixel = &out.pixels[(y * width + x) * 4];
        for (std::size_t c = 0; c < 4; ++c) {
          ASSERT_NEAR(shown(pixel, c), c < 3 ? expected[c] * expected[3] / 255 : expected[3], 2)
              << width << "x" << height << " at " << x << "," << y << " channel " << c;
        }
      }
    }
  }
}

TEST(ScaledImage, WhatIsTransparentHasNoColourToGive) {
  // Blue columns beside transparent red ones: half a blue, not a purple.
  Image image{16, 16, {}};
  for (int i = 0; i < 16 * 16 / 2; ++i)
    image.pixels.insert(image.pixels.end(), {255, 0, 0, 255, 0, 0, 255, 0});
  Image out;
  ASSERT_TRUE(scale_image(image, 8, 8, &out));
  for (std::size_t i = 0; i < out.pixels.size(); i += 4) {
    ASSERT_EQ(out.pixels[i], 255);
    ASSERT_EQ(out.pixels[i + 1], 0);
    ASSERT_EQ(out.pixels[i + 2], 0);
    ASSERT_NEAR(out.pixels[i + 3], 128, 1);
  }
}

TEST(ScaledImage, OneColourStaysWhateverTheSizes) {
  Image image{97, 61, {}};
  for (int i = 0; i < 97 * 61; ++i) image.pixels.insert(image.pixels.end(), {13, 200, 99, 77});
  for (const std::uint32_t side : {1u, 2u, 7u, 30u, 60u}) {
    Image out;
    ASSERT_TRUE(scale_image(image, side, side, &out));
    for (std::size_t i = 0; i < out.pixels.size(); ++i)
      ASSERT_NEAR(shown(&out.pixels[i / 4 * 4], i % 4), shown(&image.pixels[0], i % 4), 1) << side;
  }
}

// ---- Fitting

// A codec whose files have as many bytes as the test says, and which writes down what it is asked.
struct Asked {
  std::vector<std::string> calls;
  std::vector<std::size_t> sizes;  // of the files to come
  bool decode_fails = false;
  bool scale_fails = false;
  bool encode_fails = false;
  Image decoded{4'000, 2'500, {}};
};
Asked* asked;

std::string size_of(const Image& image) {
  return std::to_string(image.width) + "x" + std::to_string(image.height);
}

const PngFitting COUNTING{
    .encode =
        [](const Image& image, Bytes* png) {
          asked->calls.push_back("encode " + size_of(image));
          if (asked->encode_fails || asked->sizes.empty()) return false;
          png->assign(asked->sizes.front(), 0);
          asked->sizes.erase(asked->sizes.begin());
          return true;
        },
    .decode =
        [](std::span<const std::uint8_t>, Image* out) {
          asked->calls.push_back("decode");
          *out = asked->decoded;
          return !asked->decode_fails;
        },
    .scale =
        [](const Image& source, std::uint32_t width, std::uint32_t height, Image* out) {
          *out = {width, height, {}};
          asked->calls.push_back("scale " + size_of(source) + " to " + size_of(*out));
          return !asked->scale_fails;
        }};

class PngForSending : public testing::Test {
 protected:
  PngForSending() { asked = &record; }
  std::optional<Bytes> fit(std::size_t size, const Image* source = nullptr) {
    return png_for_sending(
        Bytes(size), source, [this](const std::string& line) { lines.push_back(line); }, COUNTING);
  }
  Asked record;
  std::vector<std::string> lines;
};

TEST_F(PngForSending, SixteenMebibytesPassAsTheyAre) {
  const auto png = fit(16'777'216);
  ASSERT_TRUE(png);
  EXPECT_EQ(png->size(), 16'777'216u);
  EXPECT_THAT(record.calls, IsEmpty());
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(PngForSending, APngOf40MegabytesIsScaledOnce) {
  record.sizes = {15'000'000};
  // 0.95 x sqrt(16777216 / 40000000) = 0.61525...
  const auto png = fit(40'000'000);
  ASSERT_TRUE(png);
  EXPECT_EQ(png->size(), 15'000'000u);
  EXPECT_THAT(record.calls,
              ElementsAre("decode", "scale 4000x2500 to 2461x1538", "encode 2461x1538"));
  EXPECT_THAT(lines, ElementsAre("clipboard: image 4000x2500 downscaled to 2461x1538 "
                                 "(15000000 B PNG) to fit 16 MB"));
}

TEST_F(PngForSending, EachRoundStartsFromTheSourcePicture) {
  record.sizes = {20'000'000, 17'000'000, 16'777'216};
  const Image source{1'000, 1'000, {}};
  ASSERT_TRUE(fit(30'000'000, &source));
  double scale = 0.95 * std::sqrt(16'777'216.0 / 30'000'000);
  std::vector<std::string> expected;
  for (const double size : {20'000'000.0, 17'000'000.0, 0.0}) {
    const std::string side = std::to_string(static_cast<int>(1'000 * scale));
    expected.push_back("scale 1000x1000 to " + side + "x" + side);
    expected.push_back("encode " + side + "x" + side);
    if (size > 0) scale *= std::min(0.95 * std::sqrt(16'777'216.0 / size), 0.9);
  }
  EXPECT_EQ(record.calls, expected);
  EXPECT_EQ(lines.size(), 3u);
}

TEST_F(PngForSending, ARoundTakesNoMoreThanSevenTenthsAndNoLessThanOne) {
  record.sizes = {16'777'217, 1};
  const Image source{1'000, 10, {}};
  ASSERT_TRUE(fit(200'000'000, &source));  // the estimates are 0.275 and 0.95
  EXPECT_THAT(record.calls, ElementsAre("scale 1000x10 to 300x3", "encode 300x3",
                                        "scale 1000x10 to 270x2", "encode 270x2"));
}

TEST_F(PngForSending, NoSideEverFallsBelowOne) {
  record.sizes = {200'000'000, 200'000'000, 1};
  const Image source{5, 1, {}};
  ASSERT_TRUE(fit(200'000'000, &source));
  EXPECT_THAT(record.calls, ElementsAre("scale 5x1 to 1x1", "encode 1x1", "scale 5x1 to 1x1",
                                        "encode 1x1", "scale 5x1 to 1x1", "encode 1x1"));
}

TEST_F(PngForSending, EachFailureHasItsLine) {
  record.decode_fails = true;
  EXPECT_FALSE(fit(20'000'000));
  EXPECT_THAT(lines, ElementsAre("clipboard: local PNG could not be decoded"));
  lines.clear();
  record.decode_fails = false;
  record.scale_fails = true;
  EXPECT_FALSE(fit(20'000'000));
  record.scale_fails = false;
  record.encode_fails = true;
  EXPECT_FALSE(fit(20'000'000));
  const std::string line = "clipboard: local image could not be downscaled";
  EXPECT_THAT(lines, ElementsAre(line, line));
}

TEST(PngFit, ARealPictureOfMoreThan16MegabytesIsMadeToFit) {
  const Image source = noise(2'300, 2'000);  // noise doesn't compress: 18.4 MB
  Bytes png;
  ASSERT_TRUE(encode_png(source, &png));
  ASSERT_GT(png.size(), LUND_CLIP_IMAGE_MAX);
  std::vector<std::string> lines;
  const auto fitted =
      png_for_sending(png, nullptr, [&lines](const std::string& line) { lines.push_back(line); });
  ASSERT_TRUE(fitted);
  EXPECT_LE(fitted->size(), LUND_CLIP_IMAGE_MAX);
  Image image;
  ASSERT_TRUE(decode_png(*fitted, &image));
  EXPECT_LT(image.width, source.width);
  EXPECT_GT(image.width, source.width / 2);
  EXPECT_NEAR(image.width * 2'000.0 / image.height, 2'300, 5);
  EXPECT_EQ(lines.size(), 1u);
}

}  // namespace
