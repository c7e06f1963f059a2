// Whole steps out of fractions: what isn't whole yet is kept for the next time, so that slow motion
// adds up instead of being lost. Pure.
#pragma once

#include <cmath>
#include <cstdint>

class Carry {
 public:
  std::int32_t take(double amount) {
    rest_ += amount;
    const double whole = std::trunc(rest_);
    rest_ -= whole;
    return static_cast<std::int32_t>(whole);
  }
  void clear() { rest_ = 0; }

 private:
  double rest_ = 0;
};
