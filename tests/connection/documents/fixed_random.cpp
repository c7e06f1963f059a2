#include "tests/connection/documents/fixed_random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>

#include "connection/secure.h"

namespace {

constexpr std::uint8_t UNPLANNED[4] = {4, 3, 2, 1};

std::map<std::size_t, std::deque<std::vector<std::uint8_t>>>& planned() {
  static std::map<std::size_t, std::deque<std::vector<std::uint8_t>>> by_size;
  return by_size;
}

}  // namespace

namespace fixed_random {

void plan(const std::vector<std::uint8_t>& bytes) {
  planned()[bytes.size()].push_back(bytes);
}

bool all_drawn() {
  return std::ranges::all_of(planned(), [](const auto& entry) { return entry.second.empty(); });
}

}  // namespace fixed_random

int lund_random_bytes(void* buffer, std::size_t size) {
  auto* out = static_cast<std::uint8_t*>(buffer);
  auto& values = planned()[size];
  if (!values.empty()) {
    std::ranges::copy(values.front(), out);
    values.pop_front();
    return LUND_OK;
  }
  if (size == sizeof UNPLANNED) {
    std::ranges::copy(UNPLANNED, out);
    return LUND_OK;
  }
  ADD_FAILURE() << "a draw of " << size << " bytes that no example planned for";
  return LUND_ERR_RANDOM;
}
