// The pointer of one screen, which the client draws: where it is, and its images by id. Puts images
// together from CURSOR_SHAPE packets that come in any order, keeps those it has seen, and says
// which one to ask the host for. What the host sends is bounded: sizes, the number of images and of
// those half received, and the sum of their bytes; an image whose hash isn't its id is none. One
// thread; no clock of its own.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "connection/protocol.h"
#include "media/cursor_convert.h"

struct PointerPosition {
  std::uint16_t x = 0;  // of the hot spot, 0 to 65535 across the picture
  std::uint16_t y = 0;
  bool visible = false;
  std::uint32_t shape_id = 0;  // 0: none yet
};

// Pixels as in CursorBitmap: straight alpha; blue, green, red, alpha.
struct PointerImage {
  std::uint32_t id = 0;
  CursorBitmap bitmap;
};
