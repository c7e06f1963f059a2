#include "streams/windows/listener_window.h"

#include <string>
#include <utility>

#include "streams/clipboard_access.h"

namespace {

constexpr wchar_t CLASS_NAME[] = L"LunderhazeClipboardSync";
constexpr UINT WM_WAKE = WM_APP + 0x51;
constexpr UINT_PTR TIMER = 1;

}  // namespace

// A class lives as long as the program; the second listener finds that of the first.
bool ListenerWindow::open(const ClipboardLog& log) {
  WNDCLASSEXW window_class{};
  window_class.cbSize = sizeof window_class;
  window_class.lpfnWndProc = procedure;
  window_class.hInstance = GetModuleHandleW(nullptr);
  window_class.lpszClassName = CLASS_NAME;
  RegisterClassExW(&window_class);
  const HWND window = CreateWindowExW(0, CLASS_NAME, nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                      window_class.hInstance, nullptr);
  if (window == nullptr) return false;
  SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  if (!AddClipboardFormatListener(window)) {
    const DWORD error = GetLastError();
    log("clipboard: AddClipboardFormatListener failed (" + std::to_string(error) + ")");
  }
  window_ = window;
  return true;
}

void ListenerWindow::close() {
  if (window_ != nullptr) DestroyWindow(window_);
  // Its end is no affair of whatever this thread does next.
  MSG message;
  PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE);
}

LRESULT CALLBACK ListenerWindow::procedure(HWND window, UINT message, WPARAM w, LPARAM l) {
  auto* self = reinterpret_cast<ListenerWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  return self != nullptr ? self->handle(window, message, w, l)
                         : DefWindowProcW(window, message, w, l);
}

LRESULT ListenerWindow::handle(HWND window, UINT message, WPARAM w, LPARAM l) {
  switch (message) {
    case WM_CLIPBOARDUPDATE:
      changed_ = true;
      return 0;
    case WM_TIMER:
      KillTimer(window, w);
      return 0;
    case WM_WAKE:  // so that a sleep ends
      return 0;
    case WM_CLOSE:  // any program may send it
      if (ending_) DestroyWindow(window);
      return 0;
    case WM_DESTROY:
      RemoveClipboardFormatListener(window);
      window_ = nullptr;
      PostQuitMessage(0);
      return 0;
    default:
      return DefWindowProcW(window, message, w, l);
  }
}

bool ListenerWindow::wait(std::uint32_t timeout_ms) {
  if (window_ != nullptr && !ending_ && !changed_) sleep(timeout_ms);
  MSG message;
  while (window_ != nullptr && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
    DispatchMessageW(&message);
  return std::exchange(changed_, false);
}

void ListenerWindow::sleep(std::uint32_t timeout_ms) {
  const bool timed = timeout_ms != ClipboardAccess::FOREVER_MS;
  if (timeout_ms == 0 || (timed && SetTimer(window_, TIMER, timeout_ms, nullptr) == 0)) return;
  MSG message;
  if (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
  if (timed) KillTimer(window_, TIMER);
}

// Without a window a message would go to the calling thread.
void ListenerWindow::post(UINT message) {
  if (const HWND window = window_) PostMessageW(window, message, 0, 0);
}

void ListenerWindow::wake() {
  post(WM_WAKE);
}

void ListenerWindow::end() {
  ending_ = true;
  post(WM_CLOSE);
}
