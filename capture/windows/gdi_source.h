// Capture of a display's part of the desktop by GDI ("GDI CPU"): polled, its pictures in memory.
// What shows any display, and all there is on one without a GPU. Used on the capture thread alone.
#pragma once

#include <memory>

#include "capture/source.h"

std::unique_ptr<CaptureSource> make_gdi_source();
