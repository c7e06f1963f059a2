// What of the Desktop Entry Specification 1.5 an autostart entry needs: the value of Exec for one
// program without arguments, both ways. Pure.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

// The whole entry; nothing when a path can't be said in one: Exec forbids '=' in it.
std::optional<std::string> desktop_entry(const std::filesystem::path& program);

// The program that an entry names; nothing when it isn't whole.
std::optional<std::filesystem::path> entry_program(const std::string& entry);

bool is_started(const std::string& entry);  // neither hidden nor switched off
