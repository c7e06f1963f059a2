// By libpng's simplified interface, which keeps its long jumps to itself.
#include "streams/png_codec.h"

#include <png.h>

#include <memory>
#include <new>

#include "streams/png_claim.h"

namespace {

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
  if (!png_claim_is_possible(png)) return false;
  PngImage reader;
  if (png_image_begin_read_from_memory(reader.get(), png.data(), png.size()) == 0) return false;
  reader->format = PNG_FORMAT_BGRA;
  reader->flags |= PNG_IMAGE_FLAG_16BIT_sRGB;  // unless the file says otherwise
  out->width = reader->width;
  out->height = reader->height;
  out->pixels.resize(std::size_t{out->width} * out->height * IMAGE_PIXEL_BYTES);
  return png_image_finish_read(reader.get(), nullptr, out->pixels.data(), 0, nullptr) != 0;
} catch (const std::bad_alloc&) {
  return false;
}
