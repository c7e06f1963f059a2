// An event that threads wait on: a manual-reset or an auto-reset one. Any thread may call anything.
// Link-time seam: one file a platform, and the virtual clock's own for tests, where a wait that
// isn't signalled advances the clock by its time-out instead of blocking.
#pragma once

#include <cstdint>

class WakeEvent {
 public:
  enum class Reset { Manual, Auto };  // Auto: a wait that succeeds clears it

  explicit WakeEvent(Reset reset);
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  void set();
  void reset();
  bool wait(std::uint32_t timeout_ms);  // true when signalled, false on time-out

  // For a platform's own wait on several things at once: a descriptor that polls readable while the
  // event is set, an event handle.
  std::intptr_t native_handle() const { return handle_; }

 private:
  Reset reset_;
  std::intptr_t handle_;
};
