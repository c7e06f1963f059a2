#include "capture/cursor_icon.h"

#include <vector>

namespace {

constexpr std::int32_t SIDE_MAX = 256;
constexpr std::int32_t PIXEL_BYTES = 4;

using Bytes = std::vector<std::uint8_t>;

std::int32_t mask_pitch(std::int32_t width) {
  return (width + 31) / 32 * 4;
}

Bytes rows_of(std::int32_t pitch, std::int32_t rows) {
  return Bytes(static_cast<std::size_t>(pitch) * static_cast<std::size_t>(rows));
}

bool convert_monochrome(CursorIcon& icon, std::int32_t width, std::int32_t height,
                        CursorBitmap* out) {
  const std::int32_t half = height / 2;
  if (half < 1 || half > SIDE_MAX || width < 1 || width > SIDE_MAX) return false;
  const std::int32_t pitch = mask_pitch(width);
  Bytes masks = rows_of(pitch, half * 2);
  return icon.read_mask(width, half * 2, masks.data()) &&
         cursor_convert(CURSOR_MONOCHROME, masks.data(), masks.size(), width, half * 2, pitch,
                        icon.hot_x(), icon.hot_y(), out);
}

bool has_alpha(const Bytes& pixels) {
  for (std::size_t i = 3; i < pixels.size(); i += PIXEL_BYTES) {
    if (pixels[i] != 0) return true;
  }
  return false;
}

// Cursors from before there was alpha leave it 0 and say by their mask what shows through.
bool take_alpha_from_mask(CursorIcon& icon, std::int32_t width, std::int32_t height,
                          Bytes& pixels) {
  const std::int32_t pitch = mask_pitch(width);
  Bytes mask = rows_of(pitch, height);
  if (!icon.read_mask(width, height, mask.data())) return false;
  for (std::int32_t y = 0; y < height; ++y) {
    const std::uint8_t* row = &mask[static_cast<std::size_t>(y * pitch)];
    for (std::int32_t x = 0; x < width; ++x) {
      const bool shows_through = (row[x / 8] & (0x80 >> (x % 8))) != 0;
      pixels[static_cast<std::size_t>((y * width + x) * PIXEL_BYTES + 3)] = shows_through ? 0 : 255;
    }
  }
  return true;
}

bool convert_colour(CursorIcon& icon, std::int32_t width, std::int32_t height, CursorBitmap* out) {
  if (width < 1 || width > SIDE_MAX || height < 1 || height > SIDE_MAX) return false;
  const std::int32_t pitch = width * PIXEL_BYTES;
  Bytes pixels = rows_of(pitch, height);
  if (!icon.read_colour(width, height, pixels.data())) return false;
  if (!has_alpha(pixels) && icon.has_mask() && !take_alpha_from_mask(icon, width, height, pixels))
    return false;
  return cursor_convert(CURSOR_COLOUR, pixels.data(), pixels.size(), width, height, pitch,
                        icon.hot_x(), icon.hot_y(), out);
}

}  // namespace

bool convert_icon(CursorIcon& icon, CursorBitmap* out) {
  if (!icon.has_colour() && !icon.has_mask()) return false;
  std::int32_t width = 0;
  std::int32_t height = 0;
  if (!icon.size(&width, &height)) return false;
  return icon.has_colour() ? convert_colour(icon, width, height, out)
                           : convert_monochrome(icon, width, height, out);
}
