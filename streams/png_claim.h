// What a PNG says that it is, ahead of any decoder (ISO/IEC 15948): files come from any program
// here and from the other end of a session. Pure.
#pragma once

#include <cstdint>
#include <span>

// Whether this begins as a PNG does, of a picture with pixels, no more than IMAGE_PIXELS_MAX, and
// no more than a file of this length can hold: a header alone gets no memory.
bool png_claim_is_possible(std::span<const std::uint8_t> png);
