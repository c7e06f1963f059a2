// The input desktop of the session as a capture follows it: its thread goes where the input is.
#pragma once

#include <memory>

#include "capture/source.h"

std::unique_ptr<InputDesktop> make_session_desktop();
