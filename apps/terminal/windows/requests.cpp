#include "apps/terminal/requests.h"

#include "apps/terminal/windows/control_event.h"

namespace {

Requests g_requests;  // set before the handler is

}  // namespace

// A program that has windows isn't told of a logging off this way: it is ended.
BOOL WINAPI answer_control_event(DWORD kind) {
  if (kind == CTRL_BREAK_EVENT && g_requests.report != nullptr) {
    g_requests.report();
    return TRUE;
  }
  g_requests.end();
  // Of a console that closes the system ends the process when this returns, or after 5 s: until
  // then the main thread may end it in order.
  if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

const char* const REPORT_REQUEST = "Ctrl+Break";

void watch_requests(const Requests& requests) {
  g_requests = requests;
  SetConsoleCtrlHandler(answer_control_event, TRUE);
}
