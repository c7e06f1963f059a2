#include "streams/linux/x11_selection.h"

#include <cstring>
#include <iterator>

SelectionAtoms::SelectionAtoms(const x11::Connection& connection) {
  const struct {
    const char* name;
    xcb_atom_t SelectionAtoms::*atom;
  } names[] = {
      {"CLIPBOARD", &SelectionAtoms::clipboard},
      {"TARGETS", &SelectionAtoms::targets},
      {"MULTIPLE", &SelectionAtoms::multiple},
      {"ATOM_PAIR", &SelectionAtoms::atom_pair},
      {"TIMESTAMP", &SelectionAtoms::timestamp},
      {"INCR", &SelectionAtoms::incr},
      {"UTF8_STRING", &SelectionAtoms::utf8_string},
      {"text/plain;charset=utf-8", &SelectionAtoms::text_utf8},
      {"TEXT", &SelectionAtoms::text},
      {"image/png", &SelectionAtoms::png},
      {"image/bmp", &SelectionAtoms::bmp},
      {PASSWORD_HINT, &SelectionAtoms::password_hint},
      {"LUNDERHAZE_TRANSFER", &SelectionAtoms::transfer},
  };
  xcb_intern_atom_cookie_t asked[std::size(names)];
  for (std::size_t i = 0; i < std::size(names); ++i) {
    asked[i] = xcb_intern_atom(
        connection, 0, static_cast<std::uint16_t>(std::strlen(names[i].name)), names[i].name);
  }
  for (std::size_t i = 0; i < std::size(names); ++i) {
    const auto reply = x11::own(xcb_intern_atom_reply(connection, asked[i], nullptr));
    this->*names[i].atom = reply ? reply->atom : xcb_atom_t{XCB_NONE};
  }
}

SelectionWindow::SelectionWindow(const x11::Connection& connection)
    : connection_(connection), id_(xcb_generate_id(connection)) {
  const xcb_screen_t* screen = connection.screen();
  if (screen == nullptr) return;  // the connection has failed, and so will all that is asked of it
  const std::uint32_t events[] = {XCB_EVENT_MASK_PROPERTY_CHANGE};
  xcb_create_window(connection, XCB_COPY_FROM_PARENT, id_, screen->root, 0, 0, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, events);
}

SelectionWindow::~SelectionWindow() {
  xcb_destroy_window(connection_, id_);
}

std::string latin1_from_utf8(std::string_view utf8) {
  std::string out;
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if (byte < 0x80) {
      out += utf8[i];
    } else if ((byte == 0xC2 || byte == 0xC3) && i + 1 < utf8.size()) {
      out += static_cast<char>((byte & 3) << 6 | (static_cast<unsigned char>(utf8[++i]) & 0x3F));
    } else {
      return {};
    }
  }
  return out;
}

std::string utf8_from_latin1(std::string_view latin1) {
  std::string out;
  for (const char c : latin1) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out += c;
    } else {
      out += static_cast<char>(0xC0 | byte >> 6);
      out += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return out;
}
