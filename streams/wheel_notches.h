// Wheel deltas as whole notches, for systems that turn a wheel by no less.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

class WheelNotches {
 public:
  static constexpr std::int32_t NOTCH = 120;

  // The notches to turn now, with their sign. What is left of a notch counts towards the next one,
  // unless the wheel turns back: a full notch back is then seen at once, and not only when it has
  // undone what nobody saw. A delta counts for no more than the 16 bits that a Windows program is
  // told, which bounds what a single event sets off.
  int add(std::int32_t delta) {
    using Told = std::numeric_limits<std::int16_t>;
    delta = std::clamp<std::int32_t>(delta, Told::min(), Told::max());
    if (delta * rest_ < 0) rest_ = 0;
    rest_ += delta;
    const int notches = rest_ / NOTCH;
    rest_ %= NOTCH;
    return notches;
  }
  void forget() { rest_ = 0; }

 private:
  std::int32_t rest_ = 0;  // of a notch, signed
};
