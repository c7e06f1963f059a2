#include "control/windows/handles.h"
#include "streams/audio_source.h"
// After what handles.h includes.
#include <avrt.h>

// Without the multimedia scheduler's help sound still flows.
AudioThreadPriority::AudioThreadPriority() {
  DWORD task = 0;
  former_ = reinterpret_cast<std::intptr_t>(AvSetMmThreadCharacteristicsW(L"Audio", &task));
}

AudioThreadPriority::~AudioThreadPriority() {
  if (former_ != 0) AvRevertMmThreadCharacteristics(reinterpret_cast<HANDLE>(former_));
}
