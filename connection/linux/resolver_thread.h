// What the resolver runs on: a lock to sleep under, and a thread that nobody waits for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

class SleepLock {
 public:
  void lock() { lock_.lock(); }
  void unlock() { lock_.unlock(); }
  // By whoever has it, who lets go of it meanwhile: until woken or the time has passed, or for no
  // reason at all.
  void sleep(std::uint32_t timeout_ms) {
    std::unique_lock held(lock_, std::adopt_lock);
    woken_.wait_for(held, std::chrono::milliseconds(timeout_ms));
    held.release();
  }
  void wake() { woken_.notify_one(); }

 private:
  std::mutex lock_;
  std::condition_variable woken_;
};

// False when the system has no thread to give.
inline bool start_detached(std::function<void()> work) try {
  std::thread(std::move(work)).detach();
  return true;
} catch (const std::system_error&) {
  return false;
}
