// Little-endian integers at unaligned places, as the wire has them.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

template <std::unsigned_integral T>
inline void store_le(std::uint8_t* out, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <std::unsigned_integral T>
inline T load_le(const std::uint8_t* in) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value = static_cast<T>(value | (static_cast<T>(in[i]) << (8 * i)));
  return value;
}
