// What a security descriptor says about who else can read or change the thing it belongs to. Pure.
#pragma once

#include "control/security.h"
#include "control/windows/handles.h"

namespace host_service {

// LocalSystem, or the administrators.
bool is_system_or_administrators(PSID sid);

// One without an owner or an access list passes no test: without a list everybody has access.
bool trusted(PSECURITY_DESCRIPTOR descriptor, PathTest test);

}  // namespace host_service
