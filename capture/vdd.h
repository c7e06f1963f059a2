// Virtual displays: monitors of a driver, leased one for each screen of a session. What a host sees
// of them; the leases themselves are in vdd_leases.h, the driver behind them in vdd_driver.h.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "capture/display.h"

// The driver at a moment. Strings are UTF-8.
struct VddState {
  bool installed = false;  // a device of the driver exists
  bool enabled = false;    // it isn't disabled in the device manager
  bool started = false;
  bool pipe_up = false;  // the driver's control pipe answers
  std::string device_id;
  std::string settings_path;
  std::int32_t settings_count = -1;  // of monitors in the settings file; -1: unreadable
  std::int32_t active_monitors = 0;  // attached now

  std::string describe() const;  // in words for a person
};

class VirtualDisplays {
 public:
  virtual ~VirtualDisplays() = default;

  int enabled = 1;  // 0 off, 1 auto, 2 always; set before any thread comes

  virtual VddState probe() = 0;  // looks afresh
  virtual bool usable() = 0;     // never with `enabled` 0
  // Provides a monitor at the mode, at `position` if given. `reason` (may be null) on failure.
  // Takes up to some 15 s when the driver has to be changed.
  virtual bool acquire(int screen, int width, int height, int fps, const DesktopPoint* position,
                       DisplayInfo* out, std::string* reason) = 0;
  virtual void release(int screen) = 0;
  virtual void tick() = 0;         // several times a second
  virtual void restore_now() = 0;  // at the end: all leases are over, the driver as it was
  virtual std::string status_line() = 0;
};

std::unique_ptr<VirtualDisplays> make_virtual_displays();
