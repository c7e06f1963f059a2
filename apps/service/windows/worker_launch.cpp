#include "apps/service/windows/worker_launch.h"

// After what handles.h includes.
#include <userenv.h>

#include "control/windows/command_line.h"
#include "control/windows/known_folder.h"
#include "control/windows/wide_text.h"

namespace {

constexpr DWORD TOKEN_ACCESS = TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY |
                               TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID;
// No console, which would be a window, and would pass on what somebody types at the service's.
constexpr DWORD FLAGS = DETACHED_PROCESS | CREATE_UNICODE_ENVIRONMENT;

// What one call gave out, given back through the record.
class Given {
 public:
  explicit Given(std::function<BOOL(void*)> close) : close_(std::move(close)) {}
  ~Given() {
    if (value != nullptr) close_(value);
  }
  Given(const Given&) = delete;
  Given& operator=(const Given&) = delete;

  void* value = nullptr;

 private:
  const std::function<BOOL(void*)> close_;
};

Launched failed(const std::string& what) {
  const DWORD error = GetLastError();
  Launched launched;
  launched.error = what + " (error " + std::to_string(error) + ")";
  return launched;
}

}  // namespace

LaunchCalls::LaunchCalls()
    : create_environment(CreateEnvironmentBlock), destroy_environment(DestroyEnvironmentBlock) {}

Launched launch_in_session(const LaunchCalls& calls, const std::string& program,
                           const std::vector<std::string>& arguments, DWORD session) {
  Given own(calls.close), token(calls.close), environment(calls.destroy_environment);
  if (!calls.open_token(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, &own.value))
    return failed("the service's token can't be opened");
  if (!calls.duplicate_token(own.value, TOKEN_ACCESS, nullptr, SecurityIdentification, TokenPrimary,
                             &token.value))
    return failed("the service's token can't be copied");
  if (!calls.set_token(token.value, TokenSessionId, &session, sizeof session))
    return failed("no token for session " + std::to_string(session));
  // The system's own variables, and none of this process's.
  if (!calls.create_environment(&environment.value, token.value, FALSE))
    return failed("no variables for the worker");

  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::wstring line = command_line_of(words);
  std::wstring desktop = L"winsta0\\default";
  const std::filesystem::path directory = system_directory();
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.lpDesktop = desktop.data();
  PROCESS_INFORMATION made{};
  if (!calls.create_process(token.value, to_wide(program).c_str(), line.data(), nullptr, nullptr,
                            FALSE, FLAGS, environment.value,
                            directory.empty() ? nullptr : directory.c_str(), &startup, &made))
    return failed(program);
  calls.close(made.hThread);
  Launched launched;
  launched.process.reset(made.hProcess);
  launched.id = made.dwProcessId;
  return launched;
}
