#include "apps/client/view/geometry.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double WIRE_MAX = 65535.0;

std::uint16_t to_wire(int offset, int shown, int picture) {
  if (picture <= 1) return 0;
  const double last = picture - 1;
  // Positions count between the centres of the first and the last pixel, so that a window that
  // shows the picture enlarged still means whole pixels.
  const double pixel = std::clamp((offset + 0.5) * picture / shown - 0.5, 0.0, last);
  return static_cast<std::uint16_t>(std::lround(pixel * WIRE_MAX / last));
}

int from_wire(std::uint16_t wire, int shown, int picture) {
  const double pixel = wire * (picture - 1) / WIRE_MAX;
  return static_cast<int>(std::floor((pixel + 0.5) * shown / picture));
}

}  // namespace

ViewRect letterbox(ViewSize window, ViewSize picture) {
  if (window.empty() || picture.empty()) return {};
  const std::int64_t wide = static_cast<std::int64_t>(window.width) * picture.height;
  const std::int64_t high = static_cast<std::int64_t>(window.height) * picture.width;
  ViewRect rect;
  if (wide <= high) {
    rect.width = window.width;
    rect.height = static_cast<int>((wide + picture.width / 2) / picture.width);
  } else {
    rect.width = static_cast<int>((high + picture.height / 2) / picture.height);
    rect.height = window.height;
  }
  rect.width = std::clamp(rect.width, 1, window.width);
  rect.height = std::clamp(rect.height, 1, window.height);
  rect.x = (window.width - rect.width) / 2;
  rect.y = (window.height - rect.height) / 2;
  return rect;
}

std::optional<WirePoint> to_picture(const ViewRect& shown, ViewSize picture, int window_x,
                                    int window_y, bool held) {
  if (shown.width <= 0 || shown.height <= 0 || picture.empty()) return std::nullopt;
  const int x = window_x - shown.x;
  const int y = window_y - shown.y;
  const bool inside = x >= 0 && y >= 0 && x < shown.width && y < shown.height;
  if (!inside && !held) return std::nullopt;
  return WirePoint{to_wire(x, shown.width, picture.width),
                   to_wire(y, shown.height, picture.height)};
}

ViewPoint from_picture(const ViewRect& shown, ViewSize picture, WirePoint point) {
  if (picture.empty()) return {};
  return {shown.x + from_wire(point.x, shown.width, picture.width),
          shown.y + from_wire(point.y, shown.height, picture.height)};
}

double view_scale(const ViewRect& shown, ViewSize picture) {
  if (shown.width <= 0 || picture.empty()) return 1.0;
  return static_cast<double>(shown.width) / picture.width;
}
