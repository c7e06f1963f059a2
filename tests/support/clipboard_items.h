// What the clipboard's tests copy: large and reproducible. For programs that link lund_streams.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "streams/png_codec.h"

// Letters, without a period that a lost or doubled piece could hide in.
inline std::string large_text(std::size_t size) {
  std::string text(size, 0);
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * i / 7 + i) % 26);
  return text;
}

inline std::string text_of(const std::vector<std::uint8_t>& bytes) {
  return {bytes.begin(), bytes.end()};
}

// Square, and nothing that compresses: its PNG is about as large as its pixels.
inline Image noise_picture(std::uint32_t side, bool opaque = false) {
  Image image{side, side, {}};
  image.pixels.resize(std::size_t{side} * side * IMAGE_PIXEL_BYTES);
  std::uint32_t state = 1;
  for (std::uint8_t& channel : image.pixels) {
    state = state * 1'664'525u + 1'013'904'223u;
    channel = static_cast<std::uint8_t>(state >> 24);
  }
  for (std::size_t i = 3; opaque && i < image.pixels.size(); i += IMAGE_PIXEL_BYTES)
    image.pixels[i] = 255;
  return image;
}

inline std::vector<std::uint8_t> png_of(const Image& image) {
  std::vector<std::uint8_t> png;
  EXPECT_TRUE(encode_png(image, &png));
  return png;
}

inline std::vector<std::uint8_t> noise_png(std::uint32_t side) {
  return png_of(noise_picture(side));
}
