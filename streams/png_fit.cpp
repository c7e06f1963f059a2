#include "streams/png_fit.h"

#include <algorithm>
#include <cmath>

namespace {

// Pixels and bytes shrink about alike; what is left of a round aims a little below the limit, and
// no round may do too much on one estimate, or too little to matter.
constexpr double AIM = 0.95;
constexpr double STEP_MIN = 0.3;
constexpr double STEP_MAX = 0.9;

std::uint32_t scaled(std::uint32_t length, double scale) {
  return std::max(static_cast<std::uint32_t>(length * scale), 1u);
}

std::string size_text(const Image& image) {
  return std::to_string(image.width) + "x" + std::to_string(image.height);
}

bool shrink(const Image& source, std::vector<std::uint8_t>* png, const ClipboardLog& log,
            const PngFitting& by) {
  double scale = 1.0;
  while (png->size() > by.most_bytes) {
    const double ratio = static_cast<double>(by.most_bytes) / static_cast<double>(png->size());
    scale *= std::clamp(AIM * std::sqrt(ratio), STEP_MIN, STEP_MAX);
    Image smaller;
    if (!by.scale(source, scaled(source.width, scale), scaled(source.height, scale), &smaller) ||
        !by.encode(smaller, png))
      return false;
    log("clipboard: image " + size_text(source) + " downscaled to " + size_text(smaller) + " (" +
        std::to_string(png->size()) + " B PNG) to fit 16 MB");
  }
  return true;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> png_for_sending(std::vector<std::uint8_t> png,
                                                         const Image* source,
                                                         const ClipboardLog& log,
                                                         const PngFitting& by) {
  if (png.size() <= by.most_bytes) return png;
  Image decoded;
  if (source == nullptr) {
    if (!by.decode(png, &decoded)) {
      log("clipboard: local PNG could not be decoded");
      return std::nullopt;
    }
    source = &decoded;
  }
  if (!shrink(*source, &png, log, by)) {
    log("clipboard: local image could not be downscaled");
    return std::nullopt;
  }
  return png;
}
