// Single overlapped operations that wait no longer than their caller lets them: until they are
// done, until the deadline, or until `stop`, which may be null, is set; of two at the same time the
// operation counts. One that may not wait longer is cancelled and has ended when its function
// returns: until then the system may write to its buffer. Each has an event of its own, so that two
// threads may use one handle in opposite directions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "control/wake_event.h"
#include "control/windows/handles.h"

// Moves from 1 to `size` bytes, 0 when it fails, the other end has gone, or it may not wait longer.
std::size_t read_some(HANDLE handle, void* bytes, std::size_t size, std::uint64_t deadline_us,
                      const WakeEvent* stop);
std::size_t write_some(HANDLE handle, const void* bytes, std::size_t size,
                       std::uint64_t deadline_us, const WakeEvent* stop);

// A client for the server's end of a pipe. One that came and went meanwhile is a failure; the next
// call waits for another.
bool wait_for_client(HANDLE pipe, std::uint64_t deadline_us, const WakeEvent* stop);
