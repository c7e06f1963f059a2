#include "host/thread_priority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
constexpr int RECEIVE_NICE = -10;
}

// The nice value is a thread's own on Linux.
void raise_receive_priority() {
  const auto thread = static_cast<id_t>(syscall(SYS_gettid));
  static_cast<void>(setpriority(PRIO_PROCESS, thread, RECEIVE_NICE));
}
