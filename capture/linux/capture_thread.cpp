#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "capture/source.h"

namespace {
// Ahead of what people run, behind the sound server. Without the right to it the thread keeps its
// place.
constexpr int CAPTURE_NICE = -10;

id_t this_thread() {
  return static_cast<id_t>(syscall(SYS_gettid));
}
}  // namespace

CaptureThreadPriority::CaptureThreadPriority() {
  former_ = getpriority(PRIO_PROCESS, this_thread());
  setpriority(PRIO_PROCESS, this_thread(), CAPTURE_NICE);
}

CaptureThreadPriority::~CaptureThreadPriority() {
  setpriority(PRIO_PROCESS, this_thread(), static_cast<int>(former_));
}
