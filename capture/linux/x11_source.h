// Capture of a monitor of the X server that DISPLAY names, and that server as the input desktop.
#pragma once

#include <memory>

#include "capture/source.h"

std::unique_ptr<CaptureSource> make_x11_source();
std::unique_ptr<InputDesktop> make_x11_desktop();
