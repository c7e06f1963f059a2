#include "apps/client/view/overlay_font.h"

#include <fontconfig/fontconfig.h>

namespace {

std::string overlay_font_path() {
  std::string path;
  FcConfig* config = FcInitLoadConfigAndFonts();
  if (!config) return path;
  FcPattern* wanted = FcNameParse(reinterpret_cast<const FcChar8*>("monospace:weight=medium"));
  if (wanted) {
    FcConfigSubstitute(config, wanted, FcMatchPattern);
    FcDefaultSubstitute(wanted);
    FcResult result = FcResultNoMatch;
    FcPattern* found = FcFontMatch(config, wanted, &result);
    FcChar8* file = nullptr;
    if (found && FcPatternGetString(found, FC_FILE, 0, &file) == FcResultMatch)
      path = reinterpret_cast<const char*>(file);
    if (found) FcPatternDestroy(found);
    FcPatternDestroy(wanted);
  }
  FcConfigDestroy(config);
  return path;
}

}  // namespace

OverlayFont open_overlay_font(int pixels, std::string* error) {
  const std::string path = overlay_font_path();
  OverlayFont opened;
  if (!path.empty()) opened.font.reset(TTF_OpenFont(path.c_str(), pixels));
  if (!opened.font) *error = path.empty() ? "no font is installed" : TTF_GetError();
  return opened;
}
