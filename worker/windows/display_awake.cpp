#include "worker/windows/display_awake.h"

#include "control/windows/handles.h"

bool set_display_awake(bool on) {
  constexpr EXECUTION_STATE AWAKE = ES_CONTINUOUS | ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED;
  return SetThreadExecutionState(on ? AWAKE : ES_CONTINUOUS) != 0;
}
