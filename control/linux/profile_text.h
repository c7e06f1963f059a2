// The text of a profile file, and of a desktop entry, which is of the same form. Pure.
#pragma once

#include <optional>
#include <string>

// The first of several counts.
std::optional<std::string> profile_value(const std::string& text, const std::string& section,
                                         const std::string& key);
// All else stays as it is, line ends too; a key that isn't there comes behind its section's last.
std::string with_profile_value(const std::string& text, const std::string& section,
                               const std::string& key, const std::string& value);
