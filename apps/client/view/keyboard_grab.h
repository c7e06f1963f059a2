// All keys for one window, the desktop's own shortcuts among them.
#pragma once

#include <SDL.h>

// SDL asks the desktop for them once. Where another program has them just then, as a switcher of
// windows has until its keys are up, that is in vain, and nobody is told: so whoever wants them to
// stay asks again now and then. Does nothing for a window that SDL doesn't want them for.
void renew_keyboard_grab(SDL_Window* window);
