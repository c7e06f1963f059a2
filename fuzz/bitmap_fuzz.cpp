// Bitmaps of other programs, from a header that may say anything to a picture and back. The input:
// a byte that tells a bitmap's file from a bare block, then either.
#include <cstdint>

#include "fuzz/require.h"
#include "streams/bitmap.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Of one bit of a block at most one pixel is made.
constexpr std::size_t PIXEL_BYTES_OF_A_BYTE = 8 * IMAGE_PIXEL_BYTES;

void check_way_back(const Image& image) {
  const Bytes block = dib_over_white(image);
  Image again;
  require(image_from_dib(block, &again), "an own bitmap is read");
  require(again.width == image.width && again.height == image.height, "it has its size");
  for (std::size_t i = 0; i < again.pixels.size(); ++i) {
    const bool alpha = i % IMAGE_PIXEL_BYTES == 3;
    require(!alpha || again.pixels[i] == 255, "nothing of it is transparent");
    const bool opaque = image.pixels[i | 3] == 255;
    require(!opaque || again.pixels[i] == image.pixels[i], "what is opaque stays as it is");
  }
  require(dib_from_bmp_file(bmp_file_from_dib(block)) == block, "so it does as a file");
}

void check(std::span<const std::uint8_t> block) {
  Image image;
  if (!image_from_dib(block, &image)) return;
  require(image.width >= 1 && image.height >= 1, "a picture has pixels");
  require(image.pixels.size() == std::size_t{image.width} * image.height * IMAGE_PIXEL_BYTES,
          "the bytes are those of the pixels");
  require(image.pixels.size() <= block.size() * PIXEL_BYTES_OF_A_BYTE,
          "a picture is no larger than its bitmap can be");
  check_way_back(image);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // An exact copy, so that a sanitizer sees each byte read beyond it.
  const Bytes input(data + 1, data + size);
  check((data[0] & 1) != 0 ? dib_from_bmp_file(input) : input);
  return 0;
}
