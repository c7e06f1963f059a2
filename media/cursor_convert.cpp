#include "media/cursor_convert.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <utility>

#include "connection/byte_order.h"
#include "connection/fnv1a.h"

namespace {

constexpr int SIDE_MAX = 4096;  // pixels
constexpr std::size_t PIXEL_BYTES = 4;
constexpr std::uint32_t BLACK_PIXEL = 0xFF000000;
constexpr std::uint32_t WHITE_PIXEL = 0xFFFFFFFF;
// Scaling by less than this is not worth the blur.
constexpr double FACTOR_TOLERANCE = 0.01;

std::size_t at(int x, int y, int width) {
  return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
         static_cast<std::size_t>(x);
}

// --- conversion ---

// The source's pixels, and what becomes of them: an image, and which of its pixels invert the
// background. No straight-alpha pixel can do that.
struct conversion {
  const std::uint8_t* data;
  int width;
  int height;  // of the image
  int pitch;   // bytes between rows
  std::vector<std::uint8_t> pixels;
  std::vector<bool> invert;

  const std::uint8_t* row(int y) const {
    return data + static_cast<std::size_t>(y) * static_cast<std::size_t>(pitch);
  }
  std::uint32_t colour(int x, int y) const {
    return load_le<std::uint32_t>(row(y) + static_cast<std::size_t>(x) * PIXEL_BYTES);
  }
  bool mask_bit(int x, int y) const { return (row(y)[x / 8] & (0x80 >> (x % 8))) != 0; }

  void set(int x, int y, std::uint32_t value) {
    store_le(&pixels[at(x, y, width) * PIXEL_BYTES], value);
  }
  std::uint8_t alpha(int x, int y) const { return pixels[at(x, y, width) * PIXEL_BYTES + 3]; }
};

void convert_masked_colour(conversion& c, int x, int y) {
  const std::uint32_t value = c.colour(x, y);
  const std::uint32_t colour = value & 0x00FFFFFF;
  if (value == colour)
    c.set(x, y, BLACK_PIXEL | colour);
  else if (colour != 0)
    c.invert[at(x, y, c.width)] = true;
}

void convert_monochrome(conversion& c, int x, int y) {
  const bool and_bit = c.mask_bit(x, y);
  const bool xor_bit = c.mask_bit(x, y + c.height);
  if (!and_bit)
    c.set(x, y, xor_bit ? WHITE_PIXEL : BLACK_PIXEL);
  else if (xor_bit)
    c.invert[at(x, y, c.width)] = true;
}

bool beside_inverting(const conversion& c, int x, int y) {
  for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, c.height - 1); ++ny)
    for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, c.width - 1); ++nx)
      if (c.invert[at(nx, ny, c.width)]) return true;
  return false;
}

// Black with a white outline stays visible on any background.
void draw_inverting_pixels(conversion& c) {
  if (std::find(c.invert.begin(), c.invert.end(), true) == c.invert.end()) return;
  for (int y = 0; y < c.height; ++y) {
    for (int x = 0; x < c.width; ++x) {
      if (c.invert[at(x, y, c.width)])
        c.set(x, y, BLACK_PIXEL);
      else if (c.alpha(x, y) == 0 && beside_inverting(c, x, y))
        c.set(x, y, WHITE_PIXEL);
    }
  }
}

bool holds_shape(int type, std::uint64_t size, int width, int height, int pitch) {
  const auto w = static_cast<std::uint64_t>(width);
  const auto h = static_cast<std::uint64_t>(height);
  const auto p = static_cast<std::uint64_t>(pitch);
  if (type == CURSOR_MONOCHROME) return h / 2 != 0 && p * 8 >= w && size >= p * (h / 2) * 2;
  if (type != CURSOR_COLOUR && type != CURSOR_MASKED_COLOUR) return false;
  return p >= w * PIXEL_BYTES && size >= p * (h - 1) + w * PIXEL_BYTES;
}

// --- scaling ---

// Premultiplied: resampling straight alpha would drag the colour of invisible pixels in.
using premultiplied = std::array<float, PIXEL_BYTES>;

struct float_image {
  int width;
  int height;
  std::vector<premultiplied> pixels;
  const premultiplied& pixel(int x, int y) const { return pixels[at(x, y, width)]; }
};

float_image premultiply(const CursorBitmap& source) {
  float_image image{source.width, source.height, {}};
  image.pixels.resize(at(0, source.height, source.width));
  for (std::size_t i = 0; i < image.pixels.size(); ++i) {
    const std::uint8_t* in = &source.pixels[i * PIXEL_BYTES];
    const auto alpha = static_cast<float>(in[3]);
    for (std::size_t channel = 0; channel < 3; ++channel)
      image.pixels[i][channel] = static_cast<float>(in[channel]) * alpha / 255.0F;
    image.pixels[i][3] = alpha;
  }
  return image;
}

void store_straight(const premultiplied& value, std::uint8_t* out) {
  const float alpha = value[3];
  if (alpha < 0.5F) return;
  for (std::size_t channel = 0; channel < 3; ++channel)
    out[channel] =
        static_cast<std::uint8_t>(std::min(value[channel] * (255.0F / alpha) + 0.5F, 255.0F));
  out[3] = static_cast<std::uint8_t>(std::min(alpha + 0.5F, 255.0F));
}

// The part of an axis, in source pixels, that an output pixel covers.
struct span {
  double from;
  double to;
  int first;
  int end;
  double overlap(int i) const { return std::min(to, i + 1.0) - std::max(from, double(i)); }
};

span covered(int i, double ratio, int size) {
  const double from = i * ratio;
  const double to = (i + 1) * ratio;
  return {from, to, static_cast<int>(from), std::min(static_cast<int>(std::ceil(to)), size)};
}

premultiplied area_average(const float_image& image, const span& sx, const span& sy) {
  std::array<double, PIXEL_BYTES> sum{};
  double weights = 0;
  for (int y = sy.first; y < sy.end; ++y) {
    for (int x = sx.first; x < sx.end; ++x) {
      const double weight = sx.overlap(x) * sy.overlap(y);
      if (weight <= 0) continue;
      weights += weight;
      for (std::size_t channel = 0; channel < sum.size(); ++channel)
        sum[channel] += weight * static_cast<double>(image.pixel(x, y)[channel]);
    }
  }
  premultiplied average{};
  for (std::size_t channel = 0; channel < sum.size(); ++channel)
    average[channel] = static_cast<float>(sum[channel] / weights);
  return average;
}

// The two source pixels of an axis between which an output pixel's centre lies.
struct between {
  int low;
  int high;
  float fraction;
};

between around(int i, double ratio, int size) {
  const double position = std::min((i + 0.5) * ratio - 0.5, size - 1.0);
  if (position <= 0) return {0, std::min(1, size - 1), 0.0F};
  const int low = static_cast<int>(position);
  return {low, std::min(low + 1, size - 1), static_cast<float>(position - low)};
}

premultiplied bilinear(const float_image& image, const between& bx, const between& by) {
  const auto mix = [](float a, float b, float fraction) { return a + (b - a) * fraction; };
  const premultiplied& top_left = image.pixel(bx.low, by.low);
  const premultiplied& top_right = image.pixel(bx.high, by.low);
  const premultiplied& bottom_left = image.pixel(bx.low, by.high);
  const premultiplied& bottom_right = image.pixel(bx.high, by.high);
  premultiplied value{};
  for (std::size_t channel = 0; channel < value.size(); ++channel) {
    value[channel] =
        mix(mix(top_left[channel], top_right[channel], bx.fraction),
            mix(bottom_left[channel], bottom_right[channel], bx.fraction), by.fraction);
  }
  return value;
}

// `place(i, ratio, size)` says what of an axis belongs to output pixel i, `resample` makes a pixel
// of both axes' answers.
template <typename Place, typename Resample>
void resample_into(CursorBitmap& out, const float_image& image, Place place, Resample resample) {
  const double ratio_x = static_cast<double>(image.width) / out.width;
  const double ratio_y = static_cast<double>(image.height) / out.height;
  std::vector<decltype(place(0, 1.0, 1))> columns;
  columns.reserve(static_cast<std::size_t>(out.width));
  for (int x = 0; x < out.width; ++x) columns.push_back(place(x, ratio_x, image.width));
  for (int y = 0; y < out.height; ++y) {
    const auto row = place(y, ratio_y, image.height);
    for (int x = 0; x < out.width; ++x) {
      store_straight(resample(image, columns[static_cast<std::size_t>(x)], row),
                     &out.pixels[at(x, y, out.width) * PIXEL_BYTES]);
    }
  }
}

int scaled(int length, double factor) {
  return static_cast<int>(std::lround(length * factor));
}

}  // namespace

bool cursor_convert(int type, const std::uint8_t* data, std::uint64_t size, int width, int height,
                    int pitch, int hot_x, int hot_y, CursorBitmap* out) {
  if (!data || !out || width < 1 || width > SIDE_MAX || height < 1 || height > SIDE_MAX ||
      pitch < 1 || !holds_shape(type, size, width, height, pitch))
    return false;

  conversion c{data, width, type == CURSOR_MONOCHROME ? height / 2 : height, pitch, {}, {}};
  c.pixels.resize(at(0, c.height, width) * PIXEL_BYTES);
  if (type == CURSOR_COLOUR) {
    for (int y = 0; y < c.height; ++y)
      std::copy_n(c.row(y), at(0, 1, width) * PIXEL_BYTES,
                  &c.pixels[at(0, y, width) * PIXEL_BYTES]);
  } else {
    c.invert.resize(at(0, c.height, width));
    for (int y = 0; y < c.height; ++y) {
      for (int x = 0; x < width; ++x) {
        type == CURSOR_MONOCHROME ? convert_monochrome(c, x, y) : convert_masked_colour(c, x, y);
      }
    }
    draw_inverting_pixels(c);
  }
  *out = {.width = width,
          .height = c.height,
          .hot_x = std::clamp(hot_x, 0, width - 1),
          .hot_y = std::clamp(hot_y, 0, c.height - 1),
          .pixels = std::move(c.pixels)};
  return true;
}

CursorBitmap cursor_scale(const CursorBitmap& source, double factor) {
  if (!(factor > 0) || std::abs(factor - 1.0) < FACTOR_TOLERANCE || source.width <= 0 ||
      source.height <= 0 || source.pixels.empty())
    return source;
  assert(source.pixels.size() == at(0, source.height, source.width) * PIXEL_BYTES);

  CursorBitmap out;
  out.width = std::max(scaled(source.width, factor), 1);
  out.height = std::max(scaled(source.height, factor), 1);
  out.hot_x = std::clamp(scaled(source.hot_x, factor), 0, out.width - 1);
  out.hot_y = std::clamp(scaled(source.hot_y, factor), 0, out.height - 1);
  out.pixels.resize(at(0, out.height, out.width) * PIXEL_BYTES);

  const float_image image = premultiply(source);
  if (factor < 1) {
    resample_into(out, image, covered, area_average);
  } else {
    resample_into(out, image, around, bilinear);
  }
  return out;
}

std::uint32_t cursor_hash(const CursorBitmap& cursor) {
  std::uint8_t shape[16];
  const std::int32_t fields[] = {cursor.width, cursor.height, cursor.hot_x, cursor.hot_y};
  for (std::size_t i = 0; i < 4; ++i)
    store_le(shape + 4 * i, static_cast<std::uint32_t>(fields[i]));
  Fnv1a hash;
  hash.add(shape);
  hash.add(cursor.pixels);
  const auto low = static_cast<std::uint32_t>(hash.value());
  const auto high = static_cast<std::uint32_t>(hash.value() >> 32);
  // 0 means no image.
  return low == high ? 1 : low ^ high;
}

void cursor_unpremultiply(const std::uint32_t* pixels, std::size_t count, std::uint8_t* out) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t value = pixels[i];
    const std::uint32_t alpha = value >> 24;
    const auto straight = [&](unsigned shift) {
      const std::uint32_t colour = value >> shift & 0xFF;
      return std::min<std::uint32_t>((colour * 255 + alpha / 2) / alpha, 255) << shift;
    };
    const std::uint32_t result =
        alpha == 0 ? 0 : alpha << 24 | straight(16) | straight(8) | straight(0);
    store_le(out + i * PIXEL_BYTES, result);
  }
}
