#include "apps/client/paint_marker.h"

namespace {

constexpr std::uint64_t TIME_MASK = (std::uint64_t{1} << 48) - 1;

// Fibonacci hashing's multiplier spreads every bit over the upper 16.
std::uint16_t check_sum(std::uint64_t time) {
  return static_cast<std::uint16_t>((time * 0x9E3779B97F4A7C15U) >> 48);
}

}  // namespace

std::uint64_t marker_bits(std::uint64_t painted_us) {
  const std::uint64_t time = painted_us & TIME_MASK;
  return time << 16 | check_sum(time);
}

std::optional<std::uint64_t> read_marker(const DecodedPicture& picture) {
  if (picture.width < MARKER_PIXELS || picture.height < MARKER_PIXELS) return std::nullopt;
  std::uint64_t bits = 0;
  for (int row = 0; row < MARKER_SQUARES; ++row) {
    for (int column = 0; column < MARKER_SQUARES; ++column) {
      const int x = column * MARKER_SQUARE_PIXELS + MARKER_SQUARE_PIXELS / 2;
      const int y = row * MARKER_SQUARE_PIXELS + MARKER_SQUARE_PIXELS / 2;
      const std::uint8_t level =
          picture.planes[0][static_cast<std::ptrdiff_t>(y) * picture.strides[0] + x];
      bits = bits << 1 | (level >= 128 ? 1U : 0U);
    }
  }
  const std::uint64_t time = bits >> 16;
  if (time == 0 || marker_bits(time) != bits) return std::nullopt;
  return time;
}
