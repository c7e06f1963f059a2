// PNGs of other programs and of the peer: decoded, and made to fit. The input: the limit to be
// fitted, a byte that tells whether the chunks' checksums are put right first, and the file.
#include <zlib.h>

#include <cstdint>
#include <cstring>

#include "fuzz/require.h"
#include "streams/png_fit.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t PARAMETERS = 2;
constexpr std::size_t SIGNATURE = 8;
constexpr std::size_t CHUNK_FRAME = 12;                       // length, type, checksum
constexpr std::uint64_t LIMIT_MIN = 256;                      // more than one pixel takes
constexpr std::uint64_t PIXELS_MAX = std::uint64_t{1} << 18;  // for the sake of time

std::uint32_t u32_at(const Bytes& png, std::size_t at) {
  return std::uint32_t{png[at]} << 24 | std::uint32_t{png[at + 1]} << 16 |
         std::uint32_t{png[at + 2]} << 8 | png[at + 3];
}

// Otherwise hardly a change would get past the checksums.
void put_checksums_right(Bytes* png) {
  for (std::size_t at = SIGNATURE; png->size() - at >= CHUNK_FRAME;) {
    const std::size_t length = u32_at(*png, at);
    if (length > png->size() - at - CHUNK_FRAME) return;
    const auto sum =
        static_cast<std::uint32_t>(crc32(0, png->data() + at + 4, static_cast<uInt>(length + 4)));
    for (std::size_t i = 0; i < 4; ++i)
      (*png)[at + 8 + length + i] = static_cast<std::uint8_t>(sum >> (24 - 8 * i));
    at += CHUNK_FRAME + length;
  }
}

bool is_small(const Bytes& png) {
  return png.size() < 24 || std::uint64_t{u32_at(png, 16)} * u32_at(png, 20) <= PIXELS_MAX;
}

void check(const Image& image) {
  require(image.width >= 1 && image.height >= 1, "a picture has pixels");
  require(image.pixels.size() == std::size_t{image.width} * image.height * IMAGE_PIXEL_BYTES,
          "the bytes are those of the pixels");
  Bytes png;
  Image again;
  require(encode_png(image, &png) && decode_png(png, &again), "a picture comes back");
  require(again.pixels == image.pixels, "as it was");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < PARAMETERS) return 0;
  PngFitting by;
  by.most_bytes = LIMIT_MIN + 4 * std::uint64_t{data[0]};
  Bytes png(data + PARAMETERS, data + size);
  if ((data[1] & 1) != 0 && png.size() > SIGNATURE) put_checksums_right(&png);
  if (!is_small(png)) return 0;

  Image image;
  const bool read = decode_png(png, &image);
  if (read) check(image);
  const bool fits = png.size() <= by.most_bytes;
  const auto sent = png_for_sending(
      png, nullptr, [](const std::string&) {}, by);
  require(sent || !(read || fits), "what can be read can be sent");
  if (!sent) return 0;
  require(sent->size() <= by.most_bytes, "what is sent fits");
  require(!fits || *sent == png, "what fits is sent as it is");
  Image smaller;
  require(fits || decode_png(*sent, &smaller), "what was made smaller can be read");
  require(fits || (smaller.width <= image.width && smaller.height <= image.height),
          "it is smaller");
  return 0;
}
