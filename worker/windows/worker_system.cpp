#include "worker/worker_system.h"

#include <mutex>

#include "control/windows/handles.h"
#include "control/windows/security_attributes.h"
#include "worker/windows/display_awake.h"

namespace host_app {

namespace {

constexpr wchar_t MUTEX[] = L"Global\\LunderhazeHostWorker-v1";

std::mutex g_stop_mutex;  // held while the event is set, so that it is there until then
WakeEvent* g_stop = nullptr;

// On a thread of the console's own. What closes the console ends the process as soon as this
// returns; the main thread's return ends it otherwise.
BOOL WINAPI request_stop(DWORD reason) {
  {
    const std::lock_guard lock(g_stop_mutex);
    if (g_stop != nullptr) g_stop->set();
  }
  if (reason != CTRL_C_EVENT && reason != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

class WindowsWorkerSystem final : public WorkerSystem {
 public:
  void restrict_library_directories() override {
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
  }

  Lock take_lock() override {
    SecurityAttributes attributes(SYSTEM_ALONE);
    if (!attributes) return Lock::Unprotected;
    mutex_.reset(CreateMutexW(attributes.get(), TRUE, MUTEX));
    if (GetLastError() == ERROR_ALREADY_EXISTS) mutex_.reset();
    return mutex_ ? Lock::Held : Lock::NotHeld;
  }
  void release_lock() override {
    ReleaseMutex(mutex_.get());
    mutex_.reset();
  }

  void stop_on_signals(WakeEvent* stop) override {
    const std::lock_guard lock(g_stop_mutex);
    g_stop = stop;
    SetConsoleCtrlHandler(request_stop, TRUE);
  }

  bool keep_display_awake(bool on) override { return set_display_awake(on); }

 private:
  Handle mutex_;
};

}  // namespace

std::unique_ptr<WorkerSystem> native_worker_system() {
  return std::make_unique<WindowsWorkerSystem>();
}

}  // namespace host_app
