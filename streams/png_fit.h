// A picture that is too large for the clipboard's engine is sent smaller.
#pragma once

#include <optional>

#include "streams/clipboard.h"
#include "streams/clipboard_log.h"
#include "streams/png_codec.h"

// What the work is done by, and what is to be fitted; tests put others in its place.
struct PngFitting {
  bool (*encode)(const Image&, std::vector<std::uint8_t>*) = encode_png;
  bool (*decode)(std::span<const std::uint8_t>, Image*) = decode_png;
  bool (*scale)(const Image&, std::uint32_t, std::uint32_t, Image*) = scale_image;
  std::uint64_t most_bytes = LUND_CLIP_IMAGE_MAX;  // more than one pixel takes
};

// `png` as it is when it fits, else one of a picture scaled down from `source`, which is decoded
// from `png` when null, round by round, until it fits. Nothing, after a line, on any failure.
std::optional<std::vector<std::uint8_t>> png_for_sending(std::vector<std::uint8_t> png,
                                                         const Image* source,
                                                         const ClipboardLog& log,
                                                         const PngFitting& by = {});
