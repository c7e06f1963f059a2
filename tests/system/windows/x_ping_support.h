// Whether a program has taken all that X told it: X tells in order, and programs answer a ping of a
// window manager's (EWMH, _NET_WM_PING). One thread.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <string>

class XPing {
 public:
  explicit XPing(const std::string& display);
  ~XPing();
  XPing(const XPing&) = delete;
  XPing& operator=(const XPing&) = delete;

  // Of the window under the pointer and of each that it lies in, the outermost first: waits until
  // their programs have answered; fails the test when one doesn't.
  void ping_under_pointer();

 private:
  void ping(xcb_window_t window);
  xcb_atom_t atom(const std::string& name);

  xcb_connection_t* connection_;
  xcb_window_t root_ = 0;
  std::uint32_t number_ = 0;  // of the last one
};
