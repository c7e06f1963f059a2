// While it lives, this process can make only so many GDI objects more than it has, so that what
// isn't given back is soon missed.
#pragma once

#include <cstddef>
#include <vector>

#include "control/windows/handles.h"

class FewGdiObjectsLeft {
 public:
  explicit FewGdiObjectsLeft(std::size_t left) {
    // A process may have 10,000 by default, under Wine 16,384.
    while (Brush brush{CreateSolidBrush(static_cast<COLORREF>(taken_.size()))})
      taken_.push_back(std::move(brush));
    taken_.resize(taken_.size() - left);
  }

 private:
  using Brush = Owned<NullableKind<HBRUSH, DeleteObject>>;
  std::vector<Brush> taken_;
};
