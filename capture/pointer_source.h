// What a capture source can tell of the pointer: where it is, whether it shows, and its image.
// Called on the capture thread alone. A source makes the system's calls and reports results; what
// is converted, when a position leaves and whether the pointer is on the display at all is
// PointerTracker's.
#pragma once

#include <cstdint>
#include <memory>

#include "capture/cursor_icon.h"
#include "capture/display.h"

// What a reported position is the place of.
enum class PointerAnchor { ImageCorner, HotPoint };

struct PointerUpdate {
  bool moved = false;     // the next two are news
  bool visible = false;   // on this display
  DesktopPoint position;  // if visible; from the display's top left corner
  PointerAnchor anchor = PointerAnchor::ImageCorner;
  std::uint64_t shape_bytes = 0;  // what a new image takes; 0: the image is as it was
};

// An image as cursor_convert takes it, behind its data.
struct PointerShape {
  std::int32_t type = 0;  // CursorShapeType
  std::uint64_t size = 0;
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t pitch = 0;
  std::int32_t hot_x = 0;
  std::int32_t hot_y = 0;
};

// A polled source's view.
struct CursorState {
  bool visible = false;
  DesktopPoint position;      // the hot point on the virtual desktop
  std::uintptr_t handle = 0;  // of the cursor; 0 if there is none
};

class PointerSource {
 public:
  virtual ~PointerSource() = default;

  // Notifying sources: of what was acquired last, until its release.
  virtual PointerUpdate pointer_update() { return {}; }
  // The new image that the update has told of; `buffer` holds its `shape_bytes`.
  virtual bool read_pointer_shape(std::uint8_t* buffer, PointerShape* out) {
    (void)buffer, (void)out;
    return false;
  }

  // Polled sources: as it is now.
  virtual bool cursor_state(CursorState* out) {
    (void)out;
    return false;
  }
  virtual std::unique_ptr<CursorIcon> open_cursor(std::uintptr_t handle) {
    (void)handle;
    return nullptr;
  }

  // Where the system's pointer is on the virtual desktop, whatever display that is on.
  virtual bool system_pointer(DesktopPoint* out) = 0;
};
