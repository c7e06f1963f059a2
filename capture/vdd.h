// Virtual displays: monitors of a driver, leased one for each screen of a session. A platform
// without such a driver has an implementation that reports "not installed".
#pragma once

#include <memory>
#include <string>

#include "capture/display.h"

class VirtualDisplays {
 public:
  virtual ~VirtualDisplays() = default;

  int enabled = 1;  // 0 off, 1 auto, 2 always

  virtual std::string probe() = 0;  // looks afresh; the driver's state in words
  virtual bool usable() = 0;        // never with `enabled` 0
  // Provides a monitor at the mode, at `position` if given. `reason` (may be null) on failure.
  virtual bool acquire(int screen, int width, int height, int fps, const DesktopPoint* position,
                       DisplayInfo* out, std::string* reason) = 0;
  virtual void release(int screen) = 0;
  virtual void tick() = 0;
  virtual void restore_now() = 0;
  virtual std::string status_line() = 0;
};

std::unique_ptr<VirtualDisplays> make_virtual_displays();
