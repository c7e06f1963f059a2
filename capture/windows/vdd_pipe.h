// The virtual display driver's control pipe. Any thread; a pipe that is open, one at a time.
#pragma once

#include <memory>

#include "capture/vdd_driver.h"

VirtualDisplayDriver::Result wait_for_vdd_pipe(std::uint32_t timeout_ms);
std::unique_ptr<VirtualDisplayDriver::ControlPipe> open_vdd_pipe();  // null when that fails
