// What sysinfo takes from the platform besides adapters; control/<platform>/sysinfo.cpp defines it,
// and `exe_path`.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace sysinfo_platform {

extern const char* const UNNAMED_COMPUTER;
extern const char* const RELATIVE_DATA_DIRECTORY;  // where a user has no directory of their own
std::string computer_name();                       // empty when it can't be had
std::uint32_t process_id();

}  // namespace sysinfo_platform
