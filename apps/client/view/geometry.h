// Where the picture lies in its window, and which point of it the mouse means. Pure.
//
// Positions on the wire are 0 to 65535 across the picture: 0 is its first pixel, 65535 its last.
#pragma once

#include <cstdint>
#include <optional>

struct ViewSize {
  int width = 0;
  int height = 0;
  bool empty() const { return width <= 0 || height <= 0; }
  bool operator==(const ViewSize&) const = default;
};

struct ViewRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const ViewRect&) const = default;
};

struct WirePoint {
  std::uint16_t x = 0;
  std::uint16_t y = 0;
  bool operator==(const WirePoint&) const = default;
};

// The largest rectangle with the picture's aspect in the middle of the window; empty when either
// is.
ViewRect letterbox(ViewSize window, ViewSize picture);

// The picture's point under the middle of the window's pixel. Outside the picture: nothing, or with
// `held` (a button is down, so that the mouse may be dragging something) the nearest point.
std::optional<WirePoint> to_picture(const ViewRect& shown, ViewSize picture, int window_x,
                                    int window_y, bool held);

// The window's pixel in which the picture's point lies.
struct ViewPoint {
  int x = 0;
  int y = 0;
  bool operator==(const ViewPoint&) const = default;
};
ViewPoint from_picture(const ViewRect& shown, ViewSize picture, WirePoint point);

// Window pixels per picture pixel; 1 while nothing is shown.
double view_scale(const ViewRect& shown, ViewSize picture);
