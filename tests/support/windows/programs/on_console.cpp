// on_console COMMAND...: runs the command on this process' console, which shows the code page 437
// at first, and prints in UTF-8 what stands there then, line by line, and behind it the code page.
#include <cstdio>
#include <string>

#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
#include "tests/support/windows/own_command_line.h"

namespace {

constexpr UINT FORMER_CODE_PAGE = 437;

int fail(const char* what) {
  std::fprintf(stderr, "on_console: %s (error %lu)\n", what, GetLastError());
  return 1;
}

HANDLE inherited(const Handle& handle) {
  SetHandleInformation(handle.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  return handle.get();
}

}  // namespace

int main() {
  const Handle screen = owned_file(CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                               OPEN_EXISTING, 0, nullptr));
  const Handle keys = owned_file(CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                             OPEN_EXISTING, 0, nullptr));
  if (!screen || !keys || !SetConsoleOutputCP(FORMER_CODE_PAGE)) return fail("no console");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = inherited(keys);
  startup.hStdOutput = startup.hStdError = inherited(screen);
  PROCESS_INFORMATION made{};
  if (!CreateProcessW(nullptr, rest_of_command_line(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                      &startup, &made))
    return fail("the command can't be started");
  const Handle process(made.hProcess), thread(made.hThread);
  WaitForSingleObject(process.get(), INFINITE);
  CONSOLE_SCREEN_BUFFER_INFO shown{};
  if (!GetConsoleScreenBufferInfo(screen.get(), &shown)) return fail("the console can't be read");
  for (SHORT y = 0; y <= shown.dwCursorPosition.Y; ++y) {
    std::wstring line(static_cast<std::size_t>(shown.dwSize.X), L' ');
    DWORD size = 0;
    ReadConsoleOutputCharacterW(screen.get(), line.data(), static_cast<DWORD>(line.size()), {0, y},
                                &size);
    std::puts(to_utf8(line.substr(0, line.find_last_not_of(L' ') + 1)).c_str());
  }
  std::printf("%u\n", GetConsoleOutputCP());
  return 0;
}
