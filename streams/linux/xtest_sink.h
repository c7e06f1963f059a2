// Input by the XTEST extension, to the X server that DISPLAY names.
//
// The input desktop is the server that can be reached. Each connection to one is a desktop of its
// own, since a server that has gone took its pressed keys along: a restart shows in the name. Only
// opening the desktop connects anew, so a lost server comes back for an injector that tracks the
// input desktop; sending to a lost one fails.
//
// A server repeats a key that is down by itself, and ignores a second press of it. Held by one
// injector, under its lock.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "capture/linux/x11.h"
#include "streams/input_sink.h"
#include "streams/wheel_notches.h"

class XTestSink final : public InputSink {
 public:
  XTestSink() { connect(); }
  ~XTestSink() override;  // once the server has played what was sent, or hangs

  Words words() const override { return {"XTest", "the X server has gone, hangs or lacks XTEST"}; }

  Desktop open_input_desktop() override;
  bool desktop_name(Desktop desktop, std::string* name) override;
  bool attach_this_thread(Desktop desktop) override { return desktop == connections_; }
  void close_desktop(Desktop) override {}

  SendResult move_to(DesktopPoint pixel) override;
  SendResult move_by(std::int32_t dx, std::int32_t dy) override;
  SendResult button(int button, bool down) override;
  SendResult wheel(WheelAxis axis, std::int32_t delta) override;
  SendResult key(const InputKey& key, bool down) override;

 private:
  void connect();
  void take_in();
  void wait_for_server();
  bool has_room();
  template <typename Requests>
  SendResult send(Requests requests);
  void fake(std::uint8_t type, std::uint8_t detail, xcb_window_t root = XCB_NONE, int x = 0,
            int y = 0);
  void fake_button(std::uint8_t button, bool down);

  std::string display_;
  std::optional<x11::Connection> connection_;  // none while the server can't be reached
  bool has_xtest_ = false;
  bool hangs_ = false;  // took nothing when it was last asked
  xcb_window_t root_ = XCB_NONE;
  Desktop connections_ = NO_DESKTOP;  // so far; the number of the last one is its handle
  std::uint64_t next_attempt_us_ = 0;
  WheelNotches vertical_, horizontal_;
};

std::unique_ptr<InputSink> make_xtest_sink();
