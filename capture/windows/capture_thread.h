// The scheduling that a capturing thread asks Windows for. The calls of the system stand in a
// record, so that a test can write down what they are given and say what comes of them.
#pragma once

#include <functional>

#include "control/windows/handles.h"
// After what handles.h includes.
#include <avrt.h>
#include <timeapi.h>

struct SchedulingCalls {
  std::function<HANDLE(const wchar_t* task, DWORD* index)> join_task =
      AvSetMmThreadCharacteristicsW;
  std::function<BOOL(HANDLE task, AVRT_PRIORITY)> set_task_priority = AvSetMmThreadPriority;
  std::function<BOOL(HANDLE task)> leave_task = AvRevertMmThreadCharacteristics;
  std::function<BOOL(HANDLE thread, int priority)> set_priority = SetThreadPriority;
  std::function<MMRESULT(UINT ms)> begin_period = timeBeginPeriod;
  std::function<MMRESULT(UINT ms)> end_period = timeEndPeriod;
};

// For the calling thread. What can't be had is done without. Gives the task of the multimedia
// scheduler that the thread has joined, null if none.
HANDLE raise_priority(const SchedulingCalls& calls = {});
void restore_priority(HANDLE task, const SchedulingCalls& calls = {});
