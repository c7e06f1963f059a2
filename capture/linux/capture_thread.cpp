#include "capture/linux/thread_nice.h"
#include "capture/source.h"

CaptureThreadPriority::CaptureThreadPriority() : former_(change_thread_nice(STREAMING_NICE)) {}

CaptureThreadPriority::~CaptureThreadPriority() {
  change_thread_nice(static_cast<int>(former_));
}
