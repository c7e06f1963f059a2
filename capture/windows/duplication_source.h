// Capture by desktop duplication ("DDA GPU"): notifying, its pictures surfaces of a Direct3D 11
// device. The newest picture is copied into a texture of the source's own, so that the
// duplication's is free again at once, and converted on the GPU straight into the encoder's
// surface.
//
// Used on the capture thread alone. Between acquire and release the duplication's frame is held,
// and with it the whole desktop's compositor waits: what happens in between is short.
#pragma once

#include <memory>

#include "capture/source.h"

struct Direct3d;  // capture/windows/direct3d.h: where the root objects come from

std::unique_ptr<CaptureSource> make_duplication_source();                     // the system's own
std::unique_ptr<CaptureSource> make_duplication_source(const Direct3d& api);  // outlives the source
