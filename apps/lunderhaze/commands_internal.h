// What the files of the sub-commands share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/lunderhaze/exit_status.h"

using Arguments = std::vector<std::string>;  // of a sub-command, its name first

ExitStatus say(const std::string& text);  // on standard output
ExitStatus wrong_usage(const std::string& text);

// Takes "--port NUMBER" out of the arguments. False when the number is none.
bool take_port(Arguments* args, std::optional<std::uint16_t>* port);

ExitStatus autostart_command(const Arguments& args);
ExitStatus firewall_command(const Arguments& args);
ExitStatus doctor_command(const Arguments& args);
