// Processes, by the names of their programs, and what is known of each from outside. Stateless, any
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/windows/handles.h"

std::vector<std::uint32_t> running_programs(const std::wstring& name);  // "lunderhaze-worker.exe"

// What a process was started with; empty where it can't be read.
struct ProcessTexts {
  std::string command_line;
  std::string environment;  // a "name=value" a line
};
ProcessTexts texts_of(std::uint32_t process);
