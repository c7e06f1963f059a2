// Whether memory that held a secret holds nothing any more, and whether it holds a given secret.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

template <class T>
std::span<const std::uint8_t> bytes_in(const T& record) {
  return {reinterpret_cast<const std::uint8_t*>(&record), sizeof record};
}

template <class T>
bool is_wiped(const T& record) {
  return std::ranges::all_of(bytes_in(record), [](std::uint8_t byte) { return byte == 0; });
}

inline bool contains(std::span<const std::uint8_t> memory, std::span<const std::uint8_t> secret) {
  return std::search(memory.begin(), memory.end(), secret.begin(), secret.end()) != memory.end();
}
