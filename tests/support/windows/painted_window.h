// A window of a test's own that shows known pixels above all others. It lives on a thread of its
// own, which answers its messages until the end. One thread uses it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "control/windows/handles.h"

class PaintedWindow {
 public:
  using Picture = std::function<std::uint32_t(int x, int y)>;  // 0xRRGGBB
  enum class Kind { Plain, Layered };  // Layered: one that the desktop's own bits don't hold

  struct Place {
    int left = 0, top = 0, width = 0, height = 0;
  };

  PaintedWindow(const Place& place, const Picture& picture, Kind kind = Kind::Plain);
  ~PaintedWindow();
  PaintedWindow(const PaintedWindow&) = delete;
  PaintedWindow& operator=(const PaintedWindow&) = delete;

  // Both return once the window's thread has done it.
  void show(const Picture& picture);
  void take_input_with(HCURSOR cursor);  // to the foreground, with this cursor; null: none

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
