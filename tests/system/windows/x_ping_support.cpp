#include "tests/system/windows/x_ping_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "tests/system/user_support.h"

namespace {

template <typename Reply>
std::unique_ptr<Reply, decltype(&std::free)> own(Reply* reply) {
  return {reply, &std::free};
}

}  // namespace

XPing::XPing(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
  root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
  const std::uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;  // where answers are sent
  xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &events);
}

XPing::~XPing() {
  xcb_disconnect(connection_);
}

xcb_atom_t XPing::atom(const std::string& name) {
  const auto reply = own(xcb_intern_atom_reply(
      connection_,
      xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.c_str()),
      nullptr));
  return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

void XPing::ping_under_pointer() {
  for (xcb_window_t window = root_; window != XCB_WINDOW_NONE;) {
    if (window != root_) ping(window);
    const auto pointer =
        own(xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, window), nullptr));
    window = pointer ? pointer->child : xcb_window_t{XCB_WINDOW_NONE};
  }
}

void XPing::ping(xcb_window_t window) {
  const std::uint32_t number = ++number_;
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window;
  message.type = atom("WM_PROTOCOLS");
  message.data.data32[0] = atom("_NET_WM_PING");
  message.data.data32[1] = number;
  message.data.data32[2] = window;
  xcb_send_event(connection_, 0, window, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(connection_);
  EXPECT_TRUE(system_test::comes_true([&] {
    while (const auto event = own(xcb_poll_for_event(connection_))) {
      const auto* answer = reinterpret_cast<const xcb_client_message_event_t*>(event.get());
      if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE && answer->window == root_ &&
          answer->data.data32[1] == number && answer->data.data32[2] == window)
        return true;
    }
    return false;
  })) << "window "
      << window << " doesn't answer";
}
