#include "tests/support/linux/x11_input.h"

#include <poll.h>

#include <cstdlib>
#include <memory>

#include "connection/clock.h"

namespace {

struct Free {
  void operator()(void* p) const { std::free(p); }
};

std::optional<X11Input> as_input(const xcb_generic_event_t& event) {
  const int type = event.response_type & 0x7F;
  if (type < XCB_KEY_PRESS || type > XCB_MOTION_NOTIFY) return std::nullopt;
  // Keys, buttons and motion are of one layout.
  const auto& data = reinterpret_cast<const xcb_key_press_event_t&>(event);
  X11Input input;
  if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) input.kind = X11Input::Kind::Key;
  if (type == XCB_BUTTON_PRESS || type == XCB_BUTTON_RELEASE) input.kind = X11Input::Kind::Button;
  input.down = type == XCB_KEY_PRESS || type == XCB_BUTTON_PRESS;
  input.code = data.detail;
  input.x = data.root_x;
  input.y = data.root_y;
  input.at_us = lund_now_us();
  return input;
}

}  // namespace

std::string X11Input::text() const {
  if (kind == Kind::Motion) return "motion";
  return (kind == Kind::Key ? "key " : "button ") + std::to_string(code) + (down ? " down" : " up");
}

std::optional<X11Input> next_input(xcb_connection_t* connection,
                                   std::chrono::milliseconds patience) {
  const auto until = std::chrono::steady_clock::now() + patience;
  for (;;) {
    while (const std::unique_ptr<xcb_generic_event_t, Free> event{xcb_poll_for_event(connection)})
      if (const auto input = as_input(*event)) return input;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    if (left.count() <= 0 || xcb_connection_has_error(connection) != 0) return std::nullopt;
    pollfd readable{xcb_get_file_descriptor(connection), POLLIN, 0};
    poll(&readable, 1, static_cast<int>(left.count()));
  }
}
