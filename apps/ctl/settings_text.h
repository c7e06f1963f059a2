// The stored settings as an administrator names them: "port=9876", "codec=hevc", "audio=off". Pure.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "control/ipc_protocol.h"

namespace ctl {

// A line for each setting: its name, and what it may be.
std::string settings_help();

bool is_setting(const std::string& name);

// Lines "port=9876", of these names or, without any, of all.
std::string setting_lines(const host_service::Settings& settings,
                          const std::vector<std::string>& names = {});
// The same as an object, with numbers as numbers.
nlohmann::ordered_json setting_values(const host_service::Settings& settings,
                                      const std::vector<std::string>& names = {});

// Names whose values differ.
std::vector<std::string> differing_settings(const host_service::Settings& a,
                                            const host_service::Settings& b);

// Changes `settings` by all of "NAME=VALUE" or, when one is wrong, not at all; says what is wrong
// with each, "" when nothing is.
std::string assign_settings(const std::vector<std::string>& assignments,
                            host_service::Settings* settings);
// Nothing of a former record would be left.
bool assigns_all(const std::vector<std::string>& assignments);

}  // namespace ctl
