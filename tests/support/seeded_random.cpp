#include "tests/support/seeded_random.h"

std::uint64_t SeededRandom::next() {
  std::uint64_t z = state_ += 0x9e3779b97f4a7c15;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
  z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
  return z ^ (z >> 31);
}

std::uint64_t SeededRandom::below(std::uint64_t limit) {
  return limit == 0 ? 0 : next() % limit;
}

bool SeededRandom::chance(double probability) {
  return static_cast<double>(next() >> 11) * 0x1.0p-53 < probability;
}
