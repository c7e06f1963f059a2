#include "tests/support/xvfb.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace {

constexpr std::chrono::seconds START_DEADLINE{20};

// The line of the output that is a number alone: what -displayfd writes once the server is up.
std::string display_number(const std::string& output) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && std::all_of(line.begin(), line.end(), ::isdigit)) return line;
  }
  return {};
}

// A number that no other server takes, not even after this one was killed: a program under test
// that connects again must not find another test's screen. Servers that choose for themselves take
// the lowest free number, and tests that run side by side are processes of their own.
int own_display_number() {
  static int servers = 0;
  constexpr int FIRST = 1000;
  constexpr int COUNT = 50'000;
  constexpr int SERVERS_A_PROCESS = 8;
  return FIRST + (getpid() * SERVERS_A_PROCESS + servers++ % SERVERS_A_PROCESS) % COUNT;
}

}  // namespace

Xvfb::Xvfb(int width, int height, int depth, std::vector<std::string> options)
    : screen_(std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(depth)),
      options_(std::move(options)),
      display_(":" + std::to_string(own_display_number())) {
  start();
  if (const char* former = std::getenv("DISPLAY")) former_display_ = former;
  setenv("DISPLAY", display_.c_str(), 1);
  unsetenv("WAYLAND_DISPLAY");
}

void Xvfb::start() {
  std::vector<std::string> command{"Xvfb",      display_, "-displayfd", "1", "-noreset",
                                   "-nolisten", "tcp",    "-screen",    "0", screen_};
  command.insert(command.end(), options_.begin(), options_.end());
  server_ = std::make_unique<ChildProcess>(std::move(command));
  const auto until = std::chrono::steady_clock::now() + START_DEADLINE;
  // The server writes its number once it accepts connections.
  while (display_number(server_->output()).empty() && std::chrono::steady_clock::now() < until) {
    // No output holds this text, so each turn reads what has come.
    server_->wait_for_output({"\0", 1}, std::chrono::milliseconds(5));
  }
  const bool started = !display_number(server_->output()).empty();
  EXPECT_TRUE(started) << "Xvfb did not start; it said:\n" << server_->output();
  if (!started) display_.clear();
}

void Xvfb::pause() {
  server_->signal(SIGSTOP);
}

void Xvfb::resume() {
  server_->signal(SIGCONT);
}

void Xvfb::restart() {
  start();
}

Xvfb::~Xvfb() {
  // A regular end lets the server remove its socket and lock file.
  server_->signal(SIGTERM);
  server_->wait(std::chrono::seconds(5));
  if (former_display_.empty()) {
    unsetenv("DISPLAY");
  } else {
    setenv("DISPLAY", former_display_.c_str(), 1);
  }
}

void Xvfb::kill() {
  server_->signal(SIGKILL);
  server_->wait(std::chrono::seconds(5));
}

bool Xvfb::xrandr(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{"xrandr"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const RunResult result = run_program(command, {{"DISPLAY", display_}});
  EXPECT_EQ(result.status, 0) << result.output;
  return result.status == 0;
}

bool Xvfb::resize(int width, int height) const {
  const std::string w = std::to_string(width);
  const std::string h = std::to_string(height);
  const std::string name = w + "x" + h;
  // Timings are of no matter to a server without a screen, but must be there: 60 Hz.
  const std::string clock_mhz = std::to_string(width * height * 60 / 1e6);
  return xrandr({"--newmode", name, clock_mhz, w, w, w, w, h, h, h, h}) &&
         xrandr({"--addmode", "screen", name}) && xrandr({"--output", "screen", "--mode", name});
}

struct RootPainter::Impl {
  xcb_connection_t* connection = nullptr;
  xcb_screen_t* screen = nullptr;
  xcb_gcontext_t gc = XCB_NONE;

  void wait_for_server() const {
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
  }
};

RootPainter::RootPainter(const std::string& display) : impl_(std::make_unique<Impl>()) {
  impl_->connection = xcb_connect(display.c_str(), nullptr);
  impl_->screen = xcb_setup_roots_iterator(xcb_get_setup(impl_->connection)).data;
  impl_->gc = xcb_generate_id(impl_->connection);
  xcb_create_gc(impl_->connection, impl_->gc, impl_->screen->root, 0, nullptr);
}

RootPainter::~RootPainter() {
  xcb_disconnect(impl_->connection);
}

int RootPainter::width() const {
  return impl_->screen->width_in_pixels;
}

int RootPainter::height() const {
  return impl_->screen->height_in_pixels;
}

void RootPainter::fill(std::uint32_t colour, int x, int y, int width, int height) {
  xcb_change_gc(impl_->connection, impl_->gc, XCB_GC_FOREGROUND, &colour);
  const xcb_rectangle_t rectangle{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                                  static_cast<std::uint16_t>(width),
                                  static_cast<std::uint16_t>(height)};
  xcb_poly_fill_rectangle(impl_->connection, impl_->screen->root, impl_->gc, 1, &rectangle);
  impl_->wait_for_server();
}

void RootPainter::text(std::uint32_t colour, int x, int y, const std::string& line) {
  const std::uint32_t colours[] = {colour, 0xFFFFFF};
  xcb_change_gc(impl_->connection, impl_->gc, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND, colours);
  xcb_image_text_8(impl_->connection, static_cast<std::uint8_t>(line.size()), impl_->screen->root,
                   impl_->gc, static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                   line.c_str());
  impl_->wait_for_server();
}

std::vector<std::uint8_t> RootPainter::rgb(int x, int y, int width, int height) {
  std::vector<std::uint8_t> pixels;
  auto* reply = xcb_get_image_reply(
      impl_->connection,
      xcb_get_image(impl_->connection, XCB_IMAGE_FORMAT_Z_PIXMAP, impl_->screen->root,
                    static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                    static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height), ~0U),
      nullptr);
  EXPECT_NE(reply, nullptr) << "the screen can't be read";
  if (!reply) return pixels;
  const std::uint8_t* bgrx = xcb_get_image_data(reply);
  for (int pixel = 0; pixel < width * height; ++pixel, bgrx += 4)
    pixels.insert(pixels.end(), {bgrx[2], bgrx[1], bgrx[0]});
  std::free(reply);
  return pixels;
}
