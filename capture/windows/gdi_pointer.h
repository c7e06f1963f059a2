// The session's pointer as GDI has it: polled, its cursors bitmaps. Stateless.
#pragma once

#include "capture/pointer_source.h"

class GdiPointer final : public PointerSource {
 public:
  bool cursor_state(CursorState* out) override;
  std::unique_ptr<CursorIcon> open_cursor(std::uintptr_t handle) override;
  bool system_pointer(DesktopPoint* out) override;
};
