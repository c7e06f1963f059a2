#include "capture/windows/gdi_pointer.h"

#include "capture/windows/dib.h"

namespace {

constexpr WORD COLOUR_BITS = 32;
constexpr WORD MASK_BITS = 1;

// GetDIBits writes the colours of a 1-bit bitmap behind its header.
struct BitmapForm {
  BITMAPINFOHEADER header;
  RGBQUAD colours[2];
};

bool read_top_down(HBITMAP bitmap, WORD bits, std::int32_t width, std::int32_t rows,
                   std::uint8_t* out) {
  BitmapForm form = {top_down_rows(width, rows, bits), {}};
  const ScreenContext screen(GetDC(nullptr));
  return screen && GetDIBits(screen.get(), bitmap, 0, static_cast<UINT>(rows), out,
                             reinterpret_cast<BITMAPINFO*>(&form), DIB_RGB_COLORS) == rows;
}

class IconBitmaps final : public CursorIcon {
 public:
  explicit IconBitmaps(const ICONINFO& icon)
      : colour_(icon.hbmColor), mask_(icon.hbmMask), hot_x_(icon.xHotspot), hot_y_(icon.yHotspot) {}

  bool has_colour() const override { return static_cast<bool>(colour_); }
  bool has_mask() const override { return static_cast<bool>(mask_); }
  std::int32_t hot_x() const override { return static_cast<std::int32_t>(hot_x_); }
  std::int32_t hot_y() const override { return static_cast<std::int32_t>(hot_y_); }

  bool size(std::int32_t* width, std::int32_t* height) override {
    BITMAP bitmap = {};
    if (!GetObjectW(colour_ ? colour_.get() : mask_.get(), sizeof bitmap, &bitmap)) return false;
    *width = bitmap.bmWidth;
    *height = bitmap.bmHeight;
    return true;
  }
  bool read_colour(std::int32_t width, std::int32_t rows, std::uint8_t* out) override {
    return read_top_down(colour_.get(), COLOUR_BITS, width, rows, out);
  }
  bool read_mask(std::int32_t width, std::int32_t rows, std::uint8_t* out) override {
    return read_top_down(mask_.get(), MASK_BITS, width, rows, out);
  }

 private:
  BitmapHandle colour_;
  BitmapHandle mask_;
  DWORD hot_x_;
  DWORD hot_y_;
};

}  // namespace

bool GdiPointer::cursor_state(CursorState* out) {
  CURSORINFO info = {};
  info.cbSize = sizeof info;
  if (!GetCursorInfo(&info)) return false;
  out->visible = (info.flags & CURSOR_SHOWING) != 0;
  out->position = {info.ptScreenPos.x, info.ptScreenPos.y};
  out->handle = reinterpret_cast<std::uintptr_t>(info.hCursor);
  return true;
}

std::unique_ptr<CursorIcon> GdiPointer::open_cursor(std::uintptr_t handle) {
  ICONINFO info = {};
  if (!GetIconInfo(reinterpret_cast<HICON>(handle), &info)) return nullptr;
  return std::make_unique<IconBitmaps>(info);
}

bool GdiPointer::system_pointer(DesktopPoint* out) {
  POINT point = {};
  if (!GetCursorPos(&point)) return false;
  *out = {point.x, point.y};
  return true;
}
