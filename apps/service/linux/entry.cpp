#include "apps/service/entry.h"

namespace service_platform {

const char* const DESCRIPTION =
    "Shares this computer's active graphical session: starts lunderhaze-worker for it, keeps it\n"
    "running, and takes orders of lunderhaze-ctl. Runs in the foreground as root until Ctrl+C.";
const char* const EXIT_STATUSES =
    "Exit status: 0 stopped, 1 wrong arguments or no session to be found, 2 not root or\n"
    "/run/lunderhaze is open to others, 3 another service runs, 4 another failure here.";

const std::vector<Command>& commands() {
  static const std::vector<Command> none;
  return none;
}

ServiceExit run_managed(const std::function<ServiceExit()>& run) {
  return run();
}

}  // namespace service_platform
