// The virtual display driver's control pipe. Any thread; a pipe that is open, one at a time.
#pragma once

#include <memory>

#include "capture/vdd_driver.h"

// A driver that hangs must not hold up whoever asks it, the host's end among them.
inline constexpr std::uint32_t VDD_TRANSFER_LIMIT_MS = 5000;

VirtualDisplayDriver::Result wait_for_vdd_pipe(std::uint32_t timeout_ms);
// Null when that fails. A transfer that takes longer than the limit is taken back, and has failed.
std::unique_ptr<VirtualDisplayDriver::ControlPipe> open_vdd_pipe(
    std::uint32_t transfer_limit_ms = VDD_TRANSFER_LIMIT_MS);
