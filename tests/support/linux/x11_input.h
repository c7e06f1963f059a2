// What an X server tells a program of keyboard and mouse. One thread a connection.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

struct X11Input {
  enum class Kind { Key, Button, Motion };
  Kind kind = Kind::Motion;
  bool down = false;
  int code = 0;             // a keycode, or a button
  int x = 0, y = 0;         // of the pointer, on the root window
  std::uint64_t at_us = 0;  // lund_now_us when it was read

  std::string text() const;  // "key 38 down", "button 1 up", "motion"
};

// The next event of these kinds, whatever else comes before it; waits for it this long. Nothing if
// none comes, or if the server has gone.
std::optional<X11Input> next_input(xcb_connection_t* connection,
                                   std::chrono::milliseconds patience);
