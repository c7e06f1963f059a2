// Profile files: "[section]" and "key=value" lines; the case of both names doesn't count, nor do
// blanks around a name or a value. Link-time seam: control/<platform>/ defines it. The path is
// absolute: of another one Windows would look in a directory of its own. Any thread, one writer at
// a time.
#pragma once

#include <filesystem>
#include <string>

namespace profile_file {

// What is no number is 0; `otherwise` where the file, the section or the key is missing.
long number(const std::filesystem::path& path, const std::string& section, const std::string& key,
            long otherwise);

// All else in the file stays. False, with the file as it was, where it can't be written.
bool set(const std::filesystem::path& path, const std::string& section, const std::string& key,
         const std::string& value);

}  // namespace profile_file
