// What this program is on its platform: what it says of itself there, and sub-commands of the
// platform's own. Link-time seam, as platform.h. Main thread.
#pragma once

#include <vector>

#include "apps/service/options.h"
#include "apps/service/run.h"

namespace service_platform {

extern const char* const DESCRIPTION;
extern const char* const EXIT_STATUSES;

struct Command {
  const char* name;
  const char* help;
  ServiceExit (*carry_out)(const ServiceOptions& options);
};
// Where there are any, the run is a sub-command beside them, "run"; otherwise it is all there is.
const std::vector<Command>& commands();

}  // namespace service_platform
