// Starting a process as the system in a session that isn't the service's own: with this process's
// token, moved there. Stateless, any thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "control/windows/handles.h"

// The calls of the system, so that a test can write down what they are given and say what comes of
// them.
struct LaunchCalls {
  std::function<BOOL(HANDLE process, DWORD access, HANDLE* token)> open_token = OpenProcessToken;
  std::function<BOOL(HANDLE token, DWORD access, SECURITY_ATTRIBUTES*, SECURITY_IMPERSONATION_LEVEL,
                     TOKEN_TYPE, HANDLE* copy)>
      duplicate_token = DuplicateTokenEx;
  std::function<BOOL(HANDLE token, TOKEN_INFORMATION_CLASS, void* value, DWORD size)> set_token =
      SetTokenInformation;
  std::function<BOOL(void** block, HANDLE token, BOOL inherit)> create_environment;
  std::function<BOOL(void* block)> destroy_environment;
  std::function<BOOL(HANDLE token, const wchar_t* program, wchar_t* command_line,
                     SECURITY_ATTRIBUTES* process, SECURITY_ATTRIBUTES* thread, BOOL inherit,
                     DWORD flags, void* environment, const wchar_t* directory, STARTUPINFOW*,
                     PROCESS_INFORMATION*)>
      create_process = CreateProcessAsUserW;
  std::function<BOOL(HANDLE)> close = CloseHandle;

  LaunchCalls();
};

struct Launched {
  Handle process;  // empty on failure
  DWORD id = 0;
  std::string error;  // which step failed, and the system's number for why
};

// On the session's own desktop, where its windows would be seen.
Launched launch_in_session(const LaunchCalls& calls, const std::string& program,
                           const std::vector<std::string>& arguments, DWORD session);
