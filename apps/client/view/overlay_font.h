// The desktop's own monospaced font, for the words over the picture.
#pragma once

#include <string>
#include <vector>

#include "apps/client/view/sdl_handles.h"

struct OverlayFont {
  std::vector<Uint8> file;  // what `font` reads from; empty when that is a file of the system's
  SdlPtr<TTF_Font> font;
};

// Its font is null, with `error`, when the desktop has none.
OverlayFont open_overlay_font(int pixels, std::string* error);
