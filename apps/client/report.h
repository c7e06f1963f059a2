// What a connection leaves behind: report.json, the last picture of each screen, the pointer, and a
// summary a person can read.
#pragma once

#include <filesystem>
#include <string>

#include "apps/client/connect_run.h"
#include "apps/client/host_link.h"
#include "apps/client/host_session.h"

// The directory of a screen's recording and last picture: `out` itself for the main one.
std::filesystem::path screen_directory(const std::filesystem::path& out, std::size_t index);

// Writes `out`/report.json, last_frame.png of each screen and `out`/cursor.png; false with `error`
// when the disk refuses.
bool write_results(const std::filesystem::path& out, HostSession& session, HostLink& link,
                   const ConnectRun& run, std::string* error);

std::string summary(HostSession& session, HostLink& link);
