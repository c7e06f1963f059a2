#include "apps/client/view/desktop_hint.h"

const char* const DESKTOP_HINT = "is there a desktop, and does DISPLAY name it?";
