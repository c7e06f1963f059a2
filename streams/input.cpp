#include "streams/input.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "control/log.h"

namespace {

constexpr std::uint16_t FIRST_MODIFIER = 224;  // left Ctrl, Shift, Alt, GUI, then the right ones
constexpr std::uint16_t LAST_MODIFIER = 231;
constexpr std::uint16_t DELETE = 76;
constexpr std::uint8_t EITHER_CTRL = 0x11;
constexpr std::uint8_t EITHER_ALT = 0x44;
constexpr std::uint16_t FIRST_BUTTON = 1;
constexpr std::uint16_t LAST_BUTTON = 5;
constexpr double POSITION_MAX = 65535;
constexpr std::uint32_t FAILURES_A_LINE = 200;

bool is_modifier(std::uint16_t usage) {
  return usage >= FIRST_MODIFIER && usage <= LAST_MODIFIER;
}

std::uint16_t ctrl_for_gui(std::uint16_t usage) {
  switch (usage) {
    case 224:
      return 227;
    case 227:
      return 224;
    case 228:
      return 231;
    case 231:
      return 228;
    default:
      return usage;
  }
}

// The pixel of [first, end) at this part of the way; `first` of a monitor without extent.
std::int32_t pixel_at(std::int32_t first, std::int32_t end, std::uint16_t position) {
  const std::int64_t span = std::int64_t{end} - first - 1;
  if (span < 1) return first;
  const std::int64_t offset = std::llround(position / POSITION_MAX * static_cast<double>(span));
  return static_cast<std::int32_t>(first + std::clamp<std::int64_t>(offset, 0, span));
}

// Whole desktop pixels of a motion in stream pixels; the fraction stays behind.
std::int32_t whole_pixels(std::int32_t first, std::int32_t end, std::int32_t stream, int delta,
                          double* residual) {
  using Limits = std::numeric_limits<std::int32_t>;
  const double extent = static_cast<double>(end) - first;
  const double way = extent / std::max(stream, 1) * delta + *residual;
  const double whole = std::trunc(way);
  *residual = way - whole;
  return static_cast<std::int32_t>(std::clamp<double>(whole, Limits::min(), Limits::max()));
}

}  // namespace

InputInjector::InputInjector(std::unique_ptr<InputSink> sink) : sink_(std::move(sink)) {}

InputInjector::~InputInjector() = default;

void InputInjector::set_sas_handler(std::function<void()> handler) {
  std::scoped_lock lock(mutex_);
  sas_handler_ = std::move(handler);
  sas_pending_ = false;
  modifiers_ = 0;
  delete_down_ = false;
}

void InputInjector::set_input_desktop_tracking(bool on) {
  std::scoped_lock lock(mutex_);
  track_desktop_ = on;
}

void InputInjector::set_mac_keys(bool on) {
  std::scoped_lock lock(mutex_);
  mac_keys_ = on;
}

// ---- The input desktop

// True when input may be sent. Asked by every event: nobody watches the desktop in between.
// Desktops are told apart by name, since each opening gives another handle.
bool InputInjector::track_desktop_locked() {
  if (!track_desktop_) return true;
  OwnedDesktop desktop(*sink_, sink_->open_input_desktop());
  if (!desktop || !desktop.name(&new_name_)) return false;
  const auto own = desktops_.find(std::this_thread::get_id());
  if (own != desktops_.end() && own->second.name(&own_name_) && own_name_ == new_name_) return true;
  if (!desktop.attach_this_thread()) return false;
  if (new_name_ != desktop_name_) {
    forget_locked();
    desktop_name_ = new_name_;
  }
  desktops_[std::this_thread::get_id()] = std::move(desktop);
  return true;
}

// What is pressed was pressed on another desktop, where no release can reach it.
void InputInjector::forget_locked() {
  held_.clear();
  sas_pending_ = false;
  modifiers_ = 0;
  delete_down_ = false;
  buttons_ = 0;
  residual_x_ = 0;
  residual_y_ = 0;
}

// ---- The mouse

void InputInjector::mouse_abs(const InputTarget& target, std::uint16_t x, std::uint16_t y) {
  std::scoped_lock lock(mutex_);
  if (!track_desktop_locked()) return;
  check_mouse_locked(sink_->move_to(
      {pixel_at(target.left, target.right, x), pixel_at(target.top, target.bottom, y)}));
}

void InputInjector::mouse_rel(const InputTarget& target, int dx, int dy) {
  std::scoped_lock lock(mutex_);
  if (!track_desktop_locked()) return;
  if (target != last_target_) {
    last_target_ = target;
    residual_x_ = 0;
    residual_y_ = 0;
  }
  const std::int32_t x =
      whole_pixels(target.left, target.right, target.stream_width, dx, &residual_x_);
  const std::int32_t y =
      whole_pixels(target.top, target.bottom, target.stream_height, dy, &residual_y_);
  if (x != 0 || y != 0) check_mouse_locked(sink_->move_by(x, y));
}

void InputInjector::mouse_button(std::uint16_t button, bool down) {
  if (button < FIRST_BUTTON || button > LAST_BUTTON) return;
  std::scoped_lock lock(mutex_);
  if (!track_desktop_locked()) return;
  const std::uint32_t bit = 1U << button;
  if (!down && (buttons_ & bit) == 0) return;
  buttons_ = down ? buttons_ | bit : buttons_ & ~bit;
  check_mouse_locked(sink_->button(button, down));
}

void InputInjector::mouse_wheel(int horizontal, int vertical) {
  std::scoped_lock lock(mutex_);
  if (!track_desktop_locked()) return;
  if (vertical != 0) check_mouse_locked(sink_->wheel(WheelAxis::Vertical, vertical));
  if (horizontal != 0) check_mouse_locked(sink_->wheel(WheelAxis::Horizontal, horizontal));
}

// ---- The keyboard

void InputInjector::key(std::uint16_t usage, bool down) {
  std::function<void()> handler;
  {
    std::scoped_lock lock(mutex_);
    if (!track_desktop_locked()) return;
    if (!sas_handler_ || !take_chord_locked(usage, down, &handler)) {
      if (down)
        press_locked(usage);
      else
        lift_locked(usage);
    }
  }
  if (handler) handler();
}

// True when the chord takes the event for itself; `handler` is set when it is to be called. Shift,
// GUI and other keys don't hinder it.
bool InputInjector::take_chord_locked(std::uint16_t usage, bool down,
                                      std::function<void()>* handler) {
  if (is_modifier(usage)) {
    const auto bit = static_cast<std::uint8_t>(1U << (usage - FIRST_MODIFIER));
    modifiers_ = static_cast<std::uint8_t>(down ? modifiers_ | bit : modifiers_ & ~bit);
    return false;
  }
  if (usage != DELETE) return false;
  if (!down) {
    delete_down_ = false;
    return std::exchange(sas_pending_, false);
  }
  if (delete_down_) return sas_pending_;  // a repeat
  delete_down_ = true;
  if ((modifiers_ & EITHER_CTRL) == 0 || (modifiers_ & EITHER_ALT) == 0) return false;
  sas_pending_ = true;
  *handler = sas_handler_;
  release_locked();  // Ctrl and Alt are up before the handler runs
  return true;
}

// A repeat keeps the mapping of the first press, and so does the release.
void InputInjector::press_locked(std::uint16_t usage) {
  if (const auto held = held_.find(usage); held != held_.end())
    return send_key_locked(held->second, true);
  Held key{mac_keys_ ? ctrl_for_gui(usage) : usage, {}};
  if (!hid_to_win_key(key.usage, &key.win)) return;
  held_.emplace(usage, key);
  send_key_locked(key, true);
}

void InputInjector::lift_locked(std::uint16_t usage) {
  const auto held = held_.extract(usage);
  if (!held.empty()) send_key_locked(held.mapped(), false);
}

// ---- Letting go

// Keys before modifiers, so that no release is one of a shifted key or opens an Alt menu.
void InputInjector::release_locked() {
  for (const bool modifiers : {false, true}) {
    for (auto held = held_.begin(); held != held_.end();) {
      if (is_modifier(held->first) != modifiers) {
        ++held;
        continue;
      }
      send_key_locked(held->second, false);
      held = held_.erase(held);
    }
  }
  const std::uint32_t buttons = std::exchange(buttons_, 0);
  for (int button = FIRST_BUTTON; button <= LAST_BUTTON; ++button)
    if ((buttons >> button & 1) != 0) check_mouse_locked(sink_->button(button, false));
}

void InputInjector::release_all() {
  std::scoped_lock lock(mutex_);
  sas_pending_ = false;
  modifiers_ = 0;
  delete_down_ = false;
  if (track_desktop_locked()) return release_locked();
  held_.clear();
  buttons_ = 0;
}

// ---- Sending

void InputInjector::send_key_locked(const Held& key, bool down) {
  check_locked("key", sink_->key(key, down));
}

// A failure changes nothing but the log: the books go on as if the event had been played.
void InputInjector::check_locked(const char* device, const SendResult& result) {
  if (result.sent || send_failures_++ % FAILURES_A_LINE != 0) return;
  const InputSink::Words words = sink_->words();
  hlog("%s(%s) failed (%lu): %s", words.facility, device, result.error, words.usual_cause);
}
