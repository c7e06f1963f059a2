#include "apps/client/view/overlay_font.h"

#include "control/windows/handles.h"

namespace {

using FontHandle = Owned<NullableKind<HFONT, DeleteObject>>;

// The file of the font that Windows takes for "Consolas": that very one where it is, and else the
// closest of a fixed pitch, wherever it is installed. Empty when there is no outline font.
std::vector<Uint8> overlay_font_file() {
  const MemoryContext context(CreateCompatibleDC(nullptr));
  const FontHandle wanted(CreateFontW(0, 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET,
                                      OUT_TT_ONLY_PRECIS, CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY,
                                      FIXED_PITCH | FF_MODERN, L"Consolas"));
  if (!context || !wanted) return {};
  const HGDIOBJ former = SelectObject(context.get(), wanted.get());
  std::vector<Uint8> file;
  const DWORD size = GetFontData(context.get(), 0, 0, nullptr, 0);
  if (size != GDI_ERROR) {
    file.resize(size);
    if (GetFontData(context.get(), 0, 0, file.data(), size) != size) file.clear();
  }
  SelectObject(context.get(), former);
  return file;
}

}  // namespace

OverlayFont open_overlay_font(int pixels, std::string* error) {
  OverlayFont opened;
  opened.file = overlay_font_file();
  if (opened.file.empty()) {
    *error = "no font is installed";
    return opened;
  }
  SDL_RWops* source = SDL_RWFromConstMem(opened.file.data(), static_cast<int>(opened.file.size()));
  if (source) opened.font.reset(TTF_OpenFontRW(source, 1, pixels));
  if (!opened.font) *error = TTF_GetError();
  return opened;
}
