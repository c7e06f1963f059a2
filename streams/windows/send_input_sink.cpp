#include "streams/windows/send_input_sink.h"

#include "capture/windows/input_desktop.h"
#include "streams/send_input.h"

namespace {

constexpr ACCESS_MASK ACCESS = DESKTOP_READOBJECTS | DESKTOP_JOURNALPLAYBACK | DESKTOP_WRITEOBJECTS;

HDESK handle_of(InputSink::Desktop desktop) {
  return reinterpret_cast<HDESK>(desktop);
}

// One at a time: of several, some might be played and some not.
SendResult send(INPUT input) {
  if (SendInput(1, &input, sizeof(input)) == 1) return {};
  return {false, GetLastError()};
}

SendResult send(const send_input::Mouse& event) {
  INPUT input{};
  input.type = INPUT_MOUSE;
  input.mi.dx = event.dx;
  input.mi.dy = event.dy;
  input.mi.mouseData = event.data;
  input.mi.dwFlags = event.flags;
  return send(input);
}

SendResult send(const send_input::Key& event) {
  INPUT input{};
  input.type = INPUT_KEYBOARD;
  input.ki.wVk = event.vk;
  input.ki.wScan = event.scan;
  input.ki.dwFlags = event.flags;
  return send(input);
}

}  // namespace

// ---- The desktop

InputSink::Desktop SendInputSink::open_input_desktop() {
  return reinterpret_cast<Desktop>(::open_input_desktop(ACCESS).release());
}

bool SendInputSink::desktop_name(Desktop desktop, std::string* name) {
  return read_desktop_name(handle_of(desktop), name);
}

bool SendInputSink::attach_this_thread(Desktop desktop) {
  return SetThreadDesktop(handle_of(desktop)) != FALSE;
}

void SendInputSink::close_desktop(Desktop desktop) {
  CloseDesktop(handle_of(desktop));
}

// ---- Sending

SendResult SendInputSink::move_to(DesktopPoint pixel) {
  return send(send_input::move_to(
      pixel, {GetSystemMetrics(SM_XVIRTUALSCREEN), GetSystemMetrics(SM_YVIRTUALSCREEN),
              GetSystemMetrics(SM_CXVIRTUALSCREEN), GetSystemMetrics(SM_CYVIRTUALSCREEN)}));
}

SendResult SendInputSink::move_by(std::int32_t dx, std::int32_t dy) {
  return send(send_input::move_by(dx, dy));
}

SendResult SendInputSink::button(int button, bool down) {
  return send(send_input::button(button, down));
}

SendResult SendInputSink::wheel(WheelAxis axis, std::int32_t delta) {
  return send(send_input::wheel(axis, delta));
}

SendResult SendInputSink::key(const InputKey& key, bool down) {
  return send(send_input::key(key.win, down));
}

std::unique_ptr<InputSink> make_send_input_sink() {
  return std::make_unique<SendInputSink>();
}
