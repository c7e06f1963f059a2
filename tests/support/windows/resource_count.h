// How much of what Windows counts a process has: whatever a program leaks shows here.
#pragma once

#include <cstdint>

struct ResourceCount {
  std::uint32_t gdi_objects = 0;
  std::uint32_t windows = 0;  // that only messages know
  std::uint32_t handles = 0;
  std::uint64_t memory_bytes = 0;
};

ResourceCount count_resources();  // of this process
