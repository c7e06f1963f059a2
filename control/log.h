// The process-wide log: lines from any thread into host.log, and onto standard output while a
// console is attached. One mutex; formatting happens before it. Nothing here fails towards its
// caller: a write that fails is dropped. The file is kept to about 10 MiB by one rename to
// host.log.1.
#pragma once

#include <filesystem>

#include "connection/printf_format.h"

// Opens `<directory>/host.log` for appending and writes the banner. Later calls replace the file.
void log_open(bool console, const std::filesystem::path& directory);

// The same in the user's own place for logs, which is created if missing.
void log_open(bool console);

void log_close();  // later lines reach the console only

// A line of at most 2,047 characters; on the console with the time of day.
LUND_PRINTF(1, 2) void hlog(const char* format, ...);

// The same line in the file; on the console bare, for what a person there is meant to read.
LUND_PRINTF(1, 2) void hsay(const char* format, ...);

std::filesystem::path log_file_path();
