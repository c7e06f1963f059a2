#include "capture/windows/capture_thread.h"

#include "capture/source.h"

namespace {

// Waits end on the system's timer, which otherwise ticks every 15.6 ms: about a frame time.
constexpr UINT TIMER_PERIOD_MS = 1;

HANDLE join_task(const SchedulingCalls& calls, const wchar_t* name) {
  DWORD index = 0;
  return calls.join_task(name, &index);
}

}  // namespace

HANDLE raise_priority(const SchedulingCalls& calls) {
  HANDLE task = join_task(calls, L"Capture");
  if (!task) task = join_task(calls, L"Games");
  if (task) calls.set_task_priority(task, AVRT_PRIORITY_HIGH);
  calls.set_priority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
  calls.begin_period(TIMER_PERIOD_MS);
  return task;
}

void restore_priority(HANDLE task, const SchedulingCalls& calls) {
  calls.end_period(TIMER_PERIOD_MS);
  calls.set_priority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
  if (task) calls.leave_task(task);
}

CaptureThreadPriority::CaptureThreadPriority()
    : former_(reinterpret_cast<std::intptr_t>(raise_priority())) {}

CaptureThreadPriority::~CaptureThreadPriority() {
  restore_priority(reinterpret_cast<HANDLE>(former_));
}
