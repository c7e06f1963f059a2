#include "apps/service/windows/registration.h"

#include <array>

#include "apps/service/windows/service_control.h"
#include "connection/clock.h"
#include "control/windows/wide_text.h"

namespace {

constexpr wchar_t DESCRIPTION[] =
    L"Shares this computer's screens with paired clients, also while nobody is signed in.";
// Created or opened with: to restart it after a crash takes the right to start it.
constexpr DWORD CONFIGURE = SERVICE_CHANGE_CONFIG | SERVICE_START | DELETE;
constexpr DWORD RESTART_MS = 2'000;
constexpr DWORD CRASHES_FORGOTTEN_S = 86'400;
constexpr DWORD POLL_MS = 100;

std::string what_failed(const std::string& what, DWORD error) {
  switch (error) {
    case ERROR_ACCESS_DENIED:
      return what + ": run this in a terminal that was started as administrator";
    case ERROR_SERVICE_MARKED_FOR_DELETE:
      return what +
             ": it is being removed; close what still shows it, such as the Services window, and "
             "try again";
    default:
      return what + " (error " + std::to_string(error) + ")";
  }
}

Registered failed(const std::string& what, DWORD error = GetLastError()) {
  return {false, error, what_failed(what, error)};
}

// A crash is an end without a word to the SCM. An end with an exit code of the service's own would
// be the same the next time, as the reasons lie outside.
bool configure(const RegistrationCalls& calls, SC_HANDLE service) {
  std::wstring words = DESCRIPTION;
  SERVICE_DESCRIPTIONW description{words.data()};
  std::array<SC_ACTION, 3> actions;  // of the first crash, the second, and all others
  actions.fill({SC_ACTION_RESTART, RESTART_MS});
  SERVICE_FAILURE_ACTIONSW after_crash{};
  after_crash.dwResetPeriod = CRASHES_FORGOTTEN_S;
  after_crash.cActions = actions.size();
  after_crash.lpsaActions = actions.data();
  SERVICE_PRESHUTDOWN_INFO before_shutdown{ServiceControl::STOP_HINT_MS};
  return calls.change_more(service, SERVICE_CONFIG_DESCRIPTION, &description) &&
         calls.change_more(service, SERVICE_CONFIG_FAILURE_ACTIONS, &after_crash) &&
         calls.change_more(service, SERVICE_CONFIG_PRESHUTDOWN_INFO, &before_shutdown);
}

// ERROR_SUCCESS once it has stopped.
DWORD stop(const RegistrationCalls& calls, SC_HANDLE service, DWORD stop_ms) {
  const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{stop_ms} * 1'000;
  SERVICE_STATUS status{};
  if (!calls.control(service, SERVICE_CONTROL_STOP, &status)) {
    const DWORD error = GetLastError();
    if (error == ERROR_SERVICE_NOT_ACTIVE) return ERROR_SUCCESS;
    // It is starting or stopping, and takes no control meanwhile.
    if (error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) return error;
  }
  for (;;) {
    if (!calls.query(service, &status)) return GetLastError();
    if (status.dwCurrentState == SERVICE_STOPPED) return ERROR_SUCCESS;
    if (lund_now_us() >= deadline_us) return ERROR_SERVICE_REQUEST_TIMEOUT;
    if (status.dwCurrentState == SERVICE_RUNNING)
      calls.control(service, SERVICE_CONTROL_STOP, &status);
    Sleep(POLL_MS);
  }
}

}  // namespace

Registered register_service(const RegistrationCalls& calls, const std::wstring& name,
                            const std::wstring& command_line) {
  const std::string shown = "The service \"" + to_utf8(name) + "\"";
  const ServiceHandle manager(
      calls.open_manager(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  if (!manager) return failed("The service manager can't be asked");
  constexpr DWORD TYPE = SERVICE_WIN32_OWN_PROCESS;
  ServiceHandle service(calls.create(manager.get(), name.c_str(), name.c_str(), CONFIGURE, TYPE,
                                     SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, command_line.c_str(),
                                     nullptr, nullptr, nullptr, nullptr, nullptr));
  const bool made = static_cast<bool>(service);
  if (!made) {
    if (const DWORD error = GetLastError(); error != ERROR_SERVICE_EXISTS)
      return failed(shown + " can't be made", error);
    service.reset(calls.open(manager.get(), name.c_str(), CONFIGURE));
    if (!service || !calls.change(service.get(), TYPE, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                  command_line.c_str(), nullptr, nullptr, nullptr, L"LocalSystem",
                                  L"", name.c_str()))
      return failed(shown + " is there and can't be changed");
  }
  if (!configure(calls, service.get())) {
    const Registered trouble = failed(shown + " can't be configured");
    if (made) calls.remove(service.get());
    return trouble;
  }
  return {true, ERROR_SUCCESS, shown + (made ? " is installed" : " was there and is changed")};
}

Registered unregister_service(const RegistrationCalls& calls, const std::wstring& name,
                              DWORD stop_ms) {
  const std::string shown = "The service \"" + to_utf8(name) + "\"";
  const ServiceHandle manager(calls.open_manager(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) return failed("The service manager can't be asked");
  const ServiceHandle service(
      calls.open(manager.get(), name.c_str(), SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
  if (!service) {
    const DWORD error = GetLastError();
    if (error != ERROR_SERVICE_DOES_NOT_EXIST) return failed(shown + " can't be opened", error);
    return {true, ERROR_SUCCESS, shown + " was not installed"};
  }
  if (const DWORD error = stop(calls, service.get(), stop_ms); error != ERROR_SUCCESS)
    return failed(shown + " does not stop", error);
  if (!calls.remove(service.get()) && GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE)
    return failed(shown + " can't be removed");
  return {true, ERROR_SUCCESS, shown + " is removed"};
}
