// The user's own directories by the XDG base directory rules. Stateless.
#pragma once

#include <filesystem>

// "$variable/lunderhaze", or "~/fallback/lunderhaze" where the variable is unset, empty or
// relative; empty when the user has no home either.
std::filesystem::path user_directory(const char* variable, const char* fallback);

// Makes the directory and what is missing above it, mode 0700. True when it is there afterwards.
bool make_private_directories(const std::filesystem::path& directory);
