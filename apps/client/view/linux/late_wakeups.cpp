#include "apps/client/view/late_wakeups.h"

#include <X11/Xlib.h>
#include <X11/Xproto.h>

// The message goes by a connection of its own, and a server may come to it only after the other
// connection's request to destroy the window. Xlib ends the program at any error that nobody takes,
// and SDL, which keeps this handler behind its own, takes none.

namespace {

XErrorHandler other_errors = nullptr;

int on_error(Display* display, XErrorEvent* error) {
  const bool late = error->request_code == X_SendEvent && error->error_code == BadWindow;
  return late ? 0 : other_errors(display, error);
}

}  // namespace

void allow_late_wakeups() {
  other_errors = XSetErrorHandler(on_error);
}
