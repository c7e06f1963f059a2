// A person at a desktop, for the system tests: moves its mouse, presses its keys, and sees what
// stands there. And a window that records what reaches it. One thread each.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/client/picture.h"
#include "tests/support/linux/x11_input.h"

namespace system_test {

// X keysyms of keys without a character.
inline constexpr std::uint32_t KEY_RELEASE = 0xFFE4;  // Right Ctrl
inline constexpr std::uint32_t KEY_RETURN = 0xFF0D;
inline constexpr std::uint32_t KEY_TAB = 0xFF09;
inline constexpr std::uint32_t KEY_LEFT_ALT = 0xFFE9;
inline constexpr std::uint32_t KEY_LEFT_SUPER = 0xFFEB;
inline constexpr std::uint32_t KEY_LEFT_SHIFT = 0xFFE1;

// Waits for something that another program does; false at the deadline.
template <typename Condition>
bool comes_true(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(15));
void short_pause();

struct SeenWindow {
  xcb_window_t id = 0;
  std::string title;
  int x = 0, y = 0, width = 0, height = 0;
};

struct SeenCursor {
  int width = 0, height = 0, hot_x = 0, hot_y = 0;
  std::vector<std::uint32_t> pixels;  // alpha, red, green, blue from the top; multiplied
};

class User {
 public:
  explicit User(const std::string& display);
  ~User();
  User(const User&) = delete;
  User& operator=(const User&) = delete;

  // Hands.
  void move(int x, int y);
  void move_by(int dx, int dy);
  void button(int number, bool down);
  void click(int number = 1);
  void key(std::uint32_t keysym, bool down);
  void tap(std::uint32_t keysym);
  void type(const std::string& text);  // lower-case letters, digits, spaces, minus; \n
  void command(char letter);           // the release key with it

  // Eyes.
  int pointer_x();
  int pointer_y();
  bool key_is_down(std::uint32_t keysym);
  // Away from all others, while it is free.
  bool take_keyboard();
  void let_go_of_keyboard();
  bool keyboard_is_free();  // no program has grabbed it
  bool holds_nothing();     // no key and no button is down
  SeenCursor cursor();
  std::vector<SeenWindow> windows();  // those with a title, oldest first
  bool find_window(const std::string& title, SeenWindow* window);  // waits for it
  RgbPicture screen();
  RgbPicture content(const SeenWindow& window);
  std::uint32_t colour(int x, int y);

  // What a desktop's settings do: a key that is held is pressed once.
  void end_key_repeat();

  // What a window manager does.
  void place(const SeenWindow& window, int x, int y, int width, int height);
  void focus(xcb_window_t window);
  void ask_to_close(const SeenWindow& window);
  void watch_requests();
  bool is_asked(const std::string& state, bool on);  // since watch_requests; waits for it

  xcb_connection_t* connection() { return connection_; }
  xcb_screen_t* x_screen() { return screen_; }

 private:
  xcb_atom_t atom(const std::string& name);
  xcb_keycode_t keycode(std::uint32_t keysym);
  void fake(int type, int detail, int x, int y);
  void settle();

  xcb_connection_t* connection_;
  xcb_screen_t* screen_;
};

// Covers a part of a desktop and writes down what reaches it, without a window manager.
class Recorder {
 public:
  struct Event {
    std::string text;
    std::uint64_t at_us = 0;  // lund_now_us when it was read
  };

  Recorder(const std::string& display, int x, int y, int width, int height);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // "button 1 down 10,20", "key 38 up", "motion 10,20"; what has come so far.
  const std::vector<std::string>& events();
  // Those that begin so, once `last` is among them or the deadline is over.
  std::vector<std::string> events_until(const std::string& last, const std::string& prefix);
  // The next one to come, which the former then don't have; waits for it.
  std::optional<Event> next(std::chrono::milliseconds patience = std::chrono::seconds(15));
  // Expects the next ones to be these; when the last of them came.
  std::uint64_t expect_next(const std::vector<std::string>& expected);
  bool records(const std::string& event);        // waits for it
  std::size_t count(const std::string& prefix);  // of events so far
  void forget() { events_.clear(); }
  xcb_window_t window() const { return window_; }

 private:
  static std::string described(const X11Input& input);
  void read();
  xcb_connection_t* connection_;
  xcb_screen_t* screen_;
  xcb_window_t window_;
  std::vector<std::string> events_;
};

// Of what takes its time between two programs: for people, no test asserts it.
void print_times(const std::string& what, std::vector<double> us);

template <typename Condition>
bool comes_true(Condition condition, std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    short_pause();
  }
  return true;
}

}  // namespace system_test
