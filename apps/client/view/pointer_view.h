// Where a screen's pointer is to be seen: as this computer's own pointer, painted into the picture
// where the host says it is, or not at all. While the mouse is ours and over the picture, the own
// pointer is the host's, without the network's delay. In relative mode, with the mouse elsewhere,
// or after the host has moved its pointer by itself, the host's report is what is true. Pure; one
// thread.
#pragma once

#include <cstdint>

#include "apps/client/cursor_cache.h"
#include "apps/client/view/geometry.h"

struct PointerShown {
  bool own = false;      // this computer's pointer, with the host's image, over the picture
  bool painted = false;  // into the picture, at `at`
  WirePoint at;
  bool operator==(const PointerShown&) const = default;
};

class PointerView {
 public:
  void sent(WirePoint to, std::uint64_t now_us);  // an absolute position, by us
  void reported(const PointerPosition& position) {
    known_ = true;
    position_ = position;
  }
  void forget() { *this = {}; }  // another stream

  // `over`: the mouse is in the picture. `tolerance`: how far, in units of the wire, two positions
  // may lie apart that mean the same (a host's pixel may be wider than the picture's).
  PointerShown shown(bool relative, bool over, WirePoint tolerance, std::uint64_t now_us) const;
  // When `shown` may change by the passing of time alone; 0: it won't.
  std::uint64_t changes_at_us() const;

  bool known() const { return known_; }
  std::uint32_t shape() const { return position_.shape_id; }

 private:
  bool moved_by_host(WirePoint tolerance, std::uint64_t now_us) const;

  bool known_ = false;
  PointerPosition position_;
  bool sent_any_ = false;
  WirePoint sent_;
  std::uint64_t sent_us_ = 0;
};
