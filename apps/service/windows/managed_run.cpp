#include "apps/service/windows/managed_run.h"

#include <exception>

#include "apps/service/windows/event_log.h"
#include "apps/service/windows/service_control.h"
#include "apps/service/windows/service_names.h"

namespace {

// The one run of this process, for the function that the dispatcher calls without an argument of
// ours.
struct ManagedRun {
  const std::function<int()>& run;
  int result;
};
ManagedRun* g_run = nullptr;

void carry_out(ManagedRun& managed) {
  try {
    managed.result = managed.run();
  } catch (const std::exception& error) {
    write_event(error.what(), EventKind::Failure);
  }
}

void WINAPI service_main(DWORD, wchar_t**) {
  if (!service_control().begin()) return;
  carry_out(*g_run);
  service_control().ended(static_cast<DWORD>(g_run->result));
}

}  // namespace

int run_under_manager(const std::function<int()>& run, int on_throw) {
  ManagedRun managed{run, on_throw};
  g_run = &managed;
  std::wstring name = SERVICE_NAME;
  const SERVICE_TABLE_ENTRYW services[] = {{name.data(), service_main}, {nullptr, nullptr}};
  if (StartServiceCtrlDispatcherW(services)) return managed.result;
  if (GetLastError() == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) return run();
  write_event("the service manager can't be reached (error " + std::to_string(GetLastError()) + ")",
              EventKind::Failure);
  return on_throw;
}
