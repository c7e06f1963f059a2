// Where a packet stands among those of its session: the counter of its sealed record, and the keys
// under which it counts.
#pragma once

#include <cstdint>

struct PacketOrder {
  std::uint32_t keys = 0;
  std::uint64_t number = 0;
};
