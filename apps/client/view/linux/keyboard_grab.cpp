#include "apps/client/view/keyboard_grab.h"

#include <SDL_syswm.h>
#include <X11/Xlib.h>

// By SDL's own connection and with its own arguments: to a grab that stands this changes nothing.
void renew_keyboard_grab(SDL_Window* window) {
  SDL_SysWMinfo info;
  SDL_VERSION(&info.version);
  if (SDL_GetWindowKeyboardGrab(window) == SDL_FALSE ||
      SDL_GetWindowWMInfo(window, &info) == SDL_FALSE || info.subsystem != SDL_SYSWM_X11)
    return;
  XGrabKeyboard(info.info.x11.display, info.info.x11.window, True, GrabModeAsync, GrabModeAsync,
                CurrentTime);
}
