// The desktop that has the keyboard and mouse: a session's own, the logon screen, or the one that
// asks for consent. Capture and input are bound to the desktop that their thread is on, and each
// open of one gives a new handle: two are the same desktop when their names are. Any thread.
#pragma once

#include <string>

#include "control/windows/handles.h"

// Null where this process may not have it, as a logon screen's for all but the system.
DesktopHandle open_input_desktop(ACCESS_MASK access);

// UTF-8. False if it can't be read; `name` is then as it was. Allocates nothing once `name` has
// room.
bool read_desktop_name(HDESK desktop, std::string* name);
