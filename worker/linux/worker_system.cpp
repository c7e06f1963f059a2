#include "worker/worker_system.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <optional>

#include "control/linux/lock_file.h"
#include "control/security.h"
#include "worker/linux/display_awake.h"

namespace host_app {

namespace {

constexpr char RUNTIME_DIRECTORY[] = "/run/lunderhaze";
constexpr char LOCK_FILE[] = "/run/lunderhaze/host-worker-v1.lock";

std::atomic<WakeEvent*> g_stop{nullptr};

void request_stop(int) {
  if (WakeEvent* stop = g_stop.load()) stop->set();
}

class LinuxWorkerSystem final : public WorkerSystem {
 public:
  // The loader has its directories from before the program began, and a service's environment is
  // the administrator's.
  void restrict_library_directories() override {}

  Lock take_lock() override {
    const std::filesystem::path directory = RUNTIME_DIRECTORY;
    if (!host_service::protected_ancestors(directory) ||
        !host_service::create_private_directory(directory))
      return Lock::Unprotected;
    lock_.emplace();
    return lock_->acquire(LOCK_FILE) == LockFile::Result::Held ? Lock::Held : Lock::NotHeld;
  }
  void release_lock() override { lock_.reset(); }

  void stop_on_signals(WakeEvent* stop) override {
    g_stop = stop;
    for (const int number : {SIGTERM, SIGINT}) std::signal(number, request_stop);
  }

  bool keep_display_awake(bool on) override { return display_awake_.set(on); }

 private:
  std::optional<LockFile> lock_;
  DisplayAwake display_awake_;
};

}  // namespace

std::unique_ptr<WorkerSystem> native_worker_system() {
  return std::make_unique<LinuxWorkerSystem>();
}

}  // namespace host_app
