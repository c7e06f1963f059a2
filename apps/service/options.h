// The command line of lunderhaze-service.
#pragma once

#include <cstdint>
#include <string>

#include "apps/service/platform.h"

struct ServiceOptions {
  service_platform::SessionChoice session;
  std::string worker;            // the program's path; empty: beside this one
  std::uint32_t backoff_ms = 0;  // 0: as usual
};
