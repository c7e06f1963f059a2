#include "streams/linux/xtest_sink.h"

#include <poll.h>
#include <xcb/xcbext.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include "connection/clock.h"
#include "control/log.h"
#include "streams/linux/evdev_keys.h"

namespace {

constexpr std::uint64_t ATTEMPT_SPACING_US = 200'000;
constexpr int PATIENCE_MS = 1'000;
constexpr std::uint16_t KEYCODE_OF_EVDEV = 8;  // the first keycode of X
constexpr std::uint8_t X_BUTTONS[] = {1, 3, 2, 8, 9};

// The buttons that a wheel is to X.
struct WheelButtons {
  std::uint8_t backward;
  std::uint8_t forward;
};
constexpr WheelButtons VERTICAL{5, 4};
constexpr WheelButtons HORIZONTAL{6, 7};

std::int16_t coordinate(int value) {
  using Limits = std::numeric_limits<std::int16_t>;
  return static_cast<std::int16_t>(std::clamp<int>(value, Limits::min(), Limits::max()));
}

// Another program's grab of the server doesn't hold input up any more when this returns: that
// program may wait for just the button that a person is about to let go.
bool take_xtest(const x11::Connection& connection) {
  if (!connection.has_extension("XTEST")) return false;
  xcb_test_grab_control(connection, 1);
  const auto version = x11::own(xcb_test_get_version_reply(
      connection, xcb_test_get_version(connection, XCB_TEST_MAJOR_VERSION, XCB_TEST_MINOR_VERSION),
      nullptr));
  return version != nullptr;
}

}  // namespace

// ---- The server

// A server drops what it hasn't read yet of a program that is gone. What was sent last are the
// releases of all that a client held.
XTestSink::~XTestSink() {
  if (connection_ && has_xtest_ && !hangs_) wait_for_server();
}

void XTestSink::wait_for_server() {
  const auto question = xcb_get_input_focus(*connection_);
  xcb_flush(*connection_);
  const std::uint64_t deadline_us = lund_now_us() + PATIENCE_MS * 1'000;
  void* answer = nullptr;
  xcb_generic_error_t* error = nullptr;
  // Answered with nothing when the connection breaks.
  while (xcb_poll_for_reply(*connection_, question.sequence, &answer, &error) == 0) {
    const std::uint64_t now_us = lund_now_us();
    if (now_us >= deadline_us) return;
    pollfd socket{xcb_get_file_descriptor(*connection_), POLLIN, 0};
    poll(&socket, 1, static_cast<int>((deadline_us - now_us + 999) / 1'000));
  }
  x11::own(answer);
  x11::own(error);
}

void XTestSink::connect() {
  const char* display = std::getenv("DISPLAY");
  display_ = display ? display : "";
  connection_.emplace();
  const xcb_screen_t* screen = connection_->screen();
  if (!screen) {
    connection_.reset();
    next_attempt_us_ = lund_now_us() + ATTEMPT_SPACING_US;
    return;
  }
  root_ = screen->root;
  has_xtest_ = take_xtest(*connection_);
  if (!has_xtest_)
    hlog("input: the X server %s has no XTEST extension: keyboard and mouse can't be played",
         display_.c_str());
  else if (connections_ != NO_DESKTOP)
    hlog("input: the X server %s is back", display_.c_str());
  ++connections_;
  vertical_.forget();
  horizontal_.forget();
}

// Drops what the server said: each client is told of changed keyboards, and errors come as events.
// Its end shows here as well, before an event is lost to it.
void XTestSink::take_in() {
  if (!connection_) return;
  while (x11::own(xcb_poll_for_event(*connection_))) {
  }
  if (connection_->ok()) return;
  hlog("input: the X server %s has gone", display_.c_str());
  connection_.reset();
}

InputSink::Desktop XTestSink::open_input_desktop() {
  take_in();
  if (!connection_ && lund_now_us() >= next_attempt_us_) connect();
  return connection_ && has_xtest_ ? connections_ : NO_DESKTOP;
}

bool XTestSink::desktop_name(Desktop desktop, std::string* name) {
  name->assign(display_);
  name->append("#").append(std::to_string(desktop));
  return true;
}

// ---- Sending

SendResult XTestSink::move_to(DesktopPoint pixel) {
  constexpr std::uint8_t ABSOLUTE = 0;
  return send([&] { fake(XCB_MOTION_NOTIFY, ABSOLUTE, root_, pixel.x, pixel.y); });
}

SendResult XTestSink::move_by(std::int32_t dx, std::int32_t dy) {
  constexpr std::uint8_t RELATIVE = 1;
  return send([&] { fake(XCB_MOTION_NOTIFY, RELATIVE, XCB_NONE, dx, dy); });
}

SendResult XTestSink::button(int button, bool down) {
  return send([&] { fake_button(X_BUTTONS[button - 1], down); });
}

SendResult XTestSink::wheel(WheelAxis axis, std::int32_t delta) {
  const bool vertical = axis == WheelAxis::Vertical;
  const WheelButtons& buttons = vertical ? VERTICAL : HORIZONTAL;
  const int notches = (vertical ? vertical_ : horizontal_).add(delta);
  return send([&] {
    for (int turned = 0; turned < std::abs(notches); ++turned)
      for (const bool down : {true, false})
        fake_button(notches > 0 ? buttons.forward : buttons.backward, down);
  });
}

SendResult XTestSink::key(const InputKey& key, bool down) {
  const auto keycode = static_cast<std::uint8_t>(hid_to_evdev(key.usage) + KEYCODE_OF_EVDEV);
  return send([&] { fake(down ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode); });
}

// Whether a few requests can go out: the kernel calls a socket writable while three quarters of its
// buffer are free. A server that hangs is waited for once: nobody else may hang with it, least of
// all the thread that reads the network.
bool XTestSink::has_room() {
  pollfd socket{xcb_get_file_descriptor(*connection_), POLLOUT, 0};
  hangs_ = poll(&socket, 1, hangs_ ? 0 : PATIENCE_MS) <= 0;
  return !hangs_;
}

template <typename Requests>
SendResult XTestSink::send(Requests requests) {
  if (!connection_) return {false, XCB_CONN_ERROR};
  if (!has_xtest_) return {false, XCB_CONN_CLOSED_EXT_NOTSUPPORTED};
  if (!has_room()) return {false, EAGAIN};
  requests();
  xcb_flush(*connection_);
  take_in();
  return {connection_.has_value(), XCB_CONN_ERROR};
}

void XTestSink::fake_button(std::uint8_t button, bool down) {
  fake(down ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, button);
}

void XTestSink::fake(std::uint8_t type, std::uint8_t detail, xcb_window_t root, int x, int y) {
  xcb_test_fake_input(*connection_, type, detail, XCB_CURRENT_TIME, root, coordinate(x),
                      coordinate(y), 0);
}

std::unique_ptr<InputSink> make_xtest_sink() {
  return std::make_unique<XTestSink>();
}
