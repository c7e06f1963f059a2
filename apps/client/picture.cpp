#include "apps/client/picture.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <fstream>

namespace {

std::uint8_t clamp_byte(float value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0F, 255.0F)));
}

// Chroma at luma position (x, y): columns are co-sited with even luma columns, rows lie between
// two.
float chroma_at(const std::uint8_t* plane, int stride, int width, int height, int x, int y) {
  const int chroma_width = (width + 1) / 2;
  const int chroma_height = (height + 1) / 2;
  const int left = x / 2;
  const int right = std::min(left + (x & 1), chroma_width - 1);
  const int near_row = y / 2;
  const int far_row = std::clamp((y & 1) ? near_row + 1 : near_row - 1, 0, chroma_height - 1);
  auto row_value = [&](int row) {
    const std::uint8_t* line = plane + static_cast<std::ptrdiff_t>(row) * stride;
    return 0.5F * (static_cast<float>(line[left]) + static_cast<float>(line[right]));
  };
  return 0.75F * row_value(near_row) + 0.25F * row_value(far_row);
}

bool write_image(const std::filesystem::path& path, int width, int height, png_uint_32 format,
                 const std::vector<std::uint8_t>& pixels) {
  std::filesystem::path temporary = path;
  temporary += ".tmp";
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = format;
  // Not by a file name: the library takes those in the C library's encoding.
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  std::vector<char> file(size);
  bool written =
      png_image_write_to_memory(&image, file.data(), &size, 0, pixels.data(), 0, nullptr) != 0;
  if (written) {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(file.data(), static_cast<std::streamsize>(size));
    out.close();
    written = !out.fail();
  }
  std::error_code failed;
  if (written) std::filesystem::rename(temporary, path, failed);
  if (!written || failed) std::filesystem::remove(temporary, failed);
  return written && std::filesystem::exists(path, failed);
}

}  // namespace

RgbPicture to_rgb(const DecodedPicture& picture) {
  RgbPicture rgb{picture.width, picture.height, {}};
  rgb.pixels.resize(static_cast<std::size_t>(picture.width) *
                    static_cast<std::size_t>(picture.height) * 3);
  std::uint8_t* out = rgb.pixels.data();
  for (int y = 0; y < picture.height; ++y) {
    const std::uint8_t* luma =
        picture.planes[0] + static_cast<std::ptrdiff_t>(y) * picture.strides[0];
    for (int x = 0; x < picture.width; ++x) {
      const float cb =
          chroma_at(picture.planes[1], picture.strides[1], picture.width, picture.height, x, y) -
          128.0F;
      const float cr =
          chroma_at(picture.planes[2], picture.strides[2], picture.width, picture.height, x, y) -
          128.0F;
      const float level = static_cast<float>(luma[x]);
      // ITU-R BT.709: Kr 0.2126, Kb 0.0722.
      *out++ = clamp_byte(level + 1.5748F * cr);
      *out++ = clamp_byte(level - 0.1873F * cb - 0.4681F * cr);
      *out++ = clamp_byte(level + 1.8556F * cb);
    }
  }
  return rgb;
}

bool write_png(const std::filesystem::path& path, const RgbPicture& picture) {
  return write_image(path, picture.width, picture.height, PNG_FORMAT_RGB, picture.pixels);
}

bool write_png(const std::filesystem::path& path, const CursorBitmap& pointer) {
  return write_image(path, pointer.width, pointer.height, PNG_FORMAT_BGRA, pointer.pixels);
}
