// PNG, and pictures made smaller, by the system's own means. Link-time seam: one definition a
// platform. Bytes to decode may be anything, from a program here or from the other end of a
// session. Any thread; false is the one failure, memory included.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "streams/bitmap.h"

bool encode_png(const Image& image, std::vector<std::uint8_t>* png);

// Every kind of PNG, as 8 bits a channel with straight alpha. At most IMAGE_PIXELS_MAX pixels.
bool decode_png(std::span<const std::uint8_t> png, Image* out);

// Each pixel becomes the average of the area that it covers, weighted by alpha, so that the colour
// of what is transparent doesn't bleed into edges, and as exact as it shows; a side of very few
// pixels may be taken less exactly. Neither side grows; both are at least 1.
bool scale_image(const Image& source, std::uint32_t width, std::uint32_t height, Image* out);
