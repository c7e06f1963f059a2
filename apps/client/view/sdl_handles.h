// SDL's objects, released with their scope.
#pragma once

#include <SDL.h>
#include <SDL_ttf.h>

#include <memory>

struct SdlRelease {
  void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
  void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
  void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
  void operator()(SDL_Surface* surface) const { SDL_FreeSurface(surface); }
  void operator()(SDL_Cursor* cursor) const { SDL_FreeCursor(cursor); }
  void operator()(TTF_Font* font) const { TTF_CloseFont(font); }
};

template <typename Object>
using SdlPtr = std::unique_ptr<Object, SdlRelease>;
