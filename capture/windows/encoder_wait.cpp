#include "capture/encoder_internal.h"
#include "control/windows/handles.h"

void encoder_internal::give_up_processor() {
  SwitchToThread();
}

void encoder_internal::sleep_one_ms() {
  Sleep(1);
}
