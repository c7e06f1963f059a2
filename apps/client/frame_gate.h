// Which complete frames may go to the decoder and into the recording: from a lost or damaged frame
// to the next keyframe, none. Pure.
#pragma once

#include <cstdint>

class FrameGate {
 public:
  // A complete frame; `skipped` frame numbers are missing before it. True when it may pass.
  bool pass(bool keyframe, std::uint32_t skipped) {
    if (skipped > 0) open_ = false;
    if (keyframe) open_ = true;
    return open_;
  }
  void damaged() { open_ = false; }
  bool needs_keyframe() const { return !open_; }

 private:
  bool open_ = false;  // nothing can be decoded before the first keyframe
};
