#include "apps/client/view/late_wakeups.h"

// A message to a window that is gone is refused to whoever posts it, and nothing else happens.
void allow_late_wakeups() {}
