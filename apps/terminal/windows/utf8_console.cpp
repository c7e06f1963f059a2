#include "apps/terminal/utf8_console.h"

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cstdio>

#include "apps/terminal/windows/console_mode.h"

namespace {

// A console takes each write for itself, and a letter that comes in two is none. Unbuffered, every
// byte would be a write of its own; what is longer than this is seldom.
constexpr std::size_t BUFFER_BYTES = 65'536;

// The console's code page for output; 0 while it is as it was.
std::atomic<UINT> g_former{0};

// Other programs print by the code page that the console had, and it stays when this one ends.
void give_back() {
  if (const UINT former = g_former.exchange(0); former != 0) SetConsoleOutputCP(former);
}

// The next handler decides what becomes of the program.
BOOL WINAPI on_control(DWORD) {
  give_back();
  return FALSE;
}

// As bytes, too: in its text mode the C library may make characters of them by its own locale. The
// console makes lines of line feeds alone.
void write_whole_texts(std::FILE* stream, DWORD standard_stream) {
  if (!is_console(standard_stream)) return;
  _setmode(_fileno(stream), _O_BINARY);
  std::setvbuf(stream, nullptr, _IOFBF, BUFFER_BYTES);
}

}  // namespace

Utf8Console::Utf8Console() {
  write_whole_texts(stdout, STD_OUTPUT_HANDLE);
  write_whole_texts(stderr, STD_ERROR_HANDLE);
  g_former = GetConsoleOutputCP();
  SetConsoleCtrlHandler(on_control, TRUE);
  if (g_former != 0) SetConsoleOutputCP(CP_UTF8);
}

Utf8Console::~Utf8Console() {
  std::fflush(stdout);
  std::fflush(stderr);
  SetConsoleCtrlHandler(on_control, FALSE);
  give_back();
}
