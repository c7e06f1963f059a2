// Keeps the screens of the X server that DISPLAY names awake, by MIT-SCREEN-SAVER 1.1: the saver's
// and DPMS' timers rest while a client of the server asks for it. Main thread.
#pragma once

#include <optional>

#include "capture/linux/x11.h"

class DisplayAwake {
 public:
  // False when it can't be had; letting go always succeeds.
  bool set(bool on);

 private:
  // There while on: the server ends a suspension with the connection that asked for it.
  std::optional<x11::Connection> connection_;
};
