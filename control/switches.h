// What a person switches on this computer for every client, each in a file of the application data
// directory: host.ini, a profile file, of which only `mute_host` is touched here, and
// clipboard_sync, "1\n" or "0\n". Both are on where nothing else is written. Any thread, one writer
// at a time.
#pragma once

#include <filesystem>

bool load_mute_host(const std::filesystem::path& directory);
bool save_mute_host(const std::filesystem::path& directory, bool on);

bool load_clipboard_sync(const std::filesystem::path& directory);
bool save_clipboard_sync(const std::filesystem::path& directory, bool on);
