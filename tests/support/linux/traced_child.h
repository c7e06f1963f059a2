// Runs a function in a process of its own and kills that at a system call of one's choice. One
// thread.
#pragma once

#include <functional>

enum class TracedEnd {
  Killed,
  Finished,   // before it came to the stop
  NotTraced,  // this system doesn't allow it
};

// The process stops at the entry of each system call, before anything of it happens, and at its
// exit, when all of it has: stops 1 and 2 are the first call's. It is killed at `stop`.
TracedEnd kill_at(int stop, const std::function<void()>& body);
