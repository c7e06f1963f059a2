// Palettes, masks and run lengths are converted by GDI. It reads no header of another program: it
// gets one that is made of what has been checked, and run lengths only as far as the block goes.
#include "streams/bitmap.h"

#include <algorithm>
#include <cstring>

#include "control/windows/handles.h"

namespace {

constexpr std::uint64_t PALETTE_MAX = 256;

struct BitmapInfo {
  BITMAPINFOHEADER header{};
  union {
    RGBQUAD palette[PALETTE_MAX];
    DWORD masks[3];  // red, green, blue
  };
  BitmapInfo() : palette{} {}
  const BITMAPINFO* get() const { return reinterpret_cast<const BITMAPINFO*>(this); }
};
static_assert(offsetof(BitmapInfo, palette) == offsetof(BITMAPINFO, bmiColors));

BitmapInfo info_of(std::uint32_t width, std::int64_t height, std::uint32_t bits) {
  BitmapInfo info;
  info.header.biSize = sizeof info.header;
  info.header.biWidth = static_cast<LONG>(width);
  info.header.biHeight = static_cast<LONG>(height);
  info.header.biPlanes = 1;
  info.header.biBitCount = static_cast<WORD>(bits);
  return info;
}

BitmapInfo source_info(std::span<const std::uint8_t> block, const DibLayout& layout) {
  const std::int64_t height = layout.height;
  BitmapInfo info = info_of(layout.width, layout.top_down ? -height : height, layout.bits);
  info.header.biCompression = layout.compression;
  info.header.biSizeImage = static_cast<DWORD>(block.size() - layout.pixels);
  if (layout.compression == BI_BITFIELDS) {
    info.masks[0] = layout.red;
    info.masks[1] = layout.green;
    info.masks[2] = layout.blue;
  } else {
    const std::uint64_t colours = std::min(layout.colours, PALETTE_MAX);
    info.header.biClrUsed = static_cast<DWORD>(colours);
    std::memcpy(info.palette, block.data() + layout.pixels - 4 * layout.colours, 4 * colours);
  }
  return info;
}

}  // namespace

bool convert_dib_by_system(std::span<const std::uint8_t> block, const DibLayout& layout,
                           Image* out) {
  const BitmapInfo source = source_info(block, layout);
  const BitmapInfo target = info_of(layout.width, -std::int64_t{layout.height}, 32);
  const MemoryContext dc(CreateCompatibleDC(nullptr));
  void* pixels = nullptr;
  const BitmapHandle bitmap(
      CreateDIBSection(dc.get(), target.get(), DIB_RGB_COLORS, &pixels, nullptr, 0));
  if (!dc || !bitmap) return false;
  const Selected selected(dc.get(), bitmap.get());
  if (!selected ||
      SetDIBitsToDevice(dc.get(), 0, 0, layout.width, layout.height, 0, 0, 0, layout.height,
                        block.data() + layout.pixels, source.get(), DIB_RGB_COLORS) <= 0)
    return false;
  GdiFlush();
  const auto* from = static_cast<const std::uint8_t*>(pixels);
  out->pixels.assign(from, from + std::size_t{layout.width} * layout.height * IMAGE_PIXEL_BYTES);
  return true;
}
