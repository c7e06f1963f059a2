#include "apps/service/windows/service_control.h"

#include "apps/service/windows/service_names.h"

namespace {

DWORD WINAPI on_control(DWORD control, DWORD, void*, void* context) {
  return static_cast<ServiceControl*>(context)->handle(control);
}

}  // namespace

ServiceControl& service_control() {
  // Never destroyed: a control may come until the process ends.
  static ServiceControl& one = *new ServiceControl;
  return one;
}

bool ServiceControl::begin() {
  const std::lock_guard lock(mutex_);
  handle_ = calls_.register_handler(SERVICE_NAME, on_control, this);
  if (handle_ == nullptr) return false;
  managed_ = true;
  status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  report(SERVICE_START_PENDING, START_HINT_MS);
  return true;
}

// A stop that was asked for while it started is not taken back.
void ServiceControl::ready() {
  const std::lock_guard lock(mutex_);
  if (status_.dwCurrentState == SERVICE_START_PENDING) report(SERVICE_RUNNING, 0);
}

void ServiceControl::stopping() {
  const std::lock_guard lock(mutex_);
  if (status_.dwCurrentState == SERVICE_START_PENDING || status_.dwCurrentState == SERVICE_RUNNING)
    report(SERVICE_STOP_PENDING, STOP_HINT_MS);
}

void ServiceControl::progress() {
  const std::lock_guard lock(mutex_);
  if (status_.dwCurrentState == SERVICE_START_PENDING ||
      status_.dwCurrentState == SERVICE_STOP_PENDING)
    report(status_.dwCurrentState, status_.dwWaitHint);
}

void ServiceControl::ended(DWORD exit_code) {
  const std::lock_guard lock(mutex_);
  if (status_.dwCurrentState == SERVICE_STOPPED) return;
  if (exit_code != 0) {
    status_.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
    status_.dwServiceSpecificExitCode = exit_code;
  }
  report(SERVICE_STOPPED, 0);
}

// With the mutex held. A status that the SCM doesn't take can't be mended here: it asks the process
// itself whether it is still there.
void ServiceControl::report(DWORD state, DWORD hint_ms) {
  if (handle_ == nullptr) return;
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  const bool same = state == status_.dwCurrentState;
  status_.dwCheckPoint = !pending ? 0 : same ? status_.dwCheckPoint + 1 : 1;
  status_.dwCurrentState = state;
  status_.dwWaitHint = hint_ms;
  status_.dwControlsAccepted = state == SERVICE_RUNNING
                                   ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN |
                                         SERVICE_ACCEPT_PRESHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE
                                   : 0;
  calls_.set_status(handle_, &status_);
}

void ServiceControl::ask_to_stop() {
  stop_asked_ = true;
  set_wake();
}

void ServiceControl::set_wake() {
  if (WakeEvent* event = wake_) event->set();
}

DWORD ServiceControl::handle(DWORD control) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
    case SERVICE_CONTROL_PRESHUTDOWN:
      stopping();
      ask_to_stop();
      return NO_ERROR;
    case SERVICE_CONTROL_SESSIONCHANGE:
      set_wake();
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}
