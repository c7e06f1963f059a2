// An option whose value is a path, in UTF-8 as all arguments are.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "control/text.h"

// `path` is a std::filesystem::path, or an optional one.
template <class Path>
CLI::Option* add_path_option(CLI::App& command, const std::string& name, Path& path,
                             const std::string& help) {
  return command.add_option_function<std::string>(
      name, [&path](const std::string& value) { path = utf8_path(value); }, help);
}
