#include "apps/client/view/keyboard_grab.h"

// SDL takes the keys by a low-level hook (WH_KEYBOARD_LL). Windows removes one that took too long
// to answer, and tells nobody; and of several the one that was set last is asked first. So it is
// set anew: between the two no message of this thread's is lost, and keys that it has swallowed are
// not down for Windows.
void renew_keyboard_grab(SDL_Window* window) {
  if (SDL_GetWindowKeyboardGrab(window) == SDL_FALSE) return;
  SDL_SetWindowKeyboardGrab(window, SDL_FALSE);
  SDL_SetWindowKeyboardGrab(window, SDL_TRUE);
}
