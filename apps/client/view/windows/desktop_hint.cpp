#include "apps/client/view/desktop_hint.h"

const char* const DESKTOP_HINT = "is somebody logged in at this desktop?";
