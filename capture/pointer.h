// The pointer half of the capture loop. The client draws the pointer itself, over the decoded
// video, so pictures don't hold it: its position, visibility and image travel beside them. This
// learns them from the source, brings the position to a 16-bit scale across the picture, thins out
// the reports to 125 a second without ever losing the last position, and decides whether the
// pointer is on this display at all.
//
// Lives on the capture thread, on which it calls `pointer_sink` and `cursor_sink`. It takes no
// lock, and no heap but for a new image.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "capture/pointer_source.h"
#include "capture/video.h"

namespace capture_internal {

class PointerTracker {
 public:
  // `settings`: the display as it is now and the encoded width. Both outlive the tracker.
  PointerTracker(const VideoSettings& settings, const VideoCapture& sinks)
      : settings_(&settings), sinks_(&sinks) {}

  void reset();            // as if nothing had been seen or sent
  void desktop_changed();  // the client is told anew
  void drop_held_image() { pending_cursor_ = {}; }
  void deliver_held_image();  // once there is a sink for it

  void on_pointer(PointerSource& source);  // after each acquired result; an image is held
  void gdi_pointer(
      PointerSource& source);  // once a pass of a polled source; an image leaves at once

  // At the end of each pass, the former where there is a source.
  void route_cursor(PointerSource& source, std::uint64_t now_us);
  void flush_pointer(std::uint64_t now_us);

  // When the next report is due; nothing if there is none to make.
  std::optional<std::uint64_t> due_us() const;

 private:
  struct Report {
    std::uint16_t x = 0;
    std::uint16_t y = 0;
    std::uint8_t visible = 0;
    bool operator==(const Report&) const = default;
  };
  Report report() const;
  CursorBitmap scaled(const CursorBitmap& image) const;  // as large as it is in the picture

  const VideoSettings* settings_;
  const VideoCapture* sinks_;

  CursorBitmap pending_cursor_;             // held until it can be delivered; no pixels: none
  std::uintptr_t last_gdi_cursor_ = 0;      // converted and delivered
  std::vector<std::uint8_t> shape_buffer_;  // grows on demand, never shrinks

  bool pointer_visible_ = false;  // by the source's account
  std::int32_t pointer_x_ = 0;    // from the display's corner
  std::int32_t pointer_y_ = 0;
  std::int32_t hotspot_x_ = 0;  // from the position to the hot point
  std::int32_t hotspot_y_ = 0;
  bool pointer_on_display_ = true;
  std::uint64_t last_route_check_us_ = 0;

  bool pointer_dirty_ = false;  // something changed since the last report
  std::optional<Report> sent_;  // the last report on this desktop
  std::uint64_t last_pointer_send_us_ = 0;
};

}  // namespace capture_internal
