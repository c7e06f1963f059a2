// Plays a client's keyboard and mouse into the desktop. Any thread.
#pragma once

#include <cstdint>

#include "capture/display.h"

struct InputTarget {
  DesktopRect monitor;     // on the virtual desktop
  std::int32_t width = 0;  // of the stream
  std::int32_t height = 0;
};

class InputInjector {
 public:
  virtual ~InputInjector() = default;
  virtual void set_mac_keys(bool on) = 0;
  virtual void mouse_rel(const InputTarget& target, int dx, int dy) = 0;
  virtual void mouse_abs(const InputTarget& target, std::uint16_t x, std::uint16_t y) = 0;
  virtual void mouse_button(int button, bool down) = 0;
  virtual void mouse_wheel(int dx, int dy) = 0;
  virtual void key(std::uint16_t usage, bool down) = 0;  // USB HID usage
  virtual void release_all() = 0;
};
