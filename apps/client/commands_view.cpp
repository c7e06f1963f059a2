// view: a host's screens in windows, with mouse, keyboard, sound and clipboard.
#include <SDL.h>
#include <SDL_ttf.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "apps/client/commands.h"
#include "apps/client/host_access.h"
#include "apps/client/json_report.h"
#include "apps/client/view/desktop_clipboard.h"
#include "apps/client/view/desktop_hint.h"
#include "apps/client/view/keys.h"
#include "apps/client/view/late_wakeups.h"
#include "apps/client/view/sound_output.h"
#include "apps/client/view/viewer.h"

namespace client_app {

namespace {

// What SDL falls back to when nothing else is there.
bool draws_for_nobody(std::string_view driver) {
  return driver == "offscreen" || driver == "dummy" || driver == "evdev";
}

// SDL with what a window on another computer needs of it, for as long as it lives.
class Sdl {
 public:
  bool start(std::string* error) {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");  // Ctrl+C is the program's
    SDL_SetHint(SDL_HINT_APP_NAME, "Lunderhaze");
    SDL_SetHint(SDL_HINT_VIDEO_MINIMIZE_ON_FOCUS_LOSS, "0");
    SDL_SetHint(SDL_HINT_MOUSE_FOCUS_CLICKTHROUGH, "1");     // a click that focuses is one
    SDL_SetHint(SDL_HINT_ALLOW_ALT_TAB_WHILE_GRABBED, "0");  // Alt+Tab is the host's
    SDL_SetHint(SDL_HINT_WINDOWS_NO_CLOSE_ON_ALT_F4, "1");   // and so is Alt+F4
    SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
    allow_late_wakeups();
    if (SDL_Init(SDL_INIT_VIDEO) != 0 || TTF_Init() != 0) {
      *error = SDL_GetError();
      return false;
    }
    if (!std::getenv("SDL_VIDEODRIVER") && draws_for_nobody(SDL_GetCurrentVideoDriver())) {
      *error = "no desktop answers";
      return false;
    }
    SDL_StopTextInput();  // keys go out as keys: no input method may keep any
    return true;
  }
  ~Sdl() {
    if (TTF_WasInit() != 0) TTF_Quit();
    SDL_Quit();
  }
};

ViewRequest view_request(const Arguments& args, const std::string& host_name) {
  ViewRequest request;
  request.host = host_name;
  request.screens = args.view.screens;
  request.release_key = *release_key_by_name(args.view.release_key);
  request.relative = args.view.relative;
  request.full_screen = args.view.full_screen;
  request.grab = !args.view.no_grab;
  request.seconds = args.view.seconds;
  request.snapshot = args.view.snapshot;
  request.stop = args.stop;
  return request;
}

SessionRequest session_request(const Arguments& args, bool sound, HostClipboard* clipboard) {
  SessionRequest request;
  for (int screen = 0; screen < args.view.screens; ++screen) {
    lund_hello hello = make_hello(args);
    hello.screen = static_cast<std::uint8_t>(screen);
    hello.audio = screen == 0 && sound;
    request.screens.push_back(hello);
  }
  request.reconnect = true;
  request.clipboard = clipboard;
  return request;
}

}  // namespace

int run_view(const Arguments& args) {
  std::string error;
  Sdl sdl;
  if (!sdl.start(&error))
    return fail(EXIT_LOCAL, "no window can be opened (" + error + "): " + DESKTOP_HINT +
                                " \"connect\" needs none");
  HostAccess access;
  if (const ExitStatus status = access.open(args, &error); status != EXIT_OK)
    return fail(status, error);

  SoundOutput sound;
  if (!args.view.no_sound && !sound.open(&error))
    std::fprintf(stderr, "no sound device (%s): going on without sound\n", error.c_str());
  DesktopClipboard clipboard;
  const bool shares = !args.view.no_clipboard && clipboard.start();
  if (!args.view.no_clipboard && !shares)
    std::fputs("no clipboard can be reached: going on without\n", stderr);
  std::fflush(stderr);
  Viewer viewer(view_request(args, access.host().name[0] ? access.host().name : args.host), sound);
  if (!viewer.open(&error)) return fail(EXIT_LOCAL, "no window can be opened: " + error);
  if (shares) viewer.switch_clipboard = [&clipboard](bool on) { clipboard.set_enabled(on); };
  HostSession session(access.link(),
                      session_request(args, sound.is_open(), shares ? &clipboard : nullptr),
                      viewer.inbox());
  std::string ended;
  const SessionEnd end = viewer.run(session, &ended);
  sound.close();
  int status = exit_status(end);
  if (!args.view.report.empty() && !write_json(args.view.report, viewer.report(session), &error))
    status = fail(EXIT_LOCAL, error);
  if (!access.remember(session, &error)) status = fail(EXIT_LOCAL, error);
  return status;
}

}  // namespace client_app
