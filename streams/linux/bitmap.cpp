// There is no part of the system to ask here: palettes and masks are converted by the code below;
// run-length compression, which hardly a program puts on a clipboard, is not.
#include <bit>

#include "connection/byte_order.h"
#include "streams/bitmap.h"

namespace {

using Row = const std::uint8_t*;

// The palette's index of a pixel; the leftmost pixel of a byte is in its highest bits.
std::uint32_t index_at(Row row, std::uint32_t x, std::uint32_t bits) {
  const std::uint64_t first = std::uint64_t{x} * bits;
  return row[first / 8] >> (8 - bits - first % 8) & ((1u << bits) - 1);
}

// Of any width and place; nothing but 0 under an empty mask.
std::uint8_t masked(std::uint32_t pixel, std::uint32_t mask) {
  if (mask == 0) return 0;
  const int shift = std::countr_zero(mask);
  const std::uint64_t most = mask >> shift;
  return static_cast<std::uint8_t>(((pixel & mask) >> shift) * std::uint64_t{255} / most);
}

bool has_palette(const DibLayout& layout) {
  return layout.compression == DIB_RGB &&
         (layout.bits == 1 || layout.bits == 4 || layout.bits == 8);
}

// The masks by which pixels of 16 or 32 bits are read; false for any other kind.
bool find_masks(DibLayout* layout) {
  if (layout->bits != 16 && layout->bits != 32) return false;
  if (layout->compression == DIB_BITFIELDS) return true;
  layout->red = 0x7C00;
  layout->green = 0x3E0;
  layout->blue = 0x1F;
  return layout->compression == DIB_RGB && layout->bits == 16;
}

void from_palette(Row row, const DibLayout& layout, const std::uint8_t* palette, std::uint8_t* to) {
  for (std::uint32_t x = 0; x < layout.width; ++x, to += 4) {
    const std::uint32_t index = index_at(row, x, layout.bits);
    for (std::uint32_t c = 0; c < 3 && index < layout.colours; ++c) to[c] = palette[index * 4 + c];
  }
}

void from_masks(Row row, const DibLayout& layout, std::uint8_t* to) {
  for (std::uint32_t x = 0; x < layout.width; ++x, to += 4) {
    const std::uint32_t pixel = layout.bits == 16 ? load_le<std::uint16_t>(row + x * 2)
                                                  : load_le<std::uint32_t>(row + x * 4);
    to[0] = masked(pixel, layout.blue);
    to[1] = masked(pixel, layout.green);
    to[2] = masked(pixel, layout.red);
  }
}

}  // namespace

bool convert_dib_by_system(std::span<const std::uint8_t> block, const DibLayout& of, Image* out) {
  DibLayout layout = of;
  const bool palette = has_palette(layout);
  if (!palette && !find_masks(&layout)) return false;
  out->pixels.assign(std::size_t{layout.width} * layout.height * IMAGE_PIXEL_BYTES, 0);
  const std::uint8_t* rows = block.data() + layout.pixels;
  for (std::uint32_t y = 0; y < layout.height; ++y) {
    const Row row = rows + (layout.top_down ? y : layout.height - 1 - y) * layout.stride;
    std::uint8_t* to = out->pixels.data() + std::size_t{y} * layout.width * IMAGE_PIXEL_BYTES;
    if (palette) {
      from_palette(row, layout, rows - 4 * layout.colours, to);
    } else {
      from_masks(row, layout, to);
    }
  }
  return true;
}
