// Threads that wait for each other and then go on together. std::barrier and std::latch can't be
// used in tests that run on Windows: where there is no futex, libstdc++ 12 compares the value
// before it takes the lock, so that a wake-up in between is lost.
#pragma once

#include <condition_variable>
#include <mutex>

class StartLine {
 public:
  explicit StartLine(int threads) : missing_(threads) {}

  void arrive_and_wait() {
    std::unique_lock lock(mutex_);
    if (--missing_ == 0) changed_.notify_all();
    changed_.wait(lock, [this] { return missing_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int missing_;
};
