// A source of chance for tests: small, fast, and the same everywhere, unlike the standard library's
// distributions (SplitMix64).
#pragma once

#include <cstdint>

class SeededRandom {
 public:
  explicit SeededRandom(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  std::uint64_t below(std::uint64_t limit);  // 0 for limit 0
  bool chance(double probability);

 private:
  std::uint64_t state_;
};
