// The worker as a process. Nothing ends it with the service: it sees that for itself, and says BYE
// to its client before it goes.
#include <atomic>
#include <thread>

#include "apps/service/platform.h"
#include "apps/service/windows/worker_launch.h"

namespace {

// No program's, and no exception's.
constexpr DWORD KILLED = 0x4C48'0009;

// What a process ends with that doesn't handle its exception: an NTSTATUS of the system's, whose
// first four bits say that it is an error.
bool is_exception(DWORD code) {
  return code >> 28 == 0xC;
}

WorkerEnd end_of(DWORD code) {
  const auto kind = code == KILLED       ? WorkerEnd::Kind::Killed
                    : is_exception(code) ? WorkerEnd::Kind::Faulted
                                         : WorkerEnd::Kind::Exited;
  return {kind, static_cast<int>(code)};
}

class Worker final : public WorkerProcess {
 public:
  Worker(Handle process, DWORD id, WakeEvent& wake) : process_(std::move(process)), id_(id) {
    waiter_ = std::thread([this, &wake] {
      WaitForSingleObject(process_.get(), INFINITE);
      ended_ = true;
      wake.set();
    });
  }
  ~Worker() override {
    if (!ended_) kill();
    waiter_.join();
  }

  // Its own as long as the handle is open.
  std::uint32_t id() const override { return id_; }
  std::optional<WorkerEnd> ended() override {
    DWORD code = 0;
    if (!ended_ || !GetExitCodeProcess(process_.get(), &code)) return std::nullopt;
    return end_of(code);
  }
  // Windows asks processes by their windows and consoles, and this one has neither.
  bool terminate() override { return false; }
  void kill() override { TerminateProcess(process_.get(), KILLED); }

 private:
  const Handle process_;
  const DWORD id_;
  std::atomic<bool> ended_{false};
  std::thread waiter_;
};

}  // namespace

namespace service_platform {

const char* const WORKER_PROGRAM = "lunderhaze-worker.exe";

std::unique_ptr<WorkerProcess> start_worker(const std::string& program,
                                            const std::vector<std::string>& arguments,
                                            const GraphicalSession& session, WakeEvent& wake,
                                            std::string* error) {
  Launched launched = launch_in_session({}, program, arguments, session.number);
  if (launched.process)
    return std::make_unique<Worker>(std::move(launched.process), launched.id, wake);
  *error = launched.error;
  return nullptr;
}

}  // namespace service_platform
