#include "apps/service/worker_end.h"

#include <cstdio>
#include <iterator>

namespace {

struct ExitCode {
  const char* words;
  bool again;
};
// The worker's exit codes, each one stage of its life.
constexpr ExitCode EXIT_CODES[] = {
    {"stopped in order", true},
    {"its arguments were wrong, or it was not the system's own process in a graphical session",
     false},
    {"the place of its lock is not private to the system", false},
    {"another worker is running on this machine", true},
    {"a pipe could not be opened, or its other end was not this service", true},
    {"startup or the machine store failed, host.log says more", true},
    {"the machine store turned unhealthy while it ran", true},
};

const ExitCode* known(const WorkerEnd& end) {
  const bool listed = end.kind == WorkerEnd::Kind::Exited && end.number >= 0 &&
                      static_cast<std::size_t>(end.number) < std::size(EXIT_CODES);
  return listed ? &EXIT_CODES[end.number] : nullptr;
}

}  // namespace

std::string words_for(const WorkerEnd& end) {
  const std::string number = std::to_string(end.number);
  if (end.kind == WorkerEnd::Kind::Signalled) return "killed by signal " + number;
  if (end.kind == WorkerEnd::Kind::Faulted) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(end.number));
    return std::string("ended by the exception ") + code;
  }
  if (end.kind == WorkerEnd::Kind::Killed) return "killed";
  const ExitCode* code = known(end);
  return "exit code " + number + ": " + (code != nullptr ? code->words : "not one of a worker's");
}

bool may_start_again(const WorkerEnd& end) {
  const ExitCode* code = known(end);
  return code == nullptr || code->again;
}
