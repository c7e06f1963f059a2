// In place of the system's random source: a finding must come back with its input.
#pragma once

#include <cstdint>

void repeatable_random_seed(std::uint64_t seed);
