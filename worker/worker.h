// The life of the worker's process, from its arguments to its exit code. The worker is no program
// that a person starts: a service does, as the system, in a session with a desktop, and has made
// both pipes by then. The worker shows nothing, prints nothing, and says why it ended by its exit
// code alone and, once the log is open, by one line.
//
// The main thread builds everything, watches it every 100 ms, and takes it down in a fixed order,
// which also holds for what was built only in part.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/platform.h"
#include "worker/exit_code.h"
#include "worker/worker_system.h"

namespace host_app {

inline constexpr std::uint32_t POLL_MS = 100;

// "--supervisor <pid> --channel <pipe>", and nothing else.
struct WorkerArguments {
  std::uint32_t supervisor = 0;
  std::string channel;
};
bool parse_worker_arguments(const std::vector<std::string>& arguments, WorkerArguments* out);

// Asks for the displays to stay awake while a client is connected, once at each change.
class DisplayWake {
 public:
  explicit DisplayWake(WorkerSystem& system) : system_(system) {}
  void follow(bool active);

 private:
  WorkerSystem& system_;
  bool asked_ = false;
};

// `arguments` without the program's name.
ExitCode run_worker(const std::vector<std::string>& arguments, WorkerSystem& system,
                    const Platform& platform);

}  // namespace host_app
