// What the resolver runs on: a lock to sleep under, and a thread that nobody waits for.
#pragma once

#include <winsock2.h>
// clang-format off
#include <windows.h>
// clang-format on

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

class SleepLock {
 public:
  SleepLock() = default;
  SleepLock(const SleepLock&) = delete;
  SleepLock& operator=(const SleepLock&) = delete;

  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }
  // By whoever has it, who lets go of it meanwhile: until woken or the time has passed, or for no
  // reason at all.
  void sleep(std::uint32_t timeout_ms) {
    SleepConditionVariableSRW(&woken_, &lock_, timeout_ms, 0);
  }
  void wake() { WakeConditionVariable(&woken_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
  CONDITION_VARIABLE woken_ = CONDITION_VARIABLE_INIT;
};

inline DWORD WINAPI run_detached(void* work) noexcept {
  const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(work));
  (*owned)();
  return 0;
}

// False when the system has no thread to give.
inline bool start_detached(std::function<void()> work) {
  auto given = std::make_unique<std::function<void()>>(std::move(work));
  const HANDLE thread = CreateThread(nullptr, 0, run_detached, given.get(), 0, nullptr);
  if (thread == nullptr) return false;
  given.release();  // the thread's now
  CloseHandle(thread);
  return true;
}
