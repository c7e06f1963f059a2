#include "capture/source.h"
#include "control/windows/handles.h"
// After what handles.h includes.
#include <avrt.h>
#include <timeapi.h>

namespace {

// Waits end on the system's timer, which otherwise ticks every 15.6 ms: about a frame time.
constexpr UINT TIMER_PERIOD_MS = 1;

HANDLE join_task(const wchar_t* name) {
  DWORD index = 0;
  return AvSetMmThreadCharacteristicsW(name, &index);
}

}  // namespace

CaptureThreadPriority::CaptureThreadPriority() {
  HANDLE task = join_task(L"Capture");
  if (!task) task = join_task(L"Games");
  if (task) AvSetMmThreadPriority(task, AVRT_PRIORITY_HIGH);
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
  timeBeginPeriod(TIMER_PERIOD_MS);
  former_ = reinterpret_cast<std::intptr_t>(task);
}

CaptureThreadPriority::~CaptureThreadPriority() {
  timeEndPeriod(TIMER_PERIOD_MS);
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
  if (former_) AvRevertMmThreadCharacteristics(reinterpret_cast<HANDLE>(former_));
}
