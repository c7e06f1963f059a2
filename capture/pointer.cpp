#include "capture/pointer.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace capture_internal {
namespace {

constexpr std::uint64_t REPORT_INTERVAL_US = 8'000;  // at most 125 reports a second
constexpr std::uint64_t ROUTE_INTERVAL_US = 4'000;   // between looks at the system's pointer

// 0 and 65535 are the two edges of the picture, whatever the size that it is encoded in.
std::uint16_t normalised(std::int64_t at, std::int32_t size) {
  if (size <= 1) return 0;
  const auto inside = std::clamp<std::int64_t>(at, 0, size - 1);
  return static_cast<std::uint16_t>(
      std::lround(static_cast<double>(inside) * 65535.0 / (size - 1)));
}

bool contains(const DisplayInfo& display, const DesktopPoint& point) {
  return point.x >= display.left && point.x < display.right && point.y >= display.top &&
         point.y < display.bottom;
}

}  // namespace

void PointerTracker::reset() {
  *this = PointerTracker(*settings_, *sinks_);
}

void PointerTracker::desktop_changed() {
  sent_.reset();
  pointer_visible_ = false;
  pointer_dirty_ = true;
}

void PointerTracker::deliver_held_image() {
  if (pending_cursor_.pixels.empty() || !sinks_->cursor_sink) return;
  sinks_->cursor_sink(std::exchange(pending_cursor_, {}));
}

CursorBitmap PointerTracker::scaled(const CursorBitmap& image) const {
  const std::int32_t shown = settings_->display.width;
  const double factor = shown > 0 ? static_cast<double>(settings_->width) / shown : 1.0;
  return cursor_scale(image, factor);
}

void PointerTracker::on_pointer(PointerSource& source) {
  const PointerUpdate update = source.pointer_update();
  if (update.moved) {
    pointer_visible_ = update.visible;
    if (update.visible) {
      pointer_x_ = update.position.x;
      pointer_y_ = update.position.y;
    }
    pointer_dirty_ = true;
  }
  if (update.shape_bytes == 0) return;
  if (shape_buffer_.size() < update.shape_bytes) shape_buffer_.resize(update.shape_bytes);
  PointerShape shape;
  CursorBitmap image;
  if (!source.read_pointer_shape(shape_buffer_.data(), &shape) ||
      !cursor_convert(shape.type, shape_buffer_.data(),
                      std::min<std::uint64_t>(shape.size, shape_buffer_.size()), shape.width,
                      shape.height, shape.pitch, shape.hot_x, shape.hot_y, &image))
    return;
  const bool at_corner = update.anchor == PointerAnchor::ImageCorner;
  hotspot_x_ = at_corner ? shape.hot_x : 0;
  hotspot_y_ = at_corner ? shape.hot_y : 0;
  pending_cursor_ = scaled(image);
  pointer_dirty_ = true;
}

void PointerTracker::gdi_pointer(PointerSource& source) {
  pointer_dirty_ = true;
  CursorState state;
  if (!source.cursor_state(&state)) {
    pointer_visible_ = false;
    return;
  }
  hotspot_x_ = hotspot_y_ = 0;
  pointer_visible_ = state.visible;
  pointer_x_ = state.position.x - settings_->display.left;
  pointer_y_ = state.position.y - settings_->display.top;
  if (state.handle == 0 || state.handle == last_gdi_cursor_ || !sinks_->cursor_sink) return;
  const auto icon = source.open_cursor(state.handle);
  CursorBitmap image;
  if (!icon || !convert_icon(*icon, &image)) return;
  sinks_->cursor_sink(scaled(image));
  last_gdi_cursor_ = state.handle;
}

void PointerTracker::route_cursor(PointerSource& source, std::uint64_t now_us) {
  if (now_us - last_route_check_us_ < ROUTE_INTERVAL_US) return;
  last_route_check_us_ = now_us;
  DesktopPoint point;
  const bool inside = !source.system_pointer(&point) || contains(settings_->display, point);
  if (inside == pointer_on_display_) return;
  pointer_on_display_ = inside;
  pointer_dirty_ = true;
}

PointerTracker::Report PointerTracker::report() const {
  const auto at = [](std::int32_t position, std::int32_t hotspot) {
    return std::int64_t{position} + hotspot;
  };
  return {normalised(at(pointer_x_, hotspot_x_), settings_->display.width),
          normalised(at(pointer_y_, hotspot_y_), settings_->display.height),
          static_cast<std::uint8_t>(pointer_visible_ && pointer_on_display_)};
}

void PointerTracker::flush_pointer(std::uint64_t now_us) {
  if (!pointer_dirty_ || now_us - last_pointer_send_us_ < REPORT_INTERVAL_US) return;
  pointer_dirty_ = false;
  const Report now = report();
  if (sent_ == now) return;
  // Where a pointer is that the client doesn't show is no news. So a pointer that wanders about on
  // another display, or comes back before the next look at it, is told to have left once.
  if (sent_ && !sent_->visible && !now.visible) return;
  sent_ = now;
  last_pointer_send_us_ = now_us;
  if (sinks_->pointer_sink) sinks_->pointer_sink(now.x, now.y, now.visible);
}

std::optional<std::uint64_t> PointerTracker::due_us() const {
  if (!pointer_dirty_) return std::nullopt;
  return last_pointer_send_us_ + REPORT_INTERVAL_US;
}

}  // namespace capture_internal
