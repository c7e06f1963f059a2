// The place of the calling thread among those that run.
#pragma once

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// Of threads that a person sees or hears: ahead of what people run, behind the sound server.
inline constexpr int STREAMING_NICE = -10;

// Gives the former value. Without the right to a better one the thread keeps its place.
inline int change_thread_nice(int nice) {
  const auto thread = static_cast<id_t>(syscall(SYS_gettid));
  const int former = getpriority(PRIO_PROCESS, thread);
  setpriority(PRIO_PROCESS, thread, nice);
  return former;
}
