// Opens once so many threads have arrived, and stays open. In place of the standard library's
// latch, barrier and semaphore: where the system has no futex, as on Windows, those of libstdc++ 12
// look at the value before they take the lock that they then sleep under, and so miss a wake-up in
// between.
#pragma once

#include <condition_variable>
#include <mutex>

class Latch {
 public:
  explicit Latch(int count) : missing_(count) {}

  void count_down() {
    const std::lock_guard lock(mutex_);
    if (--missing_ <= 0) opened_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return missing_ <= 0; });
  }
  void arrive_and_wait() {
    count_down();
    wait();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  int missing_;
};
