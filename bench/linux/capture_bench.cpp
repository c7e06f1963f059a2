// A 1280x720 picture on its way: fetched from an X server, converted, encoded. A plain copy of the
// same bytes stands beside each as the bound of what memory allows, and the fetch over the X
// server's socket beside the one through shared memory.
#include <benchmark/benchmark.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/linux/x_server.h"
#include "capture/encoder.h"
#include "capture/linux/x11_source.h"

namespace {

constexpr int WIDTH = 1280;
constexpr int HEIGHT = 720;
constexpr int STRIDE = WIDTH * 4;
constexpr std::size_t BYTES = std::size_t{STRIDE} * HEIGHT;

using Pixels = std::vector<std::uint8_t>;

Pixels gradient(int shift) {
  Pixels pixels(BYTES);
  for (int y = 0; y < HEIGHT; ++y) {
    for (int x = 0; x < WIDTH; ++x) {
      std::uint8_t* p = &pixels[static_cast<std::size_t>(y * STRIDE + x * 4)];
      p[0] = static_cast<std::uint8_t>((x + shift) / 5);
      p[1] = static_cast<std::uint8_t>(y / 3);
      p[2] = static_cast<std::uint8_t>((x + y + shift) / 8);
      p[3] = 0;
    }
  }
  return pixels;
}

// A white page of dark marks the size of letters, scrolled by `shift` rows.
Pixels page(int shift) {
  Pixels pixels(BYTES, 0xF8);
  for (int y = 0; y < HEIGHT; ++y) {
    const int row = y + shift;
    if (row % 18 > 11) continue;
    for (int x = 40; x < WIDTH - 40; ++x) {
      const unsigned letter = static_cast<unsigned>((x / 9) * 2654435761u + (row / 18) * 40503u);
      const unsigned dot = static_cast<unsigned>((x % 9) / 2 * 4 + row % 18 / 3);
      if (x % 9 < 7 && letter % 7 != 0 && (letter >> 8 >> dot & 1) != 0) {
        std::memset(&pixels[static_cast<std::size_t>(y * STRIDE + x * 4)], 0x20, 4);
      }
    }
  }
  return pixels;
}

// Several pictures in turn, so that each differs from the one before.
std::vector<Pixels> sequence(Pixels (*make)(int), int step) {
  std::vector<Pixels> pictures;
  for (int i = 0; i < 8; ++i) pictures.push_back(make(i * step));
  return pictures;
}

std::unique_ptr<VideoEncoder> open_encoder() {
  EncoderSettings settings;
  settings.width = WIDTH;
  settings.height = HEIGHT;
  auto encoder = std::make_unique<VideoEncoder>();
  return encoder->open(nullptr, settings) ? std::move(encoder) : nullptr;
}

void count_pictures(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(BYTES) * state.iterations());
}

void copy(benchmark::State& state) {
  const auto pictures = sequence(gradient, 3);
  Pixels target(BYTES);
  std::size_t i = 0;
  for (auto _ : state) {
    std::memcpy(target.data(), pictures[i++ % pictures.size()].data(), BYTES);
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  count_pictures(state);
}

void convert(benchmark::State& state) {
  const auto pictures = sequence(gradient, 3);
  const auto encoder = open_encoder();
  if (!encoder) return state.SkipWithError("no encoder");
  std::size_t i = 0;
  for (auto _ : state) {
    encoder->prepare_cpu_frame(pictures[i++ % pictures.size()].data(), BYTES, WIDTH, HEIGHT,
                               STRIDE);
  }
  count_pictures(state);
}

void encode(benchmark::State& state, Pixels (*make)(int), int step) {
  const auto pictures = sequence(make, step);
  const auto encoder = open_encoder();
  if (!encoder) return state.SkipWithError("no encoder");
  std::vector<std::uint8_t> out;
  std::size_t i = 0;
  std::int64_t bytes = 0;
  bool keyframe = false;
  for (auto _ : state) {
    encoder->prepare_cpu_frame(pictures[i % pictures.size()].data(), BYTES, WIDTH, HEIGHT, STRIDE);
    if (!encoder->end_frame(i++ == 0, &out, &keyframe)) return state.SkipWithError("encode");
    bytes += static_cast<std::int64_t>(out.size());
  }
  state.counters["bytes/frame"] =
      static_cast<double>(bytes) / static_cast<double>(state.iterations());
}

// A hand that draws on a server.
class Canvas {
 public:
  Canvas() {
    if (!ok()) return;
    gc_ = xcb_generate_id(server_.connection());
    xcb_create_gc(server_.connection(), gc_, server_.root(), 0, nullptr);
  }

  bool ok() const { return server_.ok(); }
  void draw(std::uint32_t colour) {
    xcb_change_gc(server_.connection(), gc_, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t dot{0, 0, 8, 8};
    xcb_poly_fill_rectangle(server_.connection(), server_.root(), gc_, 1, &dot);
    server_.wait();
  }
  bool get_image() {
    auto* reply = xcb_get_image_reply(server_.connection(),
                                      xcb_get_image(server_.connection(), XCB_IMAGE_FORMAT_Z_PIXMAP,
                                                    server_.root(), 0, 0, WIDTH, HEIGHT, ~0u),
                                      nullptr);
    std::free(reply);
    return reply != nullptr;
  }

 private:
  Server server_;
  xcb_gcontext_t gc_ = XCB_NONE;
};

// From a change on the screen, through its notification, to its pixels in our memory.
void fetch_shared(benchmark::State& state) {
  Canvas server;
  const auto displays = server.ok() ? list_displays() : std::vector<DisplayInfo>{};
  if (displays.empty()) return state.SkipWithError("no Xvfb");
  const auto source = make_x11_source();
  DisplayInfo display = displays[0];
  SubscribeFailure failure;
  if (!source->open({display, WIDTH, HEIGHT, 60}) || !source->subscribe(&display, &failure)) {
    return state.SkipWithError("no source");
  }
  WakeEvent wake(WakeEvent::Reset::Manual);
  AcquiredPicture acquired;
  MemoryPicture picture;
  std::uint32_t colour = 0;
  for (auto _ : state) {
    server.draw(++colour);
    if (source->acquire(1000, wake, &acquired) != AcquireResult::Picture ||
        !source->picture(&picture)) {
      return state.SkipWithError("no picture");
    }
  }
  count_pictures(state);
}

void fetch_socket(benchmark::State& state) {
  Canvas server;
  if (!server.ok()) return state.SkipWithError("no Xvfb");
  std::uint32_t colour = 0;
  for (auto _ : state) {
    server.draw(++colour);
    if (!server.get_image()) return state.SkipWithError("no picture");
  }
  count_pictures(state);
}

BENCHMARK(copy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(fetch_shared)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(fetch_socket)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(convert)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(encode, still_page, page, 0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(encode, scrolling_page, page, 3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(encode, moving_gradient, gradient, 3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
