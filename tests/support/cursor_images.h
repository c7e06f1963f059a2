// Pointer images for tests: one that has every alpha, and what a client should see of it.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/cursor_convert.h"

// Square; every alpha from 0 to 255 and colours up to it, as a soft shadow has them. Premultiplied,
// alpha topmost, rows top-down.
inline std::vector<std::uint32_t> premultiplied_image(int side) {
  std::vector<std::uint32_t> pixels;
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      const auto alpha = static_cast<std::uint32_t>((y * side + x) * 7 % 256);
      const auto part = static_cast<std::uint32_t>(x * 255 / (side - 1));
      pixels.push_back(alpha << 24 | alpha * part / 255 << 16 | alpha / 2 << 8 | alpha);
    }
  }
  return pixels;
}

// Of a premultiplied image, worked out in another way than the product does.
inline CursorBitmap straight_image(int width, int height,
                                   const std::vector<std::uint32_t>& premultiplied, int hot_x,
                                   int hot_y) {
  CursorBitmap image{width, height, hot_x, hot_y, {}};
  for (const std::uint32_t pixel : premultiplied) {
    const double alpha = pixel >> 24;
    for (unsigned shift = 0; shift < 24; shift += 8) {
      const double colour = pixel >> shift & 0xFF;
      image.pixels.push_back(
          static_cast<std::uint8_t>(alpha > 0 ? std::floor(colour * 255 / alpha + 0.5) : 0));
    }
    image.pixels.push_back(static_cast<std::uint8_t>(pixel >> 24));
  }
  return image;
}
