// Tokens to start programs with.
#pragma once

#include "control/windows/handles.h"

// LocalSystem's, in the session of the asking process; empty where there is none. Windows gives one
// only to those who may make tokens; Wine 10 does to everybody, Wine 8 to nobody.
Handle make_system_token();

// One with an administrator's rights, of the test's own user, who has them already or might ask for
// them. Wine gives the latter as well; Windows would ask a person, and gives none here.
Handle make_administrator_token();
