// The host run by hand: until Ctrl+C, with a person at the terminal or nobody, and open to the
// commands of this user's other programs.
#pragma once

#include "apps/lunderhaze/exit_status.h"
#include "control/options.h"

struct RunOptions {
  HostOptions host;
  bool accept_pair_back = false;  // every offer to be reached in return, without asking
};

ExitStatus run_host(const RunOptions& options);

// Says it on standard error, and in the log.
ExitStatus fail(ExitStatus status, const std::string& text);
