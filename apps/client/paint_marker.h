// A time stamp painted into a picture as black and white squares, so that the decoded picture tells
// when it was painted: 8 rows of 8 squares of 8 pixels in the upper left corner; a bit a square,
// rows from the top, the highest bit first. 48 bits of microseconds (lund_now_us), then 16 bits of
// check sum, which a desktop without a marker won't show by accident.
#pragma once

#include <cstdint>
#include <optional>

#include "apps/client/decoder.h"

inline constexpr int MARKER_SQUARES = 8;
inline constexpr int MARKER_SQUARE_PIXELS = 8;
inline constexpr int MARKER_PIXELS = MARKER_SQUARES * MARKER_SQUARE_PIXELS;

// The 64 bits that show `painted_us`.
std::uint64_t marker_bits(std::uint64_t painted_us);

// Reads the marker from the luma of a picture of the display's own size.
std::optional<std::uint64_t> read_marker(const DecodedPicture& picture);
