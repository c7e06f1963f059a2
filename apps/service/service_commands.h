// What an administrator's requests do: status, the end and a restart of the worker are the
// service's own, the rest goes to the worker.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "apps/service/supervisor.h"

// The stored settings, which the next worker starts with; nothing when they can't be read.
using StoredSettings = std::function<std::optional<host_service::Settings>()>;

// Any thread.
host_service::Result carry_out(const host_service::Request& request, WorkerSupervisor& supervisor,
                               const StoredSettings& stored);

// The lines that stand in front of the worker's own, each ended by a line feed:
//   service running; worker PID 4711; session 1; starts 2; last exit: none
//   stored 9876 60 20000 1 1 1 1 1400
// Without a worker its field says "no worker (" and what the service does, then ")"; "stored
// unreadable" without settings.
std::string status_lines(const WorkerSupervisor::State& state,
                         const std::optional<host_service::Settings>& stored);
