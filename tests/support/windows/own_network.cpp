#include "tests/support/own_network.h"

bool have_own_network() {
  return true;
}
