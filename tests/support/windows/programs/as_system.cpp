// as_system COMMAND...: runs the command as LocalSystem in this session, and ends with what it ends
// with; 77 where nobody can be given LocalSystem's token.
#include <cstdio>

#include "tests/support/windows/own_command_line.h"
#include "tests/support/windows/system_token.h"

namespace {

int fail(const char* what) {
  std::fprintf(stderr, "as_system: %s (error %lu)\n", what, GetLastError());
  return 77;
}

}  // namespace

int main() {
  const Handle token = make_system_token();
  if (!token) return fail("no token of LocalSystem");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made{};
  if (!CreateProcessAsUserW(token.get(), nullptr, rest_of_command_line(), nullptr, nullptr, TRUE, 0,
                            nullptr, nullptr, &startup, &made))
    return fail("the command can't be started");
  const Handle process(made.hProcess), thread(made.hThread);
  WaitForSingleObject(process.get(), INFINITE);
  DWORD status = 1;
  GetExitCodeProcess(process.get(), &status);
  return static_cast<int>(status);
}
