// The program's sub-commands: they look at and change what the host has stored, and speak to the
// one that runs.
#pragma once

#include <string>
#include <vector>

#include "apps/lunderhaze/exit_status.h"

// The usage's lines on them and on the program's own option.
extern const char* const COMMANDS_USAGE;

bool is_command(const std::string& name);
ExitStatus run_command(const std::vector<std::string>& args);  // its name first
