// Cursors of a test's own, made of the bitmaps that it gives.
#pragma once

#include <cstdint>
#include <vector>

#include "control/windows/handles.h"

using CursorHandle = Owned<NullableKind<HCURSOR, DestroyCursor>>;

inline CursorHandle cursor_of(HBITMAP colour, HBITMAP mask, DWORD hot_x, DWORD hot_y) {
  ICONINFO info = {FALSE, hot_x, hot_y, mask, colour};
  return CursorHandle(CreateIconIndirect(&info));
}

// Masks as CreateBitmap takes them: rows padded to 16 bits, the leftmost pixel the highest bit.
inline BitmapHandle mask_bitmap(int width, int rows, const std::vector<std::uint8_t>& bits) {
  return BitmapHandle(CreateBitmap(width, rows, 1, 1, bits.data()));
}

// Pixels have alpha topmost. Without a mask nothing shows through.
inline CursorHandle colour_cursor(int width, int height, const std::vector<std::uint32_t>& pixels,
                                  DWORD hot_x, DWORD hot_y, std::vector<std::uint8_t> mask = {}) {
  mask.resize(static_cast<std::size_t>((width + 15) / 16 * 2 * height));
  const BitmapHandle colour(CreateBitmap(width, height, 1, 32, pixels.data()));
  const BitmapHandle masked = mask_bitmap(width, height, mask);
  return cursor_of(colour.get(), masked.get(), hot_x, hot_y);
}

inline CursorHandle monochrome_cursor(int width, int height,
                                      const std::vector<std::uint8_t>& and_mask,
                                      const std::vector<std::uint8_t>& xor_mask, DWORD hot_x,
                                      DWORD hot_y) {
  std::vector<std::uint8_t> both = and_mask;
  both.insert(both.end(), xor_mask.begin(), xor_mask.end());
  const BitmapHandle masked = mask_bitmap(width, 2 * height, both);
  return cursor_of(nullptr, masked.get(), hot_x, hot_y);
}
