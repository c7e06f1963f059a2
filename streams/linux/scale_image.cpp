// Area averaging by libswscale, a channel at a time as 16-bit grey: its colour formats would all go
// through YUV, and 8 bits are too few for a colour multiplied by a low alpha. Sides
// of less than four pixels, before or after, it doesn't average exactly.
#include <algorithm>
#include <memory>
#include <new>

#include "capture/ffmpeg_objects.h"
#include "streams/png_codec.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace {

constexpr std::uint32_t TO_16_BITS = 257;
// It reads and writes whole vectors, past the end of a row; what it reads there weighs nothing.
constexpr std::size_t ROW_ALIGN = 64 / sizeof(std::uint16_t);

struct AvFree {
  void operator()(void* memory) const { av_free(memory); }
};

class Plane {
 public:
  Plane(std::size_t width, std::size_t height)
      : stride_((width / ROW_ALIGN + 2) * ROW_ALIGN),
        values_(static_cast<std::uint16_t*>(av_mallocz(stride_ * height * sizeof(std::uint16_t)))) {
    if (!values_) throw std::bad_alloc();
  }
  std::uint16_t* row(std::size_t y) const { return values_.get() + y * stride_; }
  int stride_bytes() const { return static_cast<int>(stride_ * sizeof(std::uint16_t)); }

 private:
  std::size_t stride_;
  std::unique_ptr<std::uint16_t[], AvFree> values_;
};

struct Size {
  int width;
  int height;
};

ffmpeg::ScalerPtr make_context(Size from, Size to) {
  return ffmpeg::ScalerPtr(sws_getContext(from.width, from.height, AV_PIX_FMT_GRAY16, to.width,
                                          to.height, AV_PIX_FMT_GRAY16, SWS_AREA | SWS_ACCURATE_RND,
                                          nullptr, nullptr, nullptr));
}

// A channel of the source; colours multiplied by alpha.
void take_channel(const Image& source, std::size_t channel, const Plane& out) {
  const std::uint8_t* pixel = source.pixels.data();
  for (std::size_t y = 0; y < source.height; ++y) {
    std::uint16_t* value = out.row(y);
    for (std::size_t x = 0; x < source.width; ++x, pixel += IMAGE_PIXEL_BYTES) {
      const std::uint32_t factor = channel == 3 ? 255 : pixel[3];
      value[x] = static_cast<std::uint16_t>((pixel[channel] * factor * TO_16_BITS + 127) / 255);
    }
  }
}

bool scale_plane(SwsContext* context, const Plane& from, Size from_size, Size to_size,
                 const Plane& to) {
  const std::uint8_t* const in[4] = {reinterpret_cast<const std::uint8_t*>(from.row(0))};
  const int in_stride[4] = {from.stride_bytes()};
  std::uint8_t* const out[4] = {reinterpret_cast<std::uint8_t*>(to.row(0))};
  const int out_stride[4] = {to.stride_bytes()};
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
  const ffmpeg::ScalerPtr context = make_context(from, to);
  if (!context) return false;

  out->width = width;
  out->height = height;
  out->pixels.resize(std::size_t{width} * height * IMAGE_PIXEL_BYTES);
  const Plane whole(source.width, source.height);
  const Plane alpha(width, height);
  const Plane colour(width, height);
  // Alpha first: the others are divided by it.
  for (const std::size_t channel :
       {std::size_t{3}, std::size_t{0}, std::size_t{1}, std::size_t{2}}) {
    const Plane& scaled = channel == 3 ? alpha : colour;
    take_channel(source, channel, whole);
    if (!scale_plane(context.get(), whole, from, to, scaled)) return false;
    std::uint8_t* pixel = out->pixels.data();
    for (std::size_t y = 0; y < height; ++y) {
      for (std::size_t x = 0; x < width; ++x, pixel += IMAGE_PIXEL_BYTES) {
        pixel[channel] =
            channel == 3 ? to_8_bits(alpha.row(y)[x]) : straight(colour.row(y)[x], alpha.row(y)[x]);
      }
    }
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}
