// The service's whole run: its parts put together, until it is asked to end. Main thread.
#pragma once

#include "apps/service/options.h"

// What the program returns; scripts and the unit rely on these.
enum ServiceExit : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_NOT_SYSTEM = 2,  // not root, or the place of its pipes is open to others
  EXIT_SECOND = 3,      // another service runs on this machine
  EXIT_LOCAL = 4,       // another failure here
};

ServiceExit run_service(const ServiceOptions& options);
