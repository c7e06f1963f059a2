#include "streams/png_claim.h"

#include <algorithm>
#include <iterator>

#include "streams/bitmap.h"

namespace {

// The signature, and the first chunk's length and name, which are always the same.
constexpr std::uint8_t BEGINNING[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n',
                                      0,    0,   0,   13,  'I',  'H',  'D',  'R'};
constexpr std::size_t WIDTH_AT = 16;
constexpr std::size_t HEIGHT_AT = 20;
constexpr std::size_t DEPTH_AT = 24;
constexpr std::size_t COLOUR_TYPE_AT = 25;
constexpr std::size_t HEADER_BYTES = 33;  // to the end of the first chunk

constexpr std::uint64_t CHANNELS[] = {1, 0, 3, 1, 2, 0, 4};  // by colour type

// Deflate makes at most 1032 bytes of one (RFC 1951: 258 bytes by a pair of one-bit codes).
constexpr std::uint64_t DEFLATE_RATIO_MAX = 1032;

std::uint64_t u32_at(std::span<const std::uint8_t> png, std::size_t at) {
  return std::uint64_t{png[at]} << 24 | std::uint64_t{png[at + 1]} << 16 |
         std::uint64_t{png[at + 2]} << 8 | png[at + 3];
}

}  // namespace

bool png_claim_is_possible(std::span<const std::uint8_t> png) {
  if (png.size() < HEADER_BYTES || !std::equal(std::begin(BEGINNING), std::end(BEGINNING), &png[0]))
    return false;
  const std::uint64_t width = u32_at(png, WIDTH_AT);
  const std::uint64_t height = u32_at(png, HEIGHT_AT);
  const std::size_t colour_type = png[COLOUR_TYPE_AT];
  if (width == 0 || height == 0 || width * height > IMAGE_PIXELS_MAX ||
      colour_type >= std::size(CHANNELS))
    return false;
  const std::uint64_t pixel_bits = png[DEPTH_AT] * CHANNELS[colour_type];
  return pixel_bits * width / 8 * height <= png.size() * DEFLATE_RATIO_MAX;
}
