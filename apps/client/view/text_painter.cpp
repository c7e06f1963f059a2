#include "apps/client/view/text_painter.h"

#include <algorithm>

namespace {

constexpr int MARGIN = 12;  // pixels to the window's edge
constexpr int PADDING = 8;  // pixels of ground around the text
constexpr Uint8 GROUND_ALPHA = 190;

}  // namespace

void TextPainter::render(const std::vector<std::string>& lines, Block* block) {
  const bool same = std::equal(lines.begin(), lines.end(), block->begin(), block->end(),
                               [](const std::string& a, const Line& b) { return a == b.text; });
  if (same) return;
  Block renewed;
  for (const std::string& text : lines) {
    Line line;
    line.text = text;
    // A block of figures keeps most of its lines from one second to the next.
    const auto kept = std::find_if(block->begin(), block->end(), [&](const Line& old) {
      return old.texture && old.text == text;
    });
    if (kept != block->end()) {
      line = std::move(*kept);
    } else if (SdlPtr<SDL_Surface> surface{
                   TTF_RenderUTF8_Blended(font_, text.c_str(), {255, 255, 255, 255})}) {
      line.texture.reset(SDL_CreateTextureFromSurface(renderer_, surface.get()));
      line.width = surface->w;
      line.height = surface->h;
    }
    renewed.push_back(std::move(line));
  }
  *block = std::move(renewed);
}

void TextPainter::paint(const std::vector<std::string>& lines, TextPlace place, ViewSize window) {
  Block& block = blocks_[static_cast<std::size_t>(place)];
  if (!font_ || lines.empty()) {
    block.clear();
    return;
  }
  render(lines, &block);
  int width = 0;
  const int height = TTF_FontLineSkip(font_);
  for (const Line& line : block) width = std::max(width, line.width);
  SDL_Rect ground{MARGIN, MARGIN, width + 2 * PADDING,
                  height * static_cast<int>(block.size()) + 2 * PADDING};
  if (place != TextPlace::TopLeft) ground.x = (window.width - ground.w) / 2;
  if (place == TextPlace::Middle) ground.y = (window.height - ground.h) / 2;
  if (place == TextPlace::Bottom) ground.y = window.height - ground.h - MARGIN;
  SDL_SetRenderDrawBlendMode(renderer_, SDL_BLENDMODE_BLEND);
  SDL_SetRenderDrawColor(renderer_, 0, 0, 0, GROUND_ALPHA);
  SDL_RenderFillRect(renderer_, &ground);
  int y = ground.y + PADDING;
  for (const Line& line : block) {
    const int x =
        place == TextPlace::Middle ? ground.x + (ground.w - line.width) / 2 : ground.x + PADDING;
    const SDL_Rect at{x, y, line.width, line.height};
    if (line.texture) SDL_RenderCopy(renderer_, line.texture.get(), nullptr, &at);
    y += height;
  }
}
