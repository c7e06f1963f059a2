// The worker as a process: its own session, so that a Ctrl+C meant for the service doesn't reach
// it, no descriptor and no variable of the service's. Nothing ends it with the service: it sees
// that for itself, and says BYE to its client before it goes.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "apps/service/platform.h"

namespace {

class Worker final : public WorkerProcess {
 public:
  Worker(pid_t pid, WakeEvent& wake) : pid_(pid) {
    waiter_ = std::thread([this, &wake] {
      wait_for_end();
      ended_ = true;
      wake.set();
    });
  }
  ~Worker() override {
    if (!ended_) kill();
    waiter_.join();
    // Only now may its id become another's.
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
  }

  std::uint32_t id() const override { return static_cast<std::uint32_t>(pid_); }
  std::optional<WorkerEnd> ended() override {
    if (!ended_) return std::nullopt;
    return WorkerEnd{
        info_.si_code == CLD_EXITED ? WorkerEnd::Kind::Exited : WorkerEnd::Kind::Signalled,
        info_.si_status};
  }
  bool terminate() override { return ::kill(pid_, SIGTERM) == 0; }
  void kill() override { ::kill(pid_, SIGKILL); }

 private:
  // Leaves it unreaped, so that its id stays its own while anybody may use it.
  void wait_for_end() {
    while (waitid(P_PID, static_cast<id_t>(pid_), &info_, WEXITED | WNOWAIT) != 0 && errno == EINTR)
      continue;
  }

  const pid_t pid_;
  siginfo_t info_{};  // the waiter's until `ended_`
  std::atomic<bool> ended_{false};
  std::thread waiter_;
};

struct FileActions {
  posix_spawn_file_actions_t get;
  FileActions() {
    posix_spawn_file_actions_init(&get);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&get, standard, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addclosefrom_np(&get, STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(&get, "/");
  }
  ~FileActions() { posix_spawn_file_actions_destroy(&get); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
};

struct Attributes {
  posix_spawnattr_t get;
  Attributes() {
    posix_spawnattr_init(&get);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&get, &none);
    posix_spawnattr_setsigdefault(&get, &all);
    posix_spawnattr_setflags(&get,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  }
  ~Attributes() { posix_spawnattr_destroy(&get); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  list.reserve(texts.size() + 1);
  for (std::string& text : texts) list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

}  // namespace

namespace service_platform {

const char* const WORKER_PROGRAM = "lunderhaze-worker";

std::unique_ptr<WorkerProcess> start_worker(const std::string& program,
                                            const std::vector<std::string>& arguments,
                                            const GraphicalSession& session, WakeEvent& wake,
                                            std::string* error) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  // Where a library's function is bound by its first call, the loader saves the vector registers on
  // the stack, and with them what copying a secret has left there: all are bound at the start.
  std::vector<std::string> variables = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                                        "LD_BIND_NOW=1"};
  for (const auto& [name, value] : session.environment)
    variables.emplace_back(name).append("=").append(value);
  const FileActions actions;
  const Attributes attributes;
  pid_t pid = -1;
  const int result = posix_spawn(&pid, program.c_str(), &actions.get, &attributes.get,
                                 pointers(words).data(), pointers(variables).data());
  if (result == 0) return std::make_unique<Worker>(pid, wake);
  *error = program + ": " + std::strerror(result);
  return nullptr;
}

}  // namespace service_platform
