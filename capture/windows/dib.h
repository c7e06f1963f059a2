// Device-independent bitmaps as capturing has them: rows from the top, no palette.
#pragma once

#include "control/windows/handles.h"

inline BITMAPINFOHEADER top_down_rows(LONG width, LONG rows, WORD bits) {
  BITMAPINFOHEADER header = {};
  header.biSize = sizeof header;
  header.biWidth = width;
  header.biHeight = -rows;
  header.biPlanes = 1;
  header.biBitCount = bits;
  header.biCompression = BI_RGB;
  return header;
}
