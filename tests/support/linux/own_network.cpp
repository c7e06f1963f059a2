#include "tests/support/own_network.h"

#include <sched.h>

bool have_own_network() {
  static const bool alone = unshare(CLONE_NEWNET) == 0;
  return alone;
}
