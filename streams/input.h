// Plays clients' keyboards and mice into the desktop. Knows what it has pressed, so that a client
// that vanishes leaves no key and no button down; follows the desktop that receives input, so that
// a logon screen can be reached; and makes Ctrl+Alt+Delete, which no program can press, a call of a
// handler.
//
// One for all sessions; any thread may enter. One mutex serialises all, held while an event is
// sent, so that the book of pressed keys and the order of events stay together. Only the handler
// runs outside it, so it may take its time and may come back in. Pointer events allocate nothing in
// steady state. Nothing here throws but a mutex that fails.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "streams/input_sink.h"

// The screen that a pointer event is about.
struct InputTarget {
  std::int32_t left = 0;  // the monitor on the virtual desktop, right and bottom exclusive
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
  std::int32_t stream_width = 0;  // the picture that the client sees, in its pixels
  std::int32_t stream_height = 0;
  bool operator==(const InputTarget&) const = default;
};

class InputInjector {
 public:
  explicit InputInjector(std::unique_ptr<InputSink> sink);
  // Sends nothing: `release_all` is for whoever ends the host.
  ~InputInjector();
  InputInjector(const InputInjector&) = delete;
  InputInjector& operator=(const InputInjector&) = delete;

  // While one is set, Delete pressed with a Ctrl and an Alt down calls it, on the calling thread,
  // with everything released. An empty one makes the chord three ordinary keys.
  void set_sas_handler(std::function<void()> handler);
  // Off at first. While on, an event for which the input desktop can't be had is dropped, and a
  // change of desktop makes the injector forget what it has pressed.
  void set_input_desktop_tracking(bool on);
  // Off at first. While on, Ctrl and GUI trade places on both sides.
  void set_mac_keys(bool on);

  void mouse_abs(const InputTarget& target, std::uint16_t x, std::uint16_t y);  // across the screen
  void mouse_rel(const InputTarget& target, int dx, int dy);                    // stream pixels
  void mouse_button(std::uint16_t button, bool down);                           // 1 to 5
  void mouse_wheel(int horizontal, int vertical);                               // 120 a notch
  void key(std::uint16_t usage, bool down);                                     // USB HID, page 7
  void release_all();

 private:
  using Held = InputKey;  // as it was sent

  bool track_desktop_locked();
  void forget_locked();
  bool take_chord_locked(std::uint16_t usage, bool down, std::function<void()>* handler);
  void press_locked(std::uint16_t usage);
  void lift_locked(std::uint16_t usage);
  void release_locked();
  void check_mouse_locked(const SendResult& result) { check_locked("mouse", result); }
  void send_key_locked(const Held& key, bool down);
  void check_locked(const char* device, const SendResult& result);

  const std::unique_ptr<InputSink> sink_;
  std::map<std::thread::id, OwnedDesktop> desktops_;  // that each thread was last attached to
  bool track_desktop_ = false;
  bool sas_pending_ = false;  // the chord's Delete has not come up yet
  std::string desktop_name_;  // where what is held was pressed
  // As the client sent them, kept while a handler is set. Bit n: usage 224 + n is down.
  std::uint8_t modifiers_ = 0;
  bool delete_down_ = false;
  std::function<void()> sas_handler_;
  std::mutex mutex_;  // all of this
  bool mac_keys_ = false;
  InputTarget last_target_;  // of mouse_rel
  double residual_x_ = 0;    // of a desktop pixel, not yet sent
  double residual_y_ = 0;
  std::uint32_t buttons_ = 0;           // bit n: button n is down
  std::map<std::uint16_t, Held> held_;  // by the usage that the client sent
  std::uint32_t send_failures_ = 0;
  std::string own_name_, new_name_;  // room for names, so that reading them allocates once
};
