// A decoded picture as RGB and as a PNG file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "apps/client/decoder.h"
#include "media/cursor_convert.h"

struct RgbPicture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;  // width x height x 3, rows top-down, no padding
};

// BT.709, full range. Chroma is sited left, as the encoder writes it, and interpolated.
RgbPicture to_rgb(const DecodedPicture& picture);

// Written to a temporary file and renamed; false when the disk refuses.
bool write_png(const std::filesystem::path& path, const RgbPicture& picture);
bool write_png(const std::filesystem::path& path, const CursorBitmap& pointer);  // RGBA
