// A file descriptor that one thread may close while others use it: whoever leaves last closes it,
// so that its number can't be given to another file under a call that is still to be made.
// Lock-free; any thread.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cstdint>

class GuardedDescriptor {
 public:
  GuardedDescriptor() = default;
  GuardedDescriptor(const GuardedDescriptor&) = delete;
  GuardedDescriptor& operator=(const GuardedDescriptor&) = delete;
  // A user's hold; false when the descriptor is closed.
  class Use {
   public:
    explicit Use(GuardedDescriptor& owner) : owner_(owner), held_(owner.enter()) {}
    ~Use() {
      if (held_) owner_.leave();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    explicit operator bool() const { return held_; }
    int descriptor() const { return owner_.descriptor_; }

   private:
    GuardedDescriptor& owner_;
    bool held_;
  };

  ~GuardedDescriptor() {
    close([](int) {});
  }

  bool is_open() const { return (state_.load() & OPEN) != 0; }

  // Blocks until the last user of a former, closed descriptor has left. One thread opens.
  void open(int descriptor) {
    wait_until_free();
    descriptor_ = descriptor;
    state_.store(OPEN);
  }

  void wait_until_free() {
    for (std::uint32_t state = state_.load(); state != 0; state = state_.load()) state_.wait(state);
  }

  // Lets nobody in any more. `wake` is called with the descriptor, still valid, to end the calls
  // that block on it. Idempotent.
  template <typename Wake>
  void close(Wake wake) {
    if (!enter()) return;
    if ((state_.fetch_and(~OPEN) & OPEN) != 0) wake(descriptor_);
    leave();
  }

 private:
  // The state: a bit for open, and below it the number of users. The descriptor is written at state
  // 0 and closed by the one whose leaving makes it so.
  static constexpr std::uint32_t OPEN = 0x8000'0000;

  bool enter() {
    std::uint32_t state = state_.load();
    do {
      if ((state & OPEN) == 0) return false;
    } while (!state_.compare_exchange_weak(state, state + 1));
    return true;
  }

  void leave() {
    std::uint32_t state = state_.load();
    while (state != 1) {
      if (state_.compare_exchange_weak(state, state - 1)) return;
    }
    ::close(descriptor_);
    state_.store(0);
    state_.notify_all();
  }

  int descriptor_ = -1;
  std::atomic<std::uint32_t> state_{0};
};
