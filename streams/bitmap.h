// Pictures as the clipboard has them. `Image` is what they are worked on as; a DIB is the block of
// a bitmap without a file's header: BITMAPINFOHEADER or one of its longer successors, colour masks
// or palette, rows padded to 4 bytes. Every field of a DIB may come from a hostile program. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

// No picture has more, whatever its header says: 1 GiB of pixels.
inline constexpr std::uint64_t IMAGE_PIXELS_MAX = 0x10000000;
inline constexpr std::size_t IMAGE_PIXEL_BYTES = 4;

struct Image {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  // width x height x 4, top row first, no padding; blue, green, red, straight alpha.
  std::vector<std::uint8_t> pixels;
};

inline constexpr std::uint32_t DIB_RGB = 0;  // BI_RGB, BI_BITFIELDS
inline constexpr std::uint32_t DIB_BITFIELDS = 3;

struct DibLayout {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool top_down = false;
  std::uint32_t bits = 0;  // a pixel
  std::uint32_t compression = DIB_RGB;
  std::uint32_t red = 0;  // masks, of DIB_BITFIELDS alone
  std::uint32_t green = 0;
  std::uint32_t blue = 0;
  std::uint32_t alpha = 0;
  std::uint64_t colours = 0;  // of the palette, 4 bytes each, which ends where the pixels begin
  std::uint64_t pixels = 0;   // their offset from the block's start; may lie outside the block
  std::uint64_t stride = 0;   // bytes from row to row

  bool compressed() const { return compression != DIB_RGB && compression != DIB_BITFIELDS; }
  // How long the rows are is known of those alone that aren't compressed.
  bool lies_within(std::uint64_t block_bytes) const {
    return pixels + (compressed() ? 0 : height * stride) <= block_bytes;
  }
};

// Nothing when the header doesn't hold together, or says of more than IMAGE_PIXELS_MAX pixels.
std::optional<DibLayout> read_dib_header(std::span<const std::uint8_t> block);

bool image_from_dib(std::span<const std::uint8_t> block, Image* out);

// For programs that know no alpha: 32 bits, bottom row first, the picture laid over white.
std::vector<std::uint8_t> dib_over_white(const Image& image);

// A bitmap's file is a 14-byte header and the block; it may leave a gap before the pixels, which
// goes. Empty when the bytes aren't such a file.
std::vector<std::uint8_t> dib_from_bmp_file(std::span<const std::uint8_t> file);
std::vector<std::uint8_t> bmp_file_from_dib(std::span<const std::uint8_t> block);

// Link-time seam: converts what isn't copied as it is (palettes, other masks, compression) by what
// the system has for it. `out` has its width and height; the pixels are to be made, top row first,
// and all become opaque afterwards. Rows that aren't compressed lie within the block. False when
// the system knows no way.
bool convert_dib_by_system(std::span<const std::uint8_t> block, const DibLayout& layout,
                           Image* out);
