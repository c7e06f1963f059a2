// What a person switches on this computer for every client, each in a file of the application data
// directory: host.ini, a profile file, of which only `mute_host` is touched here, and
// clipboard_sync, "1\n" or "0\n". Both are on where nothing else is written. Any thread, one writer
// at a time.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

bool load_mute_host(const std::filesystem::path& directory);
bool save_mute_host(const std::filesystem::path& directory, bool on);

bool load_clipboard_sync(const std::filesystem::path& directory);
bool save_clipboard_sync(const std::filesystem::path& directory, bool on);

// Profile files: "[section]" and "key=value" lines; the case of both names doesn't count, nor do
// blanks around a name or a value. The first of several counts.
std::optional<std::string> profile_value(const std::string& text, const std::string& section,
                                         const std::string& key);
// All else stays as it is, line ends too; a key that isn't there comes behind its section's last.
std::string with_profile_value(const std::string& text, const std::string& section,
                               const std::string& key, const std::string& value);
