// Between FILETIME, counted from 1601 in 100 ns, and microseconds. Pure.
#pragma once

#include <winsock2.h>
// clang-format off
#include <windows.h>
// clang-format on

#include <cstdint>

inline constexpr std::uint64_t FILETIME_TICKS_PER_US = 10;
// From 1601, where FILETIME starts, to 1970.
inline constexpr std::uint64_t FILETIME_TO_UNIX_US = 11'644'473'600'000'000;

inline std::uint64_t ticks_of(const FILETIME& time) {
  return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}
