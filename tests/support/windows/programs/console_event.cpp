// console_event PROCESS C|Break: presses Ctrl+C or Ctrl+Break on the console of a process.
#include <windows.h>

#include <cstdlib>
#include <cstring>

namespace {

// It is on that console itself, and is to outlive what it does.
BOOL WINAPI ignore(DWORD) {
  return TRUE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const DWORD event = std::strcmp(argv[2], "C") == 0 ? CTRL_C_EVENT : CTRL_BREAK_EVENT;
  FreeConsole();
  if (!AttachConsole(static_cast<DWORD>(std::strtoul(argv[1], nullptr, 10)))) return 3;
  SetConsoleCtrlHandler(ignore, TRUE);
  return GenerateConsoleCtrlEvent(event, 0) ? 0 : 4;
}
