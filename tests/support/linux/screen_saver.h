// A test's eye on the screen saver of the X server that DISPLAY names. It comes after a second
// without a key or the mouse, unless something holds it off. One thread.
#pragma once

#include <xcb/screensaver.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

class ScreenSaver {
 public:
  struct State {
    bool on = false;
    std::uint32_t idle_ms = 0;  // since a key or the mouse was used
  };
  static constexpr std::uint32_t PAST_IT_MS = 1'500;  // idle so long, it would have come

  ScreenSaver() : connection_(xcb_connect(nullptr, nullptr)) {
    xcb_set_screen_saver(connection_, 1, 0, 0, 0);
    look();
  }
  ~ScreenSaver() { xcb_disconnect(connection_); }
  ScreenSaver(const ScreenSaver&) = delete;
  ScreenSaver& operator=(const ScreenSaver&) = delete;

  State look() {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    const std::unique_ptr<xcb_screensaver_query_info_reply_t, decltype(&std::free)> info(
        xcb_screensaver_query_info_reply(connection_, xcb_screensaver_query_info(connection_, root),
                                         nullptr),
        std::free);
    if (!info) return {};
    return {info->state == XCB_SCREENSAVER_STATE_ON, info->ms_since_user_input};
  }
  bool comes() {
    return wait([](const State& state) { return state.on; });
  }
  // Nobody has used the computer for long enough, and it hasn't come.
  bool is_held_off() {
    return wait([](const State& state) { return state.on || state.idle_ms > PAST_IT_MS; }) &&
           !look().on;
  }

 private:
  bool wait(const std::function<bool(const State&)>& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition(look())) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

  xcb_connection_t* connection_;
};
