#include "streams/bitmap.h"

#include <algorithm>

#include "connection/byte_order.h"

namespace {

using Block = std::span<const std::uint8_t>;

constexpr std::size_t INFO_HEADER_BYTES = 40;
constexpr std::size_t MASKS_BYTES = 12;  // red, green, blue
// Headers of at least these sizes hold the masks; and that of alpha.
constexpr std::uint32_t HEADER_WITH_MASKS = 52;
constexpr std::uint32_t HEADER_WITH_ALPHA_MASK = 56;
constexpr std::size_t FILE_HEADER_BYTES = 14;
constexpr std::size_t PALETTE_BITS_MAX = 8;
constexpr std::uint32_t RED = 0xFF0000;
constexpr std::uint32_t GREEN = 0xFF00;
constexpr std::uint32_t BLUE = 0xFF;
constexpr std::uint8_t OPAQUE = 255;

std::uint32_t u32_at(Block block, std::size_t at) {
  return load_le<std::uint32_t>(block.data() + at);
}

void read_masks(Block block, std::uint32_t header, DibLayout* layout) {
  layout->red = RED;
  layout->green = GREEN;
  layout->blue = BLUE;
  // A header of 40 bytes has them behind it.
  if (header != INFO_HEADER_BYTES && header < HEADER_WITH_MASKS) return;
  layout->red = u32_at(block, INFO_HEADER_BYTES);
  layout->green = u32_at(block, INFO_HEADER_BYTES + 4);
  layout->blue = u32_at(block, INFO_HEADER_BYTES + 8);
  if (header >= HEADER_WITH_ALPHA_MASK) layout->alpha = u32_at(block, INFO_HEADER_BYTES + 12);
}

bool is_copied(const DibLayout& layout) {
  if (layout.compression == DIB_RGB) return layout.bits == 24 || layout.bits == 32;
  return layout.compression == DIB_BITFIELDS && layout.bits == 32 && layout.red == RED &&
         layout.green == GREEN && layout.blue == BLUE;
}

void set_opaque(Image* image) {
  for (std::size_t i = 3; i < image->pixels.size(); i += IMAGE_PIXEL_BYTES)
    image->pixels[i] = OPAQUE;
}

// Many programs leave the fourth byte 0 and mean no transparency by it.
bool has_alpha(const DibLayout& layout, const Image& image) {
  if (layout.bits == 24) return false;
  if (layout.compression == DIB_BITFIELDS && layout.alpha == 0) return false;
  for (std::size_t i = 3; i < image.pixels.size(); i += IMAGE_PIXEL_BYTES) {
    if (image.pixels[i] != 0) return true;
  }
  return false;
}

void copy_row(const std::uint8_t* from, std::uint32_t bits, std::uint32_t width, std::uint8_t* to) {
  if (bits == 32) {
    std::copy_n(from, width * IMAGE_PIXEL_BYTES, to);
    return;
  }
  for (std::uint32_t x = 0; x < width; ++x, from += 3, to += IMAGE_PIXEL_BYTES)
    std::copy_n(from, 3, to);
}

}  // namespace

std::optional<DibLayout> read_dib_header(Block block) {
  if (block.size() < INFO_HEADER_BYTES) return std::nullopt;
  const std::uint32_t header = u32_at(block, 0);
  const auto width = static_cast<std::int32_t>(u32_at(block, 4));
  const auto height = static_cast<std::int32_t>(u32_at(block, 8));
  if (header < INFO_HEADER_BYTES || header > block.size() || width < 1 || height == 0)
    return std::nullopt;

  DibLayout layout;
  layout.width = static_cast<std::uint32_t>(width);
  layout.top_down = height < 0;
  layout.height =
      layout.top_down ? 0 - static_cast<std::uint32_t>(height) : static_cast<std::uint32_t>(height);
  if (std::uint64_t{layout.width} * layout.height > IMAGE_PIXELS_MAX) return std::nullopt;

  layout.bits = load_le<std::uint16_t>(block.data() + 14);
  layout.compression = u32_at(block, 16);
  const bool masks_follow = header == INFO_HEADER_BYTES && layout.compression == DIB_BITFIELDS;
  layout.colours = u32_at(block, 32);
  if (layout.colours == 0 && layout.bits <= PALETTE_BITS_MAX)
    layout.colours = std::uint64_t{1} << layout.bits;
  layout.pixels = header + (masks_follow ? MASKS_BYTES : 0) + 4 * layout.colours;
  layout.stride = (std::uint64_t{layout.bits} * layout.width + 31) / 8 / 4 * 4;
  if (layout.compression == DIB_BITFIELDS) {
    if (masks_follow && block.size() < INFO_HEADER_BYTES + MASKS_BYTES) return std::nullopt;
    read_masks(block, header, &layout);
  }
  return layout;
}

bool image_from_dib(Block block, Image* out) {
  const std::optional<DibLayout> layout = read_dib_header(block);
  if (!layout || !layout->lies_within(block.size())) return false;

  out->width = layout->width;
  out->height = layout->height;
  const std::size_t row_bytes = out->width * IMAGE_PIXEL_BYTES;
  if (!is_copied(*layout)) {
    if (!convert_dib_by_system(block, *layout, out)) return false;
    set_opaque(out);
    return true;
  }
  out->pixels.resize(row_bytes * out->height);
  for (std::uint32_t y = 0; y < out->height; ++y) {
    const std::uint64_t row = layout->top_down ? y : out->height - 1 - y;
    copy_row(block.data() + layout->pixels + row * layout->stride, layout->bits, out->width,
             out->pixels.data() + y * row_bytes);
  }
  if (!has_alpha(*layout, *out)) set_opaque(out);
  return true;
}

std::vector<std::uint8_t> dib_over_white(const Image& image) {
  std::vector<std::uint8_t> block(INFO_HEADER_BYTES + image.pixels.size());
  std::uint8_t* header = block.data();
  store_le(header, static_cast<std::uint32_t>(INFO_HEADER_BYTES));
  store_le(header + 4, image.width);
  store_le(header + 8, image.height);
  store_le(header + 12, std::uint16_t{1});  // planes
  store_le(header + 14, std::uint16_t{32});
  store_le(header + 20, static_cast<std::uint32_t>(image.pixels.size()));

  const std::size_t row_bytes = image.width * IMAGE_PIXEL_BYTES;
  std::uint8_t* to = block.data() + INFO_HEADER_BYTES;
  for (std::size_t y = image.height; y-- > 0;) {
    const std::uint8_t* from = image.pixels.data() + y * row_bytes;
    for (std::uint32_t x = 0; x < image.width; ++x, from += 4, to += 4) {
      const unsigned alpha = from[3];
      for (int c = 0; c < 3; ++c)
        to[c] = static_cast<std::uint8_t>((from[c] * alpha + 255 * (255 - alpha) + 127) / 255);
      to[3] = OPAQUE;
    }
  }
  return block;
}

std::vector<std::uint8_t> dib_from_bmp_file(Block file) {
  if (file.size() < FILE_HEADER_BYTES || file[0] != 'B' || file[1] != 'M') return {};
  const std::uint32_t pixels_at = u32_at(file, 10);
  const Block block = file.subspan(FILE_HEADER_BYTES);
  const std::optional<DibLayout> layout = read_dib_header(block);
  if (!layout || pixels_at < FILE_HEADER_BYTES || pixels_at > file.size()) return {};
  std::vector<std::uint8_t> out(block.begin(), block.end());
  const std::uint64_t end = pixels_at - FILE_HEADER_BYTES;
  if (end > layout->pixels) {
    out.erase(out.begin() + static_cast<std::ptrdiff_t>(layout->pixels),
              out.begin() + static_cast<std::ptrdiff_t>(end));
  }
  return out;
}

std::vector<std::uint8_t> bmp_file_from_dib(Block block) {
  const std::optional<DibLayout> layout = read_dib_header(block);
  if (!layout) return {};
  std::vector<std::uint8_t> file(FILE_HEADER_BYTES + block.size());
  file[0] = 'B';
  file[1] = 'M';
  store_le(file.data() + 2, static_cast<std::uint32_t>(file.size()));
  store_le(file.data() + 10, static_cast<std::uint32_t>(FILE_HEADER_BYTES + layout->pixels));
  std::copy(block.begin(), block.end(), file.begin() + FILE_HEADER_BYTES);
  return file;
}
