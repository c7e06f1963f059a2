// Where a display lies, without an enumeration: what a running session asks twice a second.
#pragma once

#include <string>

#include "capture/display.h"

bool display_bounds(const std::string& device, DesktopRect* bounds);  // false when it can't be told
