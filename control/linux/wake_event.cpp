#include "control/wake_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "connection/clock.h"
#include "control/linux/deadline.h"

namespace {

// Empties the counter; false when it was empty already.
bool consume(int descriptor) {
  std::uint64_t count = 0;
  return read(descriptor, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count));
}

}  // namespace

// Out of descriptors is the one failure; it is reported as std::thread reports that it cannot
// start.
WakeEvent::WakeEvent(Reset reset) : reset_(reset), handle_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (handle_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

WakeEvent::~WakeEvent() {
  close(static_cast<int>(handle_));
}

void WakeEvent::set() {
  const std::uint64_t one = 1;
  // It fails only on a full counter, which is signalled all the more.
  [[maybe_unused]] const ssize_t written = write(static_cast<int>(handle_), &one, sizeof(one));
}

void WakeEvent::reset() {
  consume(static_cast<int>(handle_));
}

bool WakeEvent::wait(std::uint32_t timeout_ms) {
  const int descriptor = static_cast<int>(handle_);
  const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{timeout_ms} * 1'000;
  for (;;) {
    pollfd polled{descriptor, POLLIN, 0};
    const timespec left = time_left(deadline_us);
    const int ready = ppoll(&polled, 1, &left, nullptr);
    // Of several threads that wait on an auto-reset event, the one that empties it has it.
    if (ready > 0 && (reset_ == Reset::Manual || consume(descriptor))) return true;
    if (ready == 0) return false;
  }
}
