// What a stream leaves behind: report.json, the last picture, and a summary a person can read.
#pragma once

#include <filesystem>
#include <string>

#include "apps/client/host_link.h"
#include "apps/client/host_session.h"

// Writes `out`/report.json and `out`/last_frame.png; false with `error` when the disk refuses.
bool write_results(const std::filesystem::path& out, HostSession& session, HostLink& link,
                   std::string* error);

std::string summary(HostSession& session, HostLink& link);
