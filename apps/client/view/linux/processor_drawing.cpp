#include "apps/client/view/processor_drawing.h"

#include <SDL_opengl.h>

#include <cstring>

// Mesa's OpenGL of software.
bool draws_by_processor(SDL_Renderer* renderer) {
  SDL_RendererInfo info;
  if (SDL_GetRendererInfo(renderer, &info) != 0 || std::strncmp(info.name, "opengl", 6) != 0)
    return false;
  using GetString = const GLubyte*(APIENTRY*)(GLenum);
  void* found = SDL_GL_GetProcAddress("glGetString");
  GetString get_string = nullptr;
  std::memcpy(&get_string, &found, sizeof get_string);
  const auto* name = get_string ? reinterpret_cast<const char*>(get_string(GL_RENDERER)) : nullptr;
  return name && (std::strstr(name, "llvmpipe") || std::strstr(name, "softpipe"));
}
