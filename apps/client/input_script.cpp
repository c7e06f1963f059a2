#include "apps/client/input_script.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace {

// Programs that poll the keyboard, and desktops that count keys by time, still see each one.
constexpr std::uint64_t STROKE_PERIOD_US = 8'000;
constexpr std::uint64_t MOVE_REPEAT_US = 200'000;
constexpr std::uint64_t MOVE_TIMEOUT_US = 3'000'000;
// A host that has never told of a pointer won't; so many repeats have arrived if anything does.
constexpr std::uint64_t BLIND_MOVE_US = 1'000'000;

bool number(const char*& at, const char* end, int* value) {
  const auto [rest, failed] = std::from_chars(at, end, *value);
  at = rest;
  return failed == std::errc{} && *value >= 0 && *value <= 65'535;
}

// Within half a pixel of the stream: the host's screen may be larger.
bool is_at(std::uint16_t shown, std::uint16_t wanted, int size) {
  return std::abs(int{shown} - int{wanted}) <= 65'535 / std::max(1, size - 1) / 2 + 1;
}

}  // namespace

std::optional<Click> parse_click(const std::string& text) {
  Click click;
  const char* at = text.data();
  const char* const end = at + text.size();
  if (!number(at, end, &click.x) || at == end || *at++ != ',' || !number(at, end, &click.y) ||
      at != end)
    return std::nullopt;
  return click;
}

std::uint16_t scale_position(int pixel, int size) {
  if (size <= 1) return 0;
  const double share = static_cast<double>(std::clamp(pixel, 0, size - 1)) / (size - 1);
  return static_cast<std::uint16_t>(std::lround(share * 65'535.0));
}

void InputScript::interrupt() {
  if (!done() && failure_.empty())
    failure_ = "the stream broke off before all was typed and clicked";
}

void InputScript::step(std::uint64_t now_us, const View& view, InputSender& input) {
  if (!failure_.empty()) return;
  idle_ = input.idle();
  if (next_ == actions_.size()) return;
  const InputAction& action = actions_[next_];
  const auto* strokes = std::get_if<std::vector<KeyStroke>>(&action);
  const bool finished =
      strokes ? type(*strokes, now_us, input) : click(std::get<Click>(action), now_us, view, input);
  if (!finished) return;
  ++next_;
  stroke_ = 0;
  since_us_ = 0;
  idle_ = false;
}

// One stroke at a time: its events have room for sure once the one before is on its way.
bool InputScript::type(const std::vector<KeyStroke>& strokes, std::uint64_t now,
                       InputSender& input) {
  if (stroke_ == strokes.size()) return true;
  if (stroke_ == 0 && !idle_) return false;
  if (now - last_us_ < STROKE_PERIOD_US || input.unacknowledged() > LUND_INPUT_MAX / 2)
    return false;
  const KeyStroke& stroke = strokes[stroke_++];
  if (stroke.shift) input.key(USAGE_LEFT_SHIFT, true);
  input.key(stroke.usage, true);
  input.key(stroke.usage, false);
  if (stroke.shift) input.key(USAGE_LEFT_SHIFT, false);
  last_us_ = now;
  return stroke_ == strokes.size();
}

bool InputScript::click(const Click& click, std::uint64_t now, const View& view,
                        InputSender& input) {
  const std::string place = std::to_string(click.x) + "," + std::to_string(click.y);
  if (click.x >= view.width || click.y >= view.height) {
    failure_ = place + " is outside the picture of " + std::to_string(view.width) + "x" +
               std::to_string(view.height);
    return false;
  }
  const std::uint16_t x = scale_position(click.x, view.width);
  const std::uint16_t y = scale_position(click.y, view.height);
  if (since_us_ == 0) {
    if (!idle_) return false;
    since_us_ = last_us_ = now;
    input.position(x, y);
    return false;
  }
  const bool there = view.pointer_known ? is_at(view.pointer.x, x, view.width) &&
                                              is_at(view.pointer.y, y, view.height)
                                        : now - since_us_ >= BLIND_MOVE_US;
  if (there) {
    input.button(1, true);
    input.button(1, false);
    return true;
  }
  if (now - since_us_ > MOVE_TIMEOUT_US) {
    failure_ = "the host's pointer did not come to " + place;
  } else if (now - last_us_ >= MOVE_REPEAT_US) {
    last_us_ = now;
    input.position(x, y);
  }
  return false;
}
