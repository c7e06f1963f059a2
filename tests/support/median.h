#pragma once

#include <algorithm>
#include <vector>

// Of at least one value; of an even number of them, the upper of the two in the middle.
template <class Value>
Value median(std::vector<Value> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::ranges::nth_element(values, middle);
  return *middle;
}
