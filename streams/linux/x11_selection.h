// What reading and serving the CLIPBOARD selection share: the names that X programs exchange it by
// (ICCCM 2.6, and MIME types as targets), and the window that does so.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "capture/linux/x11.h"

struct SelectionAtoms {
  xcb_atom_t clipboard, targets, multiple, atom_pair, timestamp, incr;
  xcb_atom_t utf8_string, text_utf8, text, png, bmp, password_hint;
  xcb_atom_t transfer;  // the property on our windows that others write to

  // Every name but 0 when the server has answered.
  explicit SelectionAtoms(const x11::Connection& connection);
  bool ok() const { return transfer != XCB_NONE; }
};

inline constexpr char PASSWORD_HINT[] = "x-kde-passwordManagerHint";

inline constexpr std::uint8_t SENT_BY_PROGRAM = 0x80;  // SendEvent's mark in an event's type

// A window that nobody sees, with notifications of its properties. Destroyed with its scope.
class SelectionWindow {
 public:
  explicit SelectionWindow(const x11::Connection& connection);
  ~SelectionWindow();
  SelectionWindow(const SelectionWindow&) = delete;
  SelectionWindow& operator=(const SelectionWindow&) = delete;
  xcb_window_t id() const { return id_; }

 private:
  const x11::Connection& connection_;
  const xcb_window_t id_;
};

// The STRING type is Latin-1. Empty when the text has anything else, or was empty.
std::string latin1_from_utf8(std::string_view utf8);
std::string utf8_from_latin1(std::string_view latin1);
