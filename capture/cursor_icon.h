// A cursor of a system that keeps it as bitmaps, and the rule that makes an image of them.
#pragma once

#include <cstdint>

#include "media/cursor_convert.h"

// An open cursor; its bitmaps are freed with it. Reading fills rows from the top.
class CursorIcon {
 public:
  virtual ~CursorIcon() = default;

  virtual bool has_colour() const = 0;
  virtual bool has_mask() const = 0;
  virtual std::int32_t hot_x() const = 0;
  virtual std::int32_t hot_y() const = 0;

  // In pixels, of the colour bitmap; without one of the mask, which then holds two, one over the
  // other.
  virtual bool size(std::int32_t* width, std::int32_t* height) = 0;

  // All or nothing. A colour pixel has 32 bits; a row of the mask is padded to 32 bits.
  virtual bool read_colour(std::int32_t width, std::int32_t rows, std::uint8_t* out) = 0;
  virtual bool read_mask(std::int32_t width, std::int32_t rows, std::uint8_t* out) = 0;
};

// False, with `out` untouched, for a cursor of more than 256 pixels a side or one that can't be
// read.
bool convert_icon(CursorIcon& icon, CursorBitmap* out);
