// What plays input into the desktop: the run-time seam under InputInjector. An implementation only
// makes the system's calls; it keeps no book of what is pressed. Every call comes with the
// injector's mutex held, on any thread, and none may block for long or allocate in steady state.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "capture/display.h"
#include "streams/keymap_hid.h"

struct SendResult {
  bool sent = true;
  unsigned long error = 0;  // the system's number, of a failure
};

// A key as it is pressed, by both names that systems have for it.
struct InputKey {
  std::uint16_t usage = 0;
  WinKey win;
};

enum class WheelAxis { Vertical, Horizontal };

class InputSink {
 public:
  using Desktop = std::uint64_t;  // a handle
  static constexpr Desktop NO_DESKTOP = 0;

  // For the log: the system's name of the facility, and what its failures usually mean.
  struct Words {
    const char* facility;
    const char* usual_cause;
  };

  virtual ~InputSink() = default;
  virtual Words words() const = 0;

  // A new handle on the desktop that receives input now, NO_DESKTOP if it can't be had.
  virtual Desktop open_input_desktop() = 0;
  // A name that differs wherever pressed keys don't carry over. False if it can't be read.
  virtual bool desktop_name(Desktop desktop, std::string* name) = 0;
  virtual bool attach_this_thread(Desktop desktop) = 0;
  virtual void close_desktop(Desktop desktop) = 0;

  virtual SendResult move_to(DesktopPoint pixel) = 0;
  virtual SendResult move_by(std::int32_t dx, std::int32_t dy) = 0;
  // 1 left, 2 right, 3 middle, 4 and 5 the extra ones.
  virtual SendResult button(int button, bool down) = 0;
  // 120 is a notch; away from the user and to the right are positive. Never 0.
  virtual SendResult wheel(WheelAxis axis, std::int32_t delta) = 0;
  virtual SendResult key(const InputKey& key, bool down) = 0;
};

// A desktop's handle, closed with its owner.
class OwnedDesktop {
 public:
  OwnedDesktop() = default;
  OwnedDesktop(InputSink& sink, InputSink::Desktop handle) : sink_(&sink), handle_(handle) {}
  OwnedDesktop(OwnedDesktop&& other) noexcept
      : sink_(other.sink_), handle_(std::exchange(other.handle_, InputSink::NO_DESKTOP)) {}
  OwnedDesktop& operator=(OwnedDesktop&& other) noexcept {
    std::swap(sink_, other.sink_);
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~OwnedDesktop() {
    if (*this) sink_->close_desktop(handle_);
  }

  explicit operator bool() const { return handle_ != InputSink::NO_DESKTOP; }
  bool name(std::string* text) const { return sink_->desktop_name(handle_, text); }
  bool attach_this_thread() const { return sink_->attach_this_thread(handle_); }

 private:
  InputSink* sink_ = nullptr;
  InputSink::Desktop handle_ = InputSink::NO_DESKTOP;
};
