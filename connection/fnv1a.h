// FNV-1a over 64 bits (draft-eastlake-fnv): tells content apart, not against anybody's will.
#pragma once

#include <cstdint>
#include <span>

class Fnv1a {
 public:
  void add(std::uint8_t byte) { value_ = (value_ ^ byte) * 0x100000001B3; }
  void add(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) add(byte);
  }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0xCBF29CE484222325;
};
