// WakeEvent on the virtual clock. It defines every symbol of the platform's object, so that linking
// it first keeps that one out.
#include <atomic>

#include "control/wake_event.h"
#include "tests/support/virtual_time.h"

namespace {
using State = std::atomic_ref<std::intptr_t>;  // 1 while signalled
}

WakeEvent::WakeEvent(Reset reset) : reset_(reset), handle_(0) {}
WakeEvent::~WakeEvent() {
  State(handle_).store(0);
}

void WakeEvent::set() {
  State(handle_).store(1);
}
void WakeEvent::reset() {
  State(handle_).store(0);
}

bool WakeEvent::wait(std::uint32_t timeout_ms) {
  const std::intptr_t signalled =
      reset_ == Reset::Auto ? State(handle_).exchange(0) : State(handle_).load();
  if (signalled != 0) return true;
  virtual_time::advance_ms(timeout_ms);
  return false;
}
