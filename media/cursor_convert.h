// Pointer images as a client wants them: straight-alpha 32-bit pixels, scaled to the encoded
// picture, with a short identity. Pure computation on bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct CursorBitmap {
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t hot_x = 0;  // always inside the image
  std::int32_t hot_y = 0;
  std::vector<std::uint8_t> pixels;  // width x height x 4, rows top-down; blue, green, red, alpha
};

enum CursorShapeType : int {
  CURSOR_MONOCHROME = 1,    // two 1-bit masks, AND rows over XOR rows; `height` counts both
  CURSOR_COLOUR = 2,        // 32-bit pixels with alpha
  CURSOR_MASKED_COLOUR = 4  // 32-bit pixels whose top byte is a mask
};

bool cursor_convert(int type, const std::uint8_t* data, std::uint64_t size, int width, int height,
                    int pitch, int hot_x, int hot_y, CursorBitmap* out);
CursorBitmap cursor_scale(const CursorBitmap& source, double factor);
std::uint32_t cursor_hash(const CursorBitmap& cursor);

// Pixels with premultiplied alpha in 32-bit values, alpha topmost, as CURSOR_COLOUR's bytes. A
// colour above its alpha, which no premultiplied pixel has, becomes the brightest.
void cursor_unpremultiply(const std::uint32_t* pixels, std::size_t count, std::uint8_t* out);
