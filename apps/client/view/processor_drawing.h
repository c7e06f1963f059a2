// Whether a renderer's own hardware is none: then what it draws takes longer than SDL's own
// drawing.
#pragma once

#include <SDL.h>

bool draws_by_processor(SDL_Renderer* renderer);
