// A token of LocalSystem, in the session of the asking process. Windows gives one only to those who
// may make tokens; Wine 10 does to everybody, Wine 8 to nobody.
#pragma once

#include "control/windows/handles.h"

Handle make_system_token();  // empty where there is none
