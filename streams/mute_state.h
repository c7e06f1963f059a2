// The file that says which outputs this program has muted, for the run after one that was killed.
// Link-time seam: streams/<platform>/ defines it.
#pragma once

#include <filesystem>
#include <string>

// The file is the old one or the new one, and the new one on the disk when this returns true.
bool write_mute_state(const std::filesystem::path& path, const std::string& text);
