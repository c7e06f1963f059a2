// A window over the whole screen, for tests to stream:
//   moving_picture        what moves, with the time at which each picture was painted in it
//                         (apps/client/paint_marker.h), 60 a second
//   moving_picture still  text and a grid, of which one small spot blinks, so that frames keep
//   coming
// It says "painted" once it is on the screen, and runs until Ctrl+C.
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>

#include "apps/client/paint_marker.h"
#include "connection/clock.h"
#include "control/windows/handles.h"
// After what handles.h includes.
#include <timeapi.h>

namespace {

constexpr int FRAMES_A_SECOND = 60;
constexpr int BOX_PIXELS = 96;

COLORREF colour(std::uint32_t rgb) {
  return RGB(rgb >> 16 & 0xFF, rgb >> 8 & 0xFF, rgb & 0xFF);
}

// What is painted into, and shown whole.
class Canvas {
 public:
  Canvas(HWND window, int across, int down)
      : width(across), height(down), window_(GetDC(window)), memory_(CreateCompatibleDC(window_)) {
    SelectObject(memory_, CreateCompatibleBitmap(window_, across, down));
    SetBkMode(memory_, OPAQUE);
    SelectObject(memory_, GetStockObject(ANSI_FIXED_FONT));
  }

  void fill(std::uint32_t rgb, int x, int y, int across, int down) const {
    const RECT box{x, y, x + across, y + down};
    SetDCBrushColor(memory_, colour(rgb));
    FillRect(memory_, &box, static_cast<HBRUSH>(GetStockObject(DC_BRUSH)));
  }
  void text(int x, int y, const std::string& line) const {
    SetTextColor(memory_, colour(0x202020));
    TextOutA(memory_, x, y, line.c_str(), static_cast<int>(line.size()));
  }
  void show() const {
    BitBlt(window_, 0, 0, width, height, memory_, 0, 0, SRCCOPY);
    GdiFlush();
  }

  const int width, height;

 private:
  HDC window_;
  HDC memory_;
};

void paint_background(const Canvas& canvas) {
  const int width = canvas.width;
  const int height = canvas.height;
  for (int band = 0; band < 16; ++band)
    canvas.fill(0x203040U + static_cast<std::uint32_t>(band) * 0x040608U, 0, band * height / 16,
                width, height / 16 + 1);
  canvas.fill(0xFFFFFF, width / 8, height / 4, width / 2, height / 2);
  for (int line = 0; line < height / 2 / 16 - 3; ++line)
    canvas.text(width / 8 + 12, height / 4 + 8 + line * 16,
                "line " + std::to_string(line) +
                    ": the quick brown fox jumps over the lazy dog 0123456789");
  constexpr std::uint32_t COLOURS[] = {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00, 0x00FFFF, 0xFF00FF};
  for (int i = 0; i < 6; ++i)
    canvas.fill(COLOURS[i], width * 3 / 4, height / 8 + i * height / 12, width / 12, height / 14);
  canvas.fill(0x506070, width * 70 / 100, height * 65 / 100, width * 28 / 100, height * 33 / 100);
}

void paint_grid(const Canvas& canvas) {
  constexpr int SIDE = 200;
  const int left = canvas.width * 70 / 100 + 40;
  const int top = canvas.height * 65 / 100 + 16;
  for (int line = 0; line < SIDE; line += 2) {
    canvas.fill(0x000000, left, top + line, SIDE, 1);
    canvas.fill(0x000000, left + line, top, 1, SIDE);
  }
}

// A box on a circle, a line that wanders, and the marker.
void paint_frame(const Canvas& canvas, unsigned frame) {
  static int old_x = 0, old_y = 0;
  const double angle = frame * 0.05;
  if (old_x != 0) canvas.fill(0x506070, old_x, old_y, BOX_PIXELS, BOX_PIXELS);
  old_x = static_cast<int>(canvas.width * (0.80 + 0.08 * std::cos(angle)));
  old_y = static_cast<int>(canvas.height * (0.75 + 0.08 * std::sin(angle)));
  canvas.fill(0xE08020, old_x, old_y, BOX_PIXELS, BOX_PIXELS);
  canvas.text(old_x + 8, old_y + 8, std::to_string(frame));
  const int line = canvas.height * 3 / 4 - 26;
  canvas.fill(0xFFFFFF, canvas.width / 8 + 12, line, 400, 18);
  canvas.text(canvas.width / 8 + 12 + static_cast<int>(frame % 200), line + 2,
              "the line that wanders");

  const std::uint64_t bits = marker_bits(lund_now_us());
  for (int square = 0; square < MARKER_SQUARES * MARKER_SQUARES; ++square)
    canvas.fill((bits >> (63 - square)) & 1 ? 0xFFFFFF : 0x000000,
                square % MARKER_SQUARES * MARKER_SQUARE_PIXELS,
                square / MARKER_SQUARES * MARKER_SQUARE_PIXELS, MARKER_SQUARE_PIXELS,
                MARKER_SQUARE_PIXELS);
}

void blink(const Canvas& canvas, unsigned frame) {
  canvas.fill(frame % 2 == 0 ? 0x405060 : 0x405061, canvas.width - 40, canvas.height - 40, 8, 8);
}

HWND open_window(int width, int height) {
  WNDCLASSW form = {};
  form.lpfnWndProc = DefWindowProcW;
  form.lpszClassName = L"LunderhazeTestMovingPicture";
  form.style = CS_OWNDC;
  form.hCursor = LoadCursorW(nullptr, IDC_ARROW);
  RegisterClassW(&form);
  return CreateWindowExW(WS_EX_TOPMOST | WS_EX_TOOLWINDOW, form.lpszClassName, L"",
                         WS_POPUP | WS_VISIBLE, 0, 0, width, height, nullptr, nullptr, nullptr,
                         nullptr);
}

// Ended from another thread while it paints, it might leave a lock of the drawing's behind, for
// which its end would wait.
std::atomic<bool> g_ended{false};
BOOL WINAPI end_after_this_frame(DWORD) {
  g_ended = true;
  return TRUE;
}

}  // namespace

int main(int count, char** arguments) {
  const bool still = count > 1 && std::string(arguments[1]) == "still";
  const int width = GetSystemMetrics(SM_CXSCREEN);
  const int height = GetSystemMetrics(SM_CYSCREEN);
  const HWND window = open_window(width, height);
  if (window == nullptr) return 1;
  timeBeginPeriod(1);
  SetConsoleCtrlHandler(end_after_this_frame, TRUE);
  const Canvas canvas(window, width, height);
  paint_background(canvas);
  if (still) paint_grid(canvas);
  std::uint64_t due_us = lund_now_us();
  for (unsigned frame = 0; !g_ended; ++frame) {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
    if (still)
      blink(canvas, frame);
    else
      paint_frame(canvas, frame);
    canvas.show();
    if (frame == 0) {
      std::puts("painted");
      std::fflush(stdout);
    }
    due_us += 1'000'000 / FRAMES_A_SECOND;
    const std::uint64_t now_us = lund_now_us();
    if (due_us > now_us) Sleep(static_cast<DWORD>((due_us - now_us) / 1'000));
  }
}
