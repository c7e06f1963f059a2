#include "apps/client/view/scene.h"

#include <algorithm>

#include "apps/client/view/overlay.h"

WirePoint pixel_tolerance(ViewSize picture) {
  auto two_pixels = [](int pixels) {
    return static_cast<std::uint16_t>(std::min(65535, 2 * 65535 / std::max(pixels - 1, 1) + 1));
  };
  return {two_pixels(picture.width), two_pixels(picture.height)};
}

Scene compose(const SharedView& shared, const ScreenView& screen, std::uint64_t now_us) {
  Scene scene;
  scene.window = screen.window;
  scene.shown = letterbox(screen.window, screen.picture);
  scene.picture_serial = screen.picture_serial;
  scene.banner =
      banner_lines(shared.host, shared.session, shared.session_text, screen.state, screen.text);
  // A stream that has been granted shows itself by its first picture.
  if (scene.banner.empty() && screen.picture.empty())
    scene.banner = {"waiting for the first picture…"};
  const bool live = scene.banner.empty();
  scene.dimmed = !live && !screen.picture.empty();
  if (live) {
    const PointerShown pointer = screen.pointer.shown(shared.relative, screen.mouse_over,
                                                      pixel_tolerance(screen.picture), now_us);
    scene.own_pointer = pointer.own || !screen.mouse_over;
    if (shared.relative) scene.own_pointer = false;
    if (pointer.painted && screen.image_known) {
      scene.pointer_painted = true;
      scene.pointer = from_picture(scene.shown, screen.picture, pointer.at);
      scene.pointer_shape = screen.pointer.shape();
    }
  }
  if (shared.statistics) scene.statistics = screen.statistics;
  if (shared.help) {
    scene.footer = help_lines(shared.key_label);
  } else if (now_us < shared.note_until_us) {
    scene.footer = {shared.note};
  } else if (now_us < shared.hint_until_us) {
    scene.footer = {help_hint(shared.key_label)};
  }
  return scene;
}

std::uint64_t changes_at_us(const SharedView& shared, const ScreenView& screen,
                            std::uint64_t now_us) {
  std::uint64_t next = UINT64_MAX;
  for (const std::uint64_t at :
       {shared.hint_until_us, shared.note_until_us, screen.pointer.changes_at_us()})
    if (at > now_us) next = std::min(next, at);
  return next;
}
