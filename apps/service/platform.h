// What the service asks of the operating system. Link-time seam: one folder a platform defines it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "apps/service/seams.h"
#include "control/wake_event.h"

namespace service_platform {

// Options by which a person names the session to serve; the value is a text.
struct SessionOption {
  const char* name;  // "--display"
  const char* help;
};
const std::vector<SessionOption>& session_options();
using SessionChoice =
    std::map<std::string, std::string>;  // name to value, of those that were given

// Follows the active session, or serves the one chosen; sets `wake` when there is another. Null and
// `error` when neither can be.
std::unique_ptr<SessionSource> session_source(const SessionChoice& choice, WakeEvent& wake,
                                              std::string* error);

// Starts the program for the session, with nothing of this process but these; null and `error` on
// failure.
std::unique_ptr<WorkerProcess> start_worker(const std::string& program,
                                            const std::vector<std::string>& arguments,
                                            const GraphicalSession& session, WakeEvent& wake,
                                            std::string* error);

extern const char* const WORKER_PROGRAM;  // its file name

// Has the system show what it shows for its secure attention sequence; what came of it, in words.
std::string secure_attention();

// What must hold before anything is served: this is the system's process, and the place of the
// pipes is private to it.
enum class Ready { Yes, NotTheSystem, NoPlace };
Ready prepare(std::string* error);

// The events that ask the service to end set `wake` from now on, and stop_asked is true then.
void watch_for_stop(WakeEvent& wake);
bool stop_asked();

// For the service manager that started this process, if one did; nothing otherwise.
void tell_manager_ready();
void tell_manager_stopping();
void tell_manager_status(const std::string& line);
// For the log that the manager's events are in, where that doesn't get what is printed anyhow.
enum class Line { News, Failure };
void tell_manager_line(const std::string& line, Line kind);

}  // namespace service_platform
