// An X server of a test's own, without hardware: Xvfb on a free display, killed at the end. And a
// hand that draws on an X server's root window. One thread each.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

class Xvfb {
 public:
  // Returns when the server accepts connections. DISPLAY of this process names it until the end,
  // WAYLAND_DISPLAY is unset.
  Xvfb(int width, int height, int depth = 24, std::vector<std::string> options = {});
  ~Xvfb();
  Xvfb(const Xvfb&) = delete;
  Xvfb& operator=(const Xvfb&) = delete;

  bool running() const { return !display_.empty(); }
  const std::string& display() const { return display_; }  // ":7"
  void kill();                                             // at once, as a crash would
  void restart();                                          // after kill, on the same display
  void pause();                                            // hangs until it is resumed
  void resume();
  double processor_seconds() const { return server_->processor_seconds(); }

  // `xrandr` with these arguments; true on success.
  bool xrandr(const std::vector<std::string>& arguments) const;
  bool resize(int width, int height) const;  // within the size that it started with

 private:
  void start();

  std::string screen_;
  std::vector<std::string> options_;
  std::unique_ptr<ChildProcess> server_;
  std::string display_;
  std::string former_display_;
};

class RootPainter {
 public:
  explicit RootPainter(const std::string& display);
  ~RootPainter();
  RootPainter(const RootPainter&) = delete;
  RootPainter& operator=(const RootPainter&) = delete;

  int width() const;
  int height() const;

  // Colours are 0xRRGGBB. Both return when the server has drawn it.
  void fill(std::uint32_t colour, int x, int y, int width, int height);
  void text(std::uint32_t colour, int x, int y, const std::string& line);  // on white

  // What stands there: 3 bytes a pixel, red first, rows top-down.
  std::vector<std::uint8_t> rgb(int x, int y, int width, int height);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
