#include "control/wake_event.h"

#include <system_error>

#include "control/windows/handles.h"

namespace {

HANDLE event_of(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

}  // namespace

// Out of handles is the one failure; it is reported as std::thread reports that it cannot start.
WakeEvent::WakeEvent(Reset reset)
    : reset_(reset),
      handle_(reinterpret_cast<std::intptr_t>(
          CreateEventW(nullptr, reset == Reset::Manual, FALSE, nullptr))) {
  if (handle_ == 0)
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "event");
}
WakeEvent::~WakeEvent() {
  CloseHandle(event_of(handle_));
}
void WakeEvent::set() {
  SetEvent(event_of(handle_));
}
void WakeEvent::reset() {
  ResetEvent(event_of(handle_));
}
bool WakeEvent::wait(std::uint32_t timeout_ms) {
  return WaitForSingleObject(event_of(handle_), timeout_ms) == WAIT_OBJECT_0;
}
