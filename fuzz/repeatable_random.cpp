#include "fuzz/repeatable_random.h"

#include "connection/secure.h"

namespace {
std::uint64_t state;
}

void repeatable_random_seed(std::uint64_t seed) {
  state = seed;
}

int lund_random_bytes(void* buffer, std::size_t size) {
  auto* out = static_cast<std::uint8_t*>(buffer);
  for (std::size_t i = 0; i < size; ++i) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    out[i] = static_cast<std::uint8_t>(state >> 56);
  }
  return LUND_OK;
}
