// Lines of text on dark ground, painted over a window's picture. Rendered lines are kept until a
// block changes. One for each window; the window's thread.
#pragma once

#include <string>
#include <vector>

#include "apps/client/view/geometry.h"
#include "apps/client/view/sdl_handles.h"

enum class TextPlace { TopLeft, Middle, Bottom };

class TextPainter {
 public:
  // `font` may be null: then nothing is painted. It outlives the painter.
  TextPainter(SDL_Renderer* renderer, TTF_Font* font) : renderer_(renderer), font_(font) {}

  void paint(const std::vector<std::string>& lines, TextPlace place, ViewSize window);

 private:
  struct Line {
    std::string text;
    SdlPtr<SDL_Texture> texture;
    int width = 0;
    int height = 0;
  };
  using Block = std::vector<Line>;

  void render(const std::vector<std::string>& lines, Block* block);

  SDL_Renderer* renderer_;
  TTF_Font* font_;
  Block blocks_[3];  // by place
};
