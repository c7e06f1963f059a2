#include "apps/terminal/windows/console_mode.h"

#include <atomic>
#include <cstdint>

namespace {

// What the control handler needs: the former modes, in the lower half, while there is something to
// put back.
constexpr std::uint64_t TAKEN = std::uint64_t{1} << 32;
std::atomic<std::uint64_t> g_former{0};

void give_back() {
  const std::uint64_t former = g_former.exchange(0);
  if ((former & TAKEN) != 0)
    SetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), static_cast<DWORD>(former));
}

// The next handler decides what becomes of the program.
BOOL WINAPI on_control(DWORD) {
  give_back();
  return FALSE;
}

}  // namespace

bool is_console(DWORD standard_stream) {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(standard_stream), &mode) != FALSE;
}

ConsoleMode::ConsoleMode(DWORD off) : input_(GetStdHandle(STD_INPUT_HANDLE)) {
  DWORD former = 0;
  if (!GetConsoleMode(input_, &former)) return;
  g_former = TAKEN | former;
  SetConsoleCtrlHandler(on_control, TRUE);
  SetConsoleMode(input_, former & ~off);
}

ConsoleMode::~ConsoleMode() {
  SetConsoleCtrlHandler(on_control, FALSE);
  give_back();
}
