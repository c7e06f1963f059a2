// By libpng's simplified interface, which keeps its long jumps to itself.
#include "streams/png_codec.h"

#include <png.h>

#include <algorithm>
#include <memory>
#include <new>

namespace {

// Deflate makes at most 1032 bytes of one (RFC 1951: 258 bytes by a pair of one-bit codes), so a
// file can't hold the rows of a picture that is larger than that; a header alone gets no memory.
constexpr std::uint64_t DEFLATE_RATIO_MAX = 1032;

// Frees what libpng holds on every way out.
class PngImage {
 public:
  PngImage() { image_.version = PNG_IMAGE_VERSION; }
  ~PngImage() { png_image_free(&image_); }
  PngImage(const PngImage&) = delete;
  PngImage& operator=(const PngImage&) = delete;
  png_image* operator->() { return &image_; }
  png_image* get() { return &image_; }

 private:
  png_image image_{};
};

// Of a file whose header libpng has found good: signature, then IHDR with width, height, bit depth
// and colour type.
bool holds_rows(const png_image& image, std::span<const std::uint8_t> png) {
  constexpr std::uint64_t CHANNELS[] = {1, 0, 3, 1, 2, 0, 4};  // by colour type
  const std::uint64_t pixel_bits = std::uint64_t{png[24]} * CHANNELS[png[25]];
  return pixel_bits * image.width / 8 * image.height <= png.size() * DEFLATE_RATIO_MAX;
}

}  // namespace

bool encode_png(const Image& image, std::vector<std::uint8_t>* png) try {
  PngImage writer;
  writer->width = image.width;
  writer->height = image.height;
  writer->format = PNG_FORMAT_BGRA;
  // Its estimate holds in the worst case, which saves a first run for the size.
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(*writer.get());
  const auto room = std::make_unique_for_overwrite<std::uint8_t[]>(size);
  if (png_image_write_to_memory(writer.get(), room.get(), &size, 0, image.pixels.data(), 0,
                                nullptr) == 0)
    return false;
  png->assign(room.get(), room.get() + size);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

bool decode_png(std::span<const std::uint8_t> png, Image* out) try {
  PngImage reader;
  if (png_image_begin_read_from_memory(reader.get(), png.data(), png.size()) == 0) return false;
  if (reader->width == 0 || reader->height == 0 ||
      std::uint64_t{reader->width} * reader->height > IMAGE_PIXELS_MAX ||
      !holds_rows(*reader.get(), png))
    return false;
  reader->format = PNG_FORMAT_BGRA;
  reader->flags |= PNG_IMAGE_FLAG_16BIT_sRGB;  // unless the file says otherwise
  out->width = reader->width;
  out->height = reader->height;
  out->pixels.resize(std::size_t{out->width} * out->height * IMAGE_PIXEL_BYTES);
  return png_image_finish_read(reader.get(), nullptr, out->pixels.data(), 0, nullptr) != 0;
} catch (const std::bad_alloc&) {
  return false;
}
