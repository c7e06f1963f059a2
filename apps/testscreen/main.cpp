// lunderhaze-testscreen: covers an X display with something that moves, as a desktop in use does,
// and paints into each picture the time at which it was painted (apps/client/paint_marker.h), so
// that a client on the same computer can tell how old the picture is that it has decoded.
#include <xcb/xcb.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "apps/client/paint_marker.h"
#include "apps/version.h"
#include "connection/clock.h"

namespace {

volatile std::sig_atomic_t stopped = 0;
void stop(int) {
  stopped = 1;
}

struct Screen {
  xcb_connection_t* connection = nullptr;
  xcb_screen_t* screen = nullptr;
  xcb_window_t window = 0;
  xcb_gcontext_t gc = 0;

  void fill(std::uint32_t colour, int x, int y, int width, int height) const {
    xcb_change_gc(connection, gc, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t box{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                              static_cast<std::uint16_t>(width),
                              static_cast<std::uint16_t>(height)};
    xcb_poly_fill_rectangle(connection, window, gc, 1, &box);
  }
  void text(std::uint32_t colour, int x, int y, const std::string& line) const {
    const std::uint32_t white = 0xFFFFFF;
    xcb_change_gc(connection, gc, XCB_GC_FOREGROUND, &colour);
    xcb_change_gc(connection, gc, XCB_GC_BACKGROUND, &white);
    xcb_image_text_8(connection, static_cast<std::uint8_t>(line.size()), window, gc,
                     static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), line.c_str());
  }
};

void paint_background(const Screen& s) {
  const int width = s.screen->width_in_pixels;
  const int height = s.screen->height_in_pixels;
  for (int band = 0; band < 16; ++band)  // a calm gradient
    s.fill(0x203040U + static_cast<std::uint32_t>(band) * 0x040608U, 0, band * height / 16, width,
           height / 16 + 1);
  s.fill(0xFFFFFF, width / 8, height / 4, width / 2, height / 2);
  for (int line = 0; line < height / 2 / 16 - 3; ++line)
    s.text(0x202020, width / 8 + 12, height / 4 + 20 + line * 16,
           "line " + std::to_string(line) +
               ": the quick brown fox jumps over the lazy dog 0123456789");
  const std::uint32_t colours[] = {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00, 0x00FFFF, 0xFF00FF};
  for (int i = 0; i < 6; ++i)
    s.fill(colours[i], width * 3 / 4, height / 8 + i * height / 12, width / 12, height / 14);
  s.fill(0x506070, width * 70 / 100, height * 65 / 100, width * 28 / 100, height * 33 / 100);
}

// A window-sized box on a circle, a scrolling line of text, and the marker.
void paint_frame(const Screen& s, unsigned frame, int box) {
  static int old_x = 0, old_y = 0;
  const int width = s.screen->width_in_pixels;
  const int height = s.screen->height_in_pixels;
  const double angle = frame * 0.05;
  const int x = static_cast<int>(width * 0.80 + width * 0.08 * std::cos(angle));
  const int y = static_cast<int>(height * 0.75 + height * 0.08 * std::sin(angle));
  if (old_x != 0) s.fill(0x506070, old_x, old_y, box, box);
  s.fill(0xE08020, x, y, box, box);
  s.fill(0xFFFFFF, x + 6, y + 6, box - 12, box / 3);
  s.text(0x000000, x + 8, y + 20, std::to_string(frame));
  old_x = x;
  old_y = y;
  s.fill(0xFFFFFF, width / 8 + 12, height * 3 / 4 - 26, 360, 18);
  s.text(0x202020, width / 8 + 12 + static_cast<int>(frame % 200), height * 3 / 4 - 12,
         "the line that wanders");

  const std::uint64_t bits = marker_bits(lund_now_us());
  for (int square = 0; square < MARKER_SQUARES * MARKER_SQUARES; ++square)
    s.fill((bits >> (63 - square)) & 1 ? 0xFFFFFF : 0x000000,
           square % MARKER_SQUARES * MARKER_SQUARE_PIXELS,
           square / MARKER_SQUARES * MARKER_SQUARE_PIXELS, MARKER_SQUARE_PIXELS,
           MARKER_SQUARE_PIXELS);
  xcb_flush(s.connection);
}

int run_program(int argc, char** argv) {
  double fps = 60;
  double seconds = 0;
  CLI::App app{"Paints a moving, time-stamped test picture over an X display."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  app.add_option("--fps", fps, "Pictures a second")->check(CLI::Range(0.1, 240.0));
  app.add_option("--seconds", seconds, "How long; 0: until a signal");
  CLI11_PARSE(app, argc, argv);

  Screen s;
  s.connection = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(s.connection)) {
    std::fprintf(stderr, "lunderhaze-testscreen: no X display\n");
    return 2;
  }
  s.screen = xcb_setup_roots_iterator(xcb_get_setup(s.connection)).data;
  s.window = xcb_generate_id(s.connection);
  s.gc = xcb_generate_id(s.connection);
  const std::uint32_t values[] = {0x203040, 1};  // background, override-redirect
  xcb_create_window(s.connection, XCB_COPY_FROM_PARENT, s.window, s.screen->root, 0, 0,
                    s.screen->width_in_pixels, s.screen->height_in_pixels, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, s.screen->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
  xcb_create_gc(s.connection, s.gc, s.window, 0, nullptr);
  xcb_map_window(s.connection, s.window);
  std::signal(SIGINT, stop);
  std::signal(SIGTERM, stop);
  paint_background(s);

  const auto begin = std::chrono::steady_clock::now();
  const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(1.0 / fps));
  for (unsigned frame = 0; !stopped && !xcb_connection_has_error(s.connection); ++frame) {
    const auto due = begin + frame * period;
    std::this_thread::sleep_until(due);
    if (seconds > 0 && due - begin > std::chrono::duration<double>(seconds)) break;
    paint_frame(s, frame, 96);
  }
  xcb_disconnect(s.connection);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lunderhaze-testscreen: %s\n", error.what());
    return 2;
  }
}
