// Another program on the X server, as slow, short-lived or wrong as a test has it: it owns the
// CLIPBOARD selection and answers request by request, or pastes piece by piece. Each wait fails the
// test after ten seconds. One thread.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "connection/clock.h"
#include "streams/linux/x11_selection.h"

class OtherProgram {
 public:
  using Bytes = std::vector<std::uint8_t>;

  x11::Connection connection;
  SelectionAtoms atoms{connection};
  SelectionWindow window{connection};

  // ---- As owner
  void own() {
    xcb_set_selection_owner(connection, window.id(), atoms.clipboard, XCB_CURRENT_TIME);
    sync();
  }
  xcb_selection_request_event_t next_request() {
    xcb_selection_request_event_t request{};
    wait_for(XCB_SELECTION_REQUEST, [&request](const xcb_generic_event_t& event) {
      request = reinterpret_cast<const xcb_selection_request_event_t&>(event);
      return true;
    });
    return request;
  }
  void set(const xcb_selection_request_event_t& to, xcb_atom_t type, std::string_view bytes) {
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, to.requestor, to.property, type, 8,
                        static_cast<std::uint32_t>(bytes.size()), bytes.data());
    sync();
  }
  void set_words(const xcb_selection_request_event_t& to, xcb_atom_t type,
                 const std::vector<std::uint32_t>& words) {
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, to.requestor, to.property, type, 32,
                        static_cast<std::uint32_t>(words.size()), words.data());
    sync();
  }
  void notify(const xcb_selection_request_event_t& to, bool done = true) {
    xcb_selection_notify_event_t event{};
    event.response_type = XCB_SELECTION_NOTIFY;
    event.requestor = to.requestor;
    event.selection = to.selection;
    event.target = to.target;
    event.property = done ? to.property : xcb_atom_t{XCB_NONE};
    char wire[32] = {};
    std::memcpy(wire, &event, sizeof(event));
    xcb_send_event(connection, 0, to.requestor, 0, wire);
    sync();
  }
  // The whole of an answer to the next request, which must be for `target`.
  void answer(xcb_atom_t target, xcb_atom_t type, std::string_view bytes) {
    const auto request = next_request();
    ASSERT_EQ(request.target, target);
    set(request, type, bytes);
    notify(request);
  }
  void answer_targets(const std::vector<std::uint32_t>& targets) {
    const auto request = next_request();
    ASSERT_EQ(request.target, atoms.targets);
    set_words(request, XCB_ATOM_ATOM, targets);
    notify(request);
  }
  void refuse(xcb_atom_t target) {
    const auto request = next_request();
    ASSERT_EQ(request.target, target);
    notify(request, false);
  }
  // Announces pieces of at least so many bytes in all.
  xcb_selection_request_event_t announce(xcb_atom_t target, std::uint32_t least) {
    const auto request = next_request();
    EXPECT_EQ(request.target, target);
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(connection, request.requestor, XCB_CW_EVENT_MASK, &events);
    set_words(request, atoms.incr, {least});
    notify(request);
    return request;
  }
  // A piece, once the one before it has been taken.
  void piece(const xcb_selection_request_event_t& to, xcb_atom_t type, std::string_view bytes) {
    wait_for_property(to.requestor, to.property, XCB_PROPERTY_DELETE);
    set(to, type, bytes);
  }

  // ---- As one who pastes
  void ask(xcb_atom_t target, xcb_timestamp_t time = XCB_CURRENT_TIME) {
    xcb_convert_selection(connection, window.id(), atoms.clipboard, target, atoms.transfer, time);
    sync();
  }
  // Whether it has been granted.
  bool answered() {
    bool granted = false;
    wait_for(XCB_SELECTION_NOTIFY, [&granted](const xcb_generic_event_t& event) {
      granted = reinterpret_cast<const xcb_selection_notify_event_t&>(event).property != XCB_NONE;
      return true;
    });
    return granted;
  }
  struct Property {
    xcb_atom_t type = XCB_NONE;
    Bytes bytes;
    std::uint32_t word(std::size_t i) const {
      std::uint32_t value = 0;
      std::memcpy(&value, &bytes.at(i * 4), 4);
      return value;
    }
  };
  Property take(xcb_atom_t property) {
    constexpr std::uint32_t ALL_WORDS = 1 << 20;
    const auto reply = x11::own(xcb_get_property_reply(
        connection,
        xcb_get_property(connection, 1, window.id(), property, XCB_ATOM_ANY, 0, ALL_WORDS),
        nullptr));
    if (!reply) return {};
    const auto* bytes = static_cast<const std::uint8_t*>(xcb_get_property_value(reply.get()));
    return {reply->type, Bytes(bytes, bytes + xcb_get_property_value_length(reply.get()))};
  }
  Property take() { return take(atoms.transfer); }
  Property next_piece() {
    wait_for_property(window.id(), atoms.transfer, XCB_PROPERTY_NEW_VALUE);
    return take();
  }

  void sync() {
    x11::own(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
  }

 private:
  void wait_for_property(xcb_window_t on, xcb_atom_t property, std::uint8_t state) {
    wait_for(XCB_PROPERTY_NOTIFY, [&](const xcb_generic_event_t& event) {
      const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      return notify.window == on && notify.atom == property && notify.state == state;
    });
  }
  void wait_for(std::uint8_t type, const std::function<bool(const xcb_generic_event_t&)>& is) {
    constexpr int DEADLINE_MS = 10'000;
    for (;;) {
      auto event = x11::own(xcb_poll_for_event(connection));
      if (!event) {
        pollfd polled{xcb_get_file_descriptor(connection), POLLIN, 0};
        if (!connection.ok() || poll(&polled, 1, DEADLINE_MS) <= 0) {
          ADD_FAILURE() << "no event of type " << int{type};
          return;
        }
        continue;
      }
      if ((event->response_type & 0x7F) == type && is(*event)) return;
    }
  }
};
