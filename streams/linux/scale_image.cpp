// Area averaging by libswscale, a channel at a time as 16-bit grey: its colour formats would all go
// through YUV, and 8 bits are too few for a colour multiplied by a low alpha.
#include <algorithm>
#include <memory>
#include <new>

#include "streams/png_codec.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

constexpr std::uint32_t TO_16_BITS = 257;
constexpr std::uint32_t MOST = 255 * TO_16_BITS;

using Plane = std::vector<std::uint16_t>;

struct FreeContext {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using Context = std::unique_ptr<SwsContext, FreeContext>;

struct Size {
  int width;
  int height;
};

Context make_context(Size from, Size to) {
  return Context(sws_getContext(from.width, from.height, AV_PIX_FMT_GRAY16, to.width, to.height,
                                AV_PIX_FMT_GRAY16, SWS_AREA | SWS_ACCURATE_RND, nullptr, nullptr,
                                nullptr));
}

// A channel of the source; colours multiplied by alpha.
void take_channel(const Image& source, std::size_t channel, Plane* out) {
  const std::uint8_t* pixel = source.pixels.data();
  for (std::uint16_t& value : *out) {
    const std::uint32_t factor = channel == 3 ? 255 : pixel[3];
    value = static_cast<std::uint16_t>((pixel[channel] * factor * TO_16_BITS + 127) / 255);
    pixel += IMAGE_PIXEL_BYTES;
  }
}

bool scale_plane(SwsContext* context, const Plane& from, Size from_size, Size to_size, Plane* to) {
  const std::uint8_t* const in[4] = {reinterpret_cast<const std::uint8_t*>(from.data())};
  const int in_stride[4] = {from_size.width * 2};
  std::uint8_t* const out[4] = {reinterpret_cast<std::uint8_t*>(to->data())};
  const int out_stride[4] = {to_size.width * 2};
  return sws_scale(context, in, in_stride, 0, from_size.height, out, out_stride) == to_size.height;
}

std::uint8_t straight(std::uint32_t multiplied, std::uint32_t alpha) {
  if (alpha == 0) return 0;
  return static_cast<std::uint8_t>(
      std::min<std::uint64_t>((std::uint64_t{multiplied} * 255 + alpha / 2) / alpha, 255));
}

std::uint8_t to_8_bits(std::uint32_t value) {
  return static_cast<std::uint8_t>((value + TO_16_BITS / 2) / TO_16_BITS);
}

}  // namespace

bool scale_image(const Image& source, std::uint32_t width, std::uint32_t height, Image* out) try {
  const Size from{static_cast<int>(source.width), static_cast<int>(source.height)};
  const Size to{static_cast<int>(width), static_cast<int>(height)};
  const Context context = make_context(from, to);
  if (!context) return false;

  out->width = width;
  out->height = height;
  const std::size_t pixels = std::size_t{width} * height;
  out->pixels.resize(pixels * IMAGE_PIXEL_BYTES);
  Plane whole(std::size_t{source.width} * source.height);
  Plane alpha(pixels);
  Plane colour(pixels);
  // Alpha first: the others are divided by it.
  for (const std::size_t channel : {3, 0, 1, 2}) {
    Plane& scaled = channel == 3 ? alpha : colour;
    take_channel(source, channel, &whole);
    if (!scale_plane(context.get(), whole, from, to, &scaled)) return false;
    for (std::size_t i = 0; i < pixels; ++i) {
      out->pixels[i * IMAGE_PIXEL_BYTES + channel] =
          channel == 3 ? to_8_bits(alpha[i]) : straight(colour[i], alpha[i]);
    }
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}
