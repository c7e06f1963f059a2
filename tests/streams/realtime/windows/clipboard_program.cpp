// A Windows program that copies and pastes, for tests to start:
//   copy FORMAT FILE ...   puts the files' bytes onto the clipboard, together
//   paste FORMAT FILE      writes what is there; 1 when there is none
//   hold OPEN CLOSE        opens the clipboard, sets the event OPEN, and waits for the event CLOSE
//   close CLASS            asks the windows of a class that only messages know to close
// A format is a number, or a name that is registered.
#include <cstdlib>
#include <string>

#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr DWORD DEADLINE_MS = 60'000;

UINT format_of(const std::wstring& text) {
  const UINT number = static_cast<UINT>(std::wcstoul(text.c_str(), nullptr, 10));
  return number != 0 ? number : RegisterClipboardFormatW(text.c_str());
}

bool open(HWND window) {
  for (const ULONGLONG until = GetTickCount64() + DEADLINE_MS; GetTickCount64() < until; Sleep(1)) {
    if (OpenClipboard(window)) return true;
  }
  return false;
}

bool copy(HWND window, int count, wchar_t** arguments) {
  if (!open(window) || !EmptyClipboard()) return false;
  for (int i = 0; i + 1 < count; i += 2) {
    const std::string bytes = file_content(arguments[i + 1]);
    GlobalBlock block(GlobalAlloc(GMEM_MOVEABLE, bytes.size()));
    if (!block) return false;
    bytes.copy(static_cast<char*>(GlobalLock(block.get())), bytes.size());
    GlobalUnlock(block.get());
    if (SetClipboardData(format_of(arguments[i]), block.release()) == nullptr) return false;
  }
  return CloseClipboard();
}

bool paste(HWND window, const std::wstring& format, const wchar_t* file) {
  if (!open(window)) return false;
  const HANDLE block = GetClipboardData(format_of(format));
  const void* bytes = block != nullptr ? GlobalLock(block) : nullptr;
  if (bytes != nullptr) write_file(file, {static_cast<const char*>(bytes), GlobalSize(block)});
  CloseClipboard();
  return bytes != nullptr;
}

bool hold(HWND window, const wchar_t* opened, const wchar_t* close) {
  const Handle is_open(OpenEventW(EVENT_MODIFY_STATE, FALSE, opened));
  const Handle to_close(OpenEventW(SYNCHRONIZE, FALSE, close));
  if (!is_open || !to_close || !open(window)) return false;
  SetEvent(is_open.get());
  return WaitForSingleObject(to_close.get(), DEADLINE_MS) == WAIT_OBJECT_0 && CloseClipboard();
}

bool close_windows(const wchar_t* name) {
  int closed = 0;
  HWND window = nullptr;
  while ((window = FindWindowExW(HWND_MESSAGE, window, name, nullptr)) != nullptr)
    closed += PostMessageW(window, WM_CLOSE, 0, 0);
  return closed > 0;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  const std::wstring what = count > 1 ? arguments[1] : L"";
  // Whoever puts something there has a window.
  const WindowHandle window(CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE,
                                            nullptr, nullptr, nullptr));
  if (what == L"copy") return copy(window.get(), count - 2, arguments + 2) ? 0 : 1;
  if (what == L"paste" && count == 4)
    return paste(window.get(), arguments[2], arguments[3]) ? 0 : 1;
  if (what == L"hold" && count == 4) return hold(window.get(), arguments[2], arguments[3]) ? 0 : 1;
  if (what == L"close" && count == 3) return close_windows(arguments[2]) ? 0 : 1;
  return 2;
}
