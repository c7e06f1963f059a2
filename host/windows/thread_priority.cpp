#include "host/thread_priority.h"

#include <windows.h>

void raise_receive_priority() {
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
}
