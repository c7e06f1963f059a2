// One screen's window: its picture, scaled with its aspect kept, the pointer, and the words over
// them. Draws what a Scene says, and only when it has changed. The thread that opened it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "apps/client/picture.h"
#include "apps/client/view/latest_picture.h"
#include "apps/client/view/scene.h"
#include "apps/client/view/sdl_handles.h"
#include "apps/client/view/text_painter.h"

struct WindowRequest {
  std::string title;
  int x = SDL_WINDOWPOS_CENTERED;
  int y = SDL_WINDOWPOS_CENTERED;
  ViewSize size;
  bool full_screen = false;
};

class ScreenWindow {
 public:
  // Null with `error`. `font` may be null, and outlives the window.
  static std::unique_ptr<ScreenWindow> open(const WindowRequest& request, TTF_Font* font,
                                            std::string* error);
  ScreenWindow(const ScreenWindow&) = delete;
  ScreenWindow& operator=(const ScreenWindow&) = delete;

  SDL_Window* window() { return window_.get(); }
  Uint32 id() const { return id_; }
  ViewSize size() const;  // pixels
  // Mouse positions come in the window's units, which on some desktops are not pixels.
  ViewPoint pixel_of(int x, int y) const;
  double pixels_per_unit() const;

  void set_picture(const ShownPicture& picture);
  void keep_pointer_image(const PointerImage& image);
  // True when the pointer now has the image of this id: it was kept.
  bool use_pointer_image(std::uint32_t id);
  // The host's pointer as this computer's own, in the picture's scale; null without an image.
  SDL_Cursor* cursor(double scale);

  // True when it was drawn; `again` draws it though it is what is shown already.
  bool draw(const Scene& scene, bool again = false);
  RgbPicture read_back();  // what the window shows
  void toggle_full_screen();
  // Gives the window the picture's size, within the desktop.
  void fit(ViewSize picture);

 private:
  ScreenWindow() = default;
  bool make_renderer(std::string* error);
  void paint(const Scene& scene);
  void paint_pointer(const Scene& scene);

  SdlPtr<SDL_Window> window_;
  SdlPtr<SDL_Renderer> renderer_;
  Uint32 id_ = 0;
  Uint32 picture_format_ = 0;
  SdlPtr<SDL_Texture> picture_;
  ViewSize picture_size_;
  std::vector<PointerImage> images_;  // the last ones that came
  PointerImage image_;
  SdlPtr<SDL_Texture> pointer_;
  SdlPtr<SDL_Cursor> cursor_;
  double cursor_scale_ = 0;
  std::unique_ptr<TextPainter> text_;
  Scene drawn_;
  bool drawn_any_ = false;
};
