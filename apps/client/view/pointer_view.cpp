#include "apps/client/view/pointer_view.h"

#include <cstdlib>

namespace {

// How long reports of older positions may still be on their way: a slow path's round trip, and the
// host reports each 8 ms at most.
constexpr std::uint64_t SETTLE_US = 400'000;

bool apart(std::uint16_t a, std::uint16_t b, std::uint16_t tolerance) {
  return std::abs(static_cast<int>(a) - static_cast<int>(b)) > tolerance;
}

}  // namespace

void PointerView::sent(WirePoint to, std::uint64_t now_us) {
  sent_any_ = true;
  sent_ = to;
  sent_us_ = now_us;
}

bool PointerView::moved_by_host(WirePoint tolerance, std::uint64_t now_us) const {
  if (!sent_any_) return true;
  return now_us >= sent_us_ + SETTLE_US &&
         (apart(position_.x, sent_.x, tolerance.x) || apart(position_.y, sent_.y, tolerance.y));
}

PointerShown PointerView::shown(bool relative, bool over, WirePoint tolerance,
                                std::uint64_t now_us) const {
  PointerShown shown;
  shown.at = {position_.x, position_.y};
  const bool hidden = known_ && !position_.visible;
  shown.own = over && !relative && !hidden;
  const bool elsewhere = relative || !over || moved_by_host(tolerance, now_us);
  shown.painted = known_ && position_.visible && position_.shape_id != 0 && elsewhere;
  if (!shown.painted) shown.at = {};
  return shown;
}

std::uint64_t PointerView::changes_at_us() const {
  return sent_any_ && known_ ? sent_us_ + SETTLE_US : 0;
}
