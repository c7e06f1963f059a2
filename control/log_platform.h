// What the log takes from the platform; control/<platform>/log.cpp defines it. Called under the
// log's mutex, or with data of the caller.
#pragma once

#include <cstdint>
#include <filesystem>

#include "control/keystore.h"

namespace log_platform {

// Local time of day.
struct LocalTime {
  unsigned year = 0, month = 0, day = 0;
  unsigned hour = 0, minute = 0, second = 0, millisecond = 0;
};

using File = std::intptr_t;
inline constexpr File NO_FILE = -1;

extern const char* const NAME;  // of the platform, for the banner

LocalTime local_time();
unsigned long process_id();

// The user's own place for logs, created if missing; empty when there is none.
std::filesystem::path user_log_directory();

enum class Opening { Done, Unprotected, Failed };

// Opens for appending: every write lands at the end, whoever else writes, and others may read,
// rename or delete the file meanwhile. A new file is its owner's alone (on Windows a user's has
// what its directory hands down); in the machine scope it is Unprotected when the system can't
// promise that. A link in its place isn't followed. Sets `file` only when it is done.
Opening open_append(keystore::HostStoreScope scope, const std::filesystem::path& path, File* file);
std::int64_t file_size(File file);  // 0 when it can't be had
// Bytes written in one call, 0 on failure.
std::size_t write(File file, const char* bytes, std::size_t size);
void close(File file);
void replace(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace log_platform
