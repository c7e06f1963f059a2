// What a worker needs to reach a user's X display and sound, gathered from the environments of the
// session's own processes. The user wrote those, and the worker is root: only what leads to the
// user's own display, files and sockets is taken, and files whose contents would be sent on (X and
// sound cookies) are copied while it is certain that they are the user's.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "apps/service/linux/login_seat.h"
#include "apps/service/seams.h"

// The environments of the session's processes that its user runs, first started first. `proc` is
// where the kernel shows processes.
std::vector<Environment> session_environments(const LoginSession& session,
                                              const std::filesystem::path& proc = "/proc");

struct SessionPlaces {
  std::filesystem::path home;
  std::filesystem::path runtime = {};  // of the user, /run/user/1000
  std::filesystem::path copies = {};   // private to the system; cookies are copied there
};

// DISPLAY, and what there is of XAUTHORITY, XDG_RUNTIME_DIR, PULSE_SERVER and PULSE_COOKIE. Nothing
// while no process has told a display of this computer.
std::optional<Environment> worker_environment(const LoginSession& session,
                                              const std::vector<Environment>& found,
                                              const SessionPlaces& places);

// The X display's number + 1 of ":7" or ":7.0", 0 for a display that isn't this computer's own.
std::uint32_t local_session_number(const std::string& display);
