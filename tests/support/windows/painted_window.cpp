#include "tests/support/windows/painted_window.h"

#include <future>
#include <thread>
#include <vector>

#include "capture/windows/dib.h"

struct PaintedWindow::Impl {
  Impl(const Place& at, const Picture& picture, Kind kind);
  ~Impl();

  // Runs on the window's thread, while the caller waits.
  void call(const std::function<void()>& function) const {
    SendMessageW(window, WM_CALL, 0, reinterpret_cast<LPARAM>(&function));
  }

  void draw(const Picture& picture);
  void paint() const;
  void thread_body(Kind kind, std::promise<void> ready);
  static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

  static constexpr UINT WM_CALL = WM_APP;

  Place place;
  std::vector<std::uint32_t> pixels;  // the window's thread's
  HCURSOR cursor = nullptr;           // the same
  HWND window = nullptr;
  std::thread thread;
};

PaintedWindow::Impl::Impl(const Place& at, const Picture& picture, Kind kind) : place(at) {
  draw(picture);
  std::promise<void> ready;
  std::future<void> made = ready.get_future();
  thread = std::thread(&Impl::thread_body, this, kind, std::move(ready));
  made.get();
}

PaintedWindow::Impl::~Impl() {
  call([this] { DestroyWindow(window); });
  thread.join();
}

void PaintedWindow::Impl::draw(const Picture& picture) {
  pixels.clear();
  for (int y = 0; y < place.height; ++y) {
    for (int x = 0; x < place.width; ++x) pixels.push_back(picture(x, y));
  }
}

void PaintedWindow::Impl::paint() const {
  const BITMAPINFO form = {top_down_rows(place.width, place.height, 32), {}};
  PAINTSTRUCT painting;
  HDC const context = BeginPaint(window, &painting);
  SetDIBitsToDevice(context, 0, 0, static_cast<DWORD>(place.width),
                    static_cast<DWORD>(place.height), 0, 0, 0, static_cast<UINT>(place.height),
                    pixels.data(), &form, DIB_RGB_COLORS);
  EndPaint(window, &painting);
}

LRESULT CALLBACK PaintedWindow::Impl::procedure(HWND window, UINT message, WPARAM wparam,
                                                LPARAM lparam) {
  const auto* self = reinterpret_cast<const Impl*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  switch (message) {
    case WM_CALL:
      (*reinterpret_cast<const std::function<void()>*>(lparam))();
      return 0;
    case WM_PAINT:
      if (!self) break;
      self->paint();
      return 0;
    case WM_ERASEBKGND:
      return 1;
    case WM_SETCURSOR:
      if (!self) break;
      SetCursor(self->cursor);
      return TRUE;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    default:
      break;
  }
  return DefWindowProcW(window, message, wparam, lparam);
}

void PaintedWindow::Impl::thread_body(Kind kind, std::promise<void> ready) {
  static constexpr const wchar_t* CLASS_NAME = L"LunderhazeTestPaintedWindow";
  WNDCLASSW form = {};
  form.lpfnWndProc = procedure;
  form.lpszClassName = CLASS_NAME;
  RegisterClassW(&form);  // fails when there has been such a window already
  const DWORD layered = kind == Kind::Layered ? WS_EX_LAYERED : 0;
  window = CreateWindowExW(WS_EX_TOPMOST | WS_EX_TOOLWINDOW | layered, CLASS_NAME, L"", WS_POPUP,
                           place.left, place.top, place.width, place.height, nullptr, nullptr,
                           nullptr, nullptr);
  SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  if (layered) SetLayeredWindowAttributes(window, 0, 255, LWA_ALPHA);
  ShowWindow(window, SW_SHOWNOACTIVATE);
  UpdateWindow(window);
  ready.set_value();
  MSG message;
  while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
}

PaintedWindow::PaintedWindow(const Place& place, const Picture& picture, Kind kind)
    : impl_(std::make_unique<Impl>(place, picture, kind)) {}

PaintedWindow::~PaintedWindow() = default;

void PaintedWindow::show(const Picture& picture) {
  impl_->call([&] {
    impl_->draw(picture);
    InvalidateRect(impl_->window, nullptr, FALSE);
    UpdateWindow(impl_->window);
  });
}

void PaintedWindow::take_input_with(HCURSOR cursor) {
  impl_->call([&] {
    impl_->cursor = cursor;
    SetForegroundWindow(impl_->window);
    SetCursor(cursor);
  });
}
