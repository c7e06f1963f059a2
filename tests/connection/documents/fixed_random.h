// In place of the system's random source: the values that docs/protocol.md says its examples were
// made from. A draw of 4 bytes that nothing was planned for gives 0x01020304; any other unplanned
// draw fails the test.
#pragma once

#include <cstdint>
#include <vector>

namespace fixed_random {

// What the next draw of this many bytes gives, behind those planned before.
void plan(const std::vector<std::uint8_t>& bytes);
bool all_drawn();

}  // namespace fixed_random
