// Pointer images of the usual 64 x 64 pixels: each form converted, the result scaled down and up,
// and its hash. Beside each stands the library's own work of that kind, set up anew each time as
// for a new image: libswscale unpacking masks and resampling straight alpha (it doesn't
// premultiply, so it does less), and a plain copy where there is nothing to compute.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

#include "connection/byte_order.h"
#include "media/cursor_convert.h"

namespace {

constexpr int SIDE = 64;
constexpr int PIXELS = SIDE * SIDE;
constexpr std::size_t BYTES = std::size_t{PIXELS} * 4;
constexpr int MASK_PITCH = SIDE / 8;

using Bytes = std::vector<std::uint8_t>;

// An arrow with a soft edge, a third of the image.
Bytes arrow() {
  Bytes bytes(BYTES);
  for (int y = 0; y < SIDE; ++y) {
    for (int x = 0; x < SIDE && x <= y; ++x) {
      if (y > SIDE * 3 / 4) continue;
      const std::uint32_t alpha = x == y ? 0x80 : 0xFF;
      store_le(&bytes[static_cast<std::size_t>(y * SIDE + x) * 4],
               alpha << 24 | static_cast<std::uint32_t>(x * 3) << 16 | 0x20u << 8 | 0x40u);
    }
  }
  return bytes;
}

CursorBitmap image() {
  return {SIDE, SIDE, 1, 1, arrow()};
}

// The arrow with an inverting bar at its right.
Bytes masked_colour() {
  Bytes bytes = arrow();
  for (int y = 0; y < SIDE; ++y) {
    for (int x = 0; x < SIDE; ++x) {
      std::uint8_t* pixel = &bytes[static_cast<std::size_t>(y * SIDE + x) * 4];
      const bool bar = x > SIDE - 8;
      const std::uint32_t colour = load_le<std::uint32_t>(pixel) & 0xFFFFFF;
      store_le(pixel, bar ? 0xFFFFFFFFu : pixel[3] ? colour : 0xFF000000u);
    }
  }
  return bytes;
}

// An I-beam of inverting pixels: AND all ones, XOR a column of the middle.
Bytes masks() {
  Bytes bytes(std::size_t{MASK_PITCH} * SIDE * 2, 0xFF);
  for (int y = SIDE; y < SIDE * 2; ++y) {
    for (int x = 0; x < MASK_PITCH; ++x) {
      bytes[static_cast<std::size_t>(y * MASK_PITCH + x)] = x == MASK_PITCH / 2 ? 0x18 : 0;
    }
  }
  return bytes;
}

void convert(benchmark::State& state, int type, const Bytes& data, int height, int pitch) {
  for (auto _ : state) {
    CursorBitmap out;
    cursor_convert(type, data.data(), data.size(), SIDE, height, pitch, 1, 1, &out);
    benchmark::DoNotOptimize(out.pixels.data());
  }
}

void unpremultiply(benchmark::State& state) {
  std::vector<std::uint32_t> pixels(PIXELS);
  const Bytes bytes = arrow();
  std::memcpy(pixels.data(), bytes.data(), BYTES);
  for (auto& pixel : pixels) pixel &= 0xFF7F7F7F;
  Bytes out(BYTES);
  for (auto _ : state) {
    cursor_unpremultiply(pixels.data(), pixels.size(), out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}

void scale(benchmark::State& state, double factor) {
  const CursorBitmap source = image();
  for (auto _ : state) benchmark::DoNotOptimize(cursor_scale(source, factor).pixels.data());
}

void hash(benchmark::State& state) {
  const CursorBitmap source = image();
  for (auto _ : state) benchmark::DoNotOptimize(cursor_hash(source));
}

void copy(benchmark::State& state) {
  const Bytes data = arrow();
  for (auto _ : state) {
    Bytes out(BYTES);
    std::memcpy(out.data(), data.data(), BYTES);
    benchmark::DoNotOptimize(out.data());
  }
}

void swscale(benchmark::State& state, AVPixelFormat format, const Bytes& data, int height,
             int pitch, double factor, int filter) {
  const int side = static_cast<int>(SIDE * factor);
  const int out_height = static_cast<int>(height * factor);
  for (auto _ : state) {
    Bytes out(static_cast<std::size_t>(side) * static_cast<std::size_t>(out_height) * 4);
    SwsContext* context = sws_getContext(SIDE, height, format, side, out_height, AV_PIX_FMT_BGRA,
                                         filter, nullptr, nullptr, nullptr);
    if (!context) return state.SkipWithError("no context");
    const std::uint8_t* const from[] = {data.data()};
    std::uint8_t* const to[] = {out.data()};
    const int to_pitch = side * 4;
    sws_scale(context, from, &pitch, 0, height, to, &to_pitch);
    sws_freeContext(context);
    benchmark::DoNotOptimize(out.data());
  }
}

BENCHMARK_CAPTURE(convert, colour, CURSOR_COLOUR, arrow(), SIDE, SIDE * 4);
BENCHMARK_CAPTURE(convert, masked_colour, CURSOR_MASKED_COLOUR, masked_colour(), SIDE, SIDE * 4);
BENCHMARK(unpremultiply);
BENCHMARK(copy);
BENCHMARK_CAPTURE(convert, monochrome, CURSOR_MONOCHROME, masks(), SIDE * 2, MASK_PITCH);
BENCHMARK_CAPTURE(swscale, monochrome, AV_PIX_FMT_MONOBLACK, masks(), SIDE * 2, MASK_PITCH, 1.0,
                  SWS_POINT);
BENCHMARK_CAPTURE(scale, down, 0.75);
BENCHMARK_CAPTURE(swscale, down, AV_PIX_FMT_BGRA, arrow(), SIDE, SIDE * 4, 0.75, SWS_AREA);
BENCHMARK_CAPTURE(scale, up, 1.5);
BENCHMARK_CAPTURE(swscale, up, AV_PIX_FMT_BGRA, arrow(), SIDE, SIDE * 4, 1.5, SWS_BILINEAR);
BENCHMARK(hash);

}  // namespace
