// Pointer images from their raw shape to the scaled image and its hash. The input: type, width,
// height, pitch, hot spot (16 bits each), the scale, and then the shape's data.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "connection/byte_order.h"
#include "fuzz/require.h"
#include "media/cursor_convert.h"

namespace {

constexpr std::size_t PARAMETERS = 13;
constexpr double SCALED_PIXELS_MAX = 65'536;  // for the sake of time

void check(const CursorBitmap& cursor) {
  require(cursor.width >= 1 && cursor.height >= 1, "an image has pixels");
  require(cursor.pixels.size() ==
              static_cast<std::size_t>(cursor.width) * static_cast<std::size_t>(cursor.height) * 4,
          "the bytes are those of the pixels");
  require(cursor.hot_x >= 0 && cursor.hot_x < cursor.width, "the hot spot is inside");
  require(cursor.hot_y >= 0 && cursor.hot_y < cursor.height, "the hot spot is inside");
  require(cursor_hash(cursor) != 0, "an image has a hash");
}

void check_unpremultiply(const std::uint8_t* data, std::size_t count) {
  std::vector<std::uint32_t> pixels(count);
  for (std::size_t i = 0; i < count; ++i) pixels[i] = load_le<std::uint32_t>(data + 4 * i);
  std::vector<std::uint8_t> straight(count * 4);
  cursor_unpremultiply(pixels.data(), count, straight.data());
  for (std::size_t i = 0; i < count; ++i) {
    require(straight[4 * i + 3] == pixels[i] >> 24, "alpha stays");
    for (unsigned channel = 0; channel < 3; ++channel) {
      const std::uint32_t premultiplied = pixels[i] >> 8 * channel & 0xFF;
      const std::uint32_t colour = straight[4 * i + channel];
      require(straight[4 * i + 3] == 0 ? colour == 0 : colour >= premultiplied,
              "a colour grows, or goes with its alpha");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < PARAMETERS) return 0;
  const auto field = [data](std::size_t i) {
    return static_cast<int>(static_cast<std::int16_t>(load_le<std::uint16_t>(data + 2 * i)));
  };
  check_unpremultiply(data + PARAMETERS, (size - PARAMETERS) / 4);
  CursorBitmap cursor;
  if (!cursor_convert(field(0), data + PARAMETERS, size - PARAMETERS, field(1), field(2), field(3),
                      field(4), field(5), &cursor))
    return 0;
  check(cursor);
  const double pixels = static_cast<double>(cursor.width) * cursor.height;
  const double factor = std::min(data[12] / 32.0, std::sqrt(SCALED_PIXELS_MAX / pixels));
  check(cursor_scale(cursor, factor));
  return 0;
}
