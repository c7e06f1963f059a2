// The service in the SCM's database: what Windows starts, as whom, and what it does when that ends
// in a way it shouldn't. With administrator's rights; stateless.
#pragma once

#include <functional>
#include <string>

#include "control/windows/handles.h"

// The calls of the system, so that a test can say what comes of them.
struct RegistrationCalls {
  std::function<SC_HANDLE(const wchar_t* machine, const wchar_t* database, DWORD access)>
      open_manager = OpenSCManagerW;
  std::function<SC_HANDLE(SC_HANDLE, const wchar_t* name, const wchar_t* display_name, DWORD access,
                          DWORD type, DWORD start, DWORD on_error, const wchar_t* command_line,
                          const wchar_t* group, DWORD* tag, const wchar_t* dependencies,
                          const wchar_t* account, const wchar_t* password)>
      create = CreateServiceW;
  std::function<SC_HANDLE(SC_HANDLE, const wchar_t* name, DWORD access)> open = OpenServiceW;
  std::function<BOOL(SC_HANDLE, DWORD type, DWORD start, DWORD on_error,
                     const wchar_t* command_line, const wchar_t* group, DWORD* tag,
                     const wchar_t* dependencies, const wchar_t* account, const wchar_t* password,
                     const wchar_t* display_name)>
      change = ChangeServiceConfigW;
  std::function<BOOL(SC_HANDLE, DWORD what, void* value)> change_more = ChangeServiceConfig2W;
  std::function<BOOL(SC_HANDLE, DWORD control, SERVICE_STATUS*)> control = ControlService;
  std::function<BOOL(SC_HANDLE, SERVICE_STATUS*)> query = QueryServiceStatus;
  std::function<BOOL(SC_HANDLE)> remove = DeleteService;
};

struct Registered {
  bool done = false;
  DWORD error = ERROR_SUCCESS;  // the system's, of the step that failed
  std::string text;             // for the person who asked
};

// Makes it, or changes one that is there to this. LocalSystem, started with Windows, started again
// after a crash.
Registered register_service(const RegistrationCalls& calls, const std::wstring& name,
                            const std::wstring& command_line);
// Stops it and removes it; done as well when it isn't there. `stop_ms`: what its end may take.
Registered unregister_service(const RegistrationCalls& calls, const std::wstring& name,
                              DWORD stop_ms);
