// How this program comes to run on its platform: what it says of itself there, sub-commands of the
// platform's own, and who starts the run. Link-time seam, as platform.h. Main thread.
#pragma once

#include <functional>
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

// Under the service manager, if that started this process; in the foreground otherwise.
ServiceExit run_managed(const std::function<ServiceExit()>& run);

}  // namespace service_platform
