// What the user does.
#include <algorithm>

#include "apps/client/view/keys.h"
#include "apps/client/view/viewer.h"
#include "connection/clock.h"

namespace {

constexpr double WHEEL_NOTCH = 120;

// SDL counts left, middle, right; hosts left, right, middle.
int host_button(Uint8 button) {
  switch (button) {
    case SDL_BUTTON_LEFT:
      return 1;
    case SDL_BUTTON_RIGHT:
      return 2;
    case SDL_BUTTON_MIDDLE:
      return 3;
    case SDL_BUTTON_X1:
      return 4;
    case SDL_BUTTON_X2:
      return 5;
    default:
      return 0;
  }
}

}  // namespace

Viewer::Screen* Viewer::screen_of(Uint32 window) {
  for (const auto& screen : screens_)
    if (screen->window->id() == window) return screen.get();
  return nullptr;
}

void Viewer::handle(const SDL_Event& event) {
  switch (event.type) {
    case SDL_QUIT:
      leaving_ = true;
      return;
    case SDL_WINDOWEVENT:
      return on_window(event.window);
    case SDL_KEYDOWN:
    case SDL_KEYUP:
      return on_key(event.key);
    case SDL_MOUSEMOTION:
      return on_motion(event.motion);
    case SDL_MOUSEBUTTONDOWN:
    case SDL_MOUSEBUTTONUP:
      return on_button(event.button);
    case SDL_MOUSEWHEEL:
      return on_wheel(event.wheel);
    default:
      return;
  }
}

void Viewer::on_window(const SDL_WindowEvent& event) {
  Screen* screen = screen_of(event.windowID);
  if (!screen) return;
  switch (event.event) {
    case SDL_WINDOWEVENT_CLOSE:
      return close(*screen);
    case SDL_WINDOWEVENT_EXPOSED:
    case SDL_WINDOWEVENT_SIZE_CHANGED:
      screen->exposed = true;
      return;
    case SDL_WINDOWEVENT_LEAVE:
      screen->view.mouse_over = false;
      return;
    case SDL_WINDOWEVENT_FOCUS_GAINED:
      focused_ = screen;
      update_grabs();
      return;
    case SDL_WINDOWEVENT_FOCUS_LOST:
      lose_focus(*screen);
      return;
    default:
      return;
  }
}

// The main screen's window closes all, as the end of its stream would.
void Viewer::close(Screen& screen) {
  if (screen.number == 0) {
    leaving_ = true;
    return;
  }
  lose_focus(screen);
  screen.closed = true;
  session_->close_screen(screen.number);
  SDL_HideWindow(screen.window->window());
}

void Viewer::lose_focus(Screen& screen) {
  if (focused_ != &screen) return;
  focused_ = nullptr;
  keys_.focus_lost();
  buttons_ = 0;
  input(screen).release_all();
  update_grabs();
}

// Brings the grabs, and what goes with them, to what focus and user want.
void Viewer::update_grabs() {
  const bool streaming = shared_.session == SessionState::Streaming;
  for (const auto& screen : screens_) {
    const bool wanted = request_.grab && !free_ && streaming && focused_ == screen.get();
    SDL_Window* window = screen->window->window();
    if ((SDL_GetWindowKeyboardGrab(window) == SDL_TRUE) != wanted)
      SDL_SetWindowKeyboardGrab(window, wanted ? SDL_TRUE : SDL_FALSE);
  }
  alt_gr_.want(focused_ != nullptr);
  const bool capture = relative_ && !free_ && streaming && focused_;
  if (capture == shared_.relative) return;
  if (SDL_SetRelativeMouseMode(capture ? SDL_TRUE : SDL_FALSE) != 0 && capture) {
    relative_ = false;
    return note(std::string("this desktop has no relative mouse: ") + SDL_GetError());
  }
  shared_.relative = capture;
  motion_x_.clear();
  motion_y_.clear();
}

void Viewer::set_free(bool free) {
  if (free_ == free) return;
  free_ = free;
  if (free) note("mouse and keyboard are free: click into the picture to take them again");
  update_grabs();
}

void Viewer::on_key(const SDL_KeyboardEvent& event) {
  Screen* screen = screen_of(event.windowID);
  if (!screen) return;
  const bool down = event.state == SDL_PRESSED;
  const std::uint16_t usage = usage_of_scancode(event.keysym.scancode);
  const KeyVerdict verdict = keys_.key(usage, down);
  if (verdict.forward) input(*screen).key(usage, down);
  on_command(verdict.command);
}

void Viewer::point_at(Screen& screen, int x, int y) {
  const ViewPoint pixel = screen.window->pixel_of(x, y);
  const ViewSize picture = screen.view.picture;
  const ViewRect shown = letterbox(screen.window->size(), picture);
  screen.view.mouse_over = to_picture(shown, picture, pixel.x, pixel.y, false).has_value();
  const auto point = to_picture(shown, picture, pixel.x, pixel.y, buttons_ != 0);
  if (!point) return;
  input(screen).position(point->x, point->y);
  screen.view.pointer.sent(*point, lund_now_us());
}

void Viewer::on_motion(const SDL_MouseMotionEvent& event) {
  Screen* screen = screen_of(event.windowID);
  if (!screen) return;
  if (!shared_.relative) return point_at(*screen, event.x, event.y);
  const ViewRect shown = letterbox(screen->window->size(), screen->view.picture);
  const double scale = screen->window->pixels_per_unit() / view_scale(shown, screen->view.picture);
  const std::int32_t dx = motion_x_.take(event.xrel * scale);
  const std::int32_t dy = motion_y_.take(event.yrel * scale);
  if (dx != 0 || dy != 0) input(*screen).motion(dx, dy);
}

void Viewer::on_button(const SDL_MouseButtonEvent& event) {
  Screen* screen = screen_of(event.windowID);
  const int button = host_button(event.button);
  if (!screen || button == 0) return;
  const Uint32 bit = 1U << button;
  if (event.state == SDL_RELEASED) {
    if ((buttons_ & bit) == 0) return;  // its press wasn't sent
    if (!shared_.relative) point_at(*screen, event.x, event.y);
    buttons_ &= ~bit;
    input(*screen).button(button, false);
    return;
  }
  if (free_) {
    set_free(false);
    // A click that takes a captured mouse back means no place on the host.
    if (relative_) return;
  }
  if (!shared_.relative) {
    point_at(*screen, event.x, event.y);
    if (!screen->view.mouse_over && buttons_ == 0) return;
  }
  buttons_ |= bit;
  input(*screen).button(button, true);
}

void Viewer::on_wheel(const SDL_MouseWheelEvent& event) {
  Screen* screen = screen_of(event.windowID);
  if (!screen || (!shared_.relative && !screen->view.mouse_over)) return;
  const std::int32_t across = wheel_x_.take(static_cast<double>(event.preciseX) * WHEEL_NOTCH);
  const std::int32_t along = wheel_y_.take(static_cast<double>(event.preciseY) * WHEEL_NOTCH);
  if (across != 0 || along != 0) input(*screen).wheel(across, along);
}

void Viewer::send_secure_attention() {
  if (!focused_) return;
  constexpr std::uint16_t CHORD[] = {USAGE_LEFT_CTRL, USAGE_LEFT_ALT, USAGE_DELETE};
  InputSender& sender = input(*focused_);
  for (const std::uint16_t usage : CHORD) sender.key(usage, true);
  for (auto usage = std::rbegin(CHORD); usage != std::rend(CHORD); ++usage)
    sender.key(*usage, false);
  note("Ctrl+Alt+Delete sent");
}

void Viewer::on_command(ViewCommand command) {
  switch (command) {
    case ViewCommand::Statistics:
      shared_.statistics = !shared_.statistics;
      return;
    case ViewCommand::FullScreen:
      if (focused_) focused_->window->toggle_full_screen();
      return;
    case ViewCommand::RelativeMouse:
      relative_ = !relative_;
      free_ = false;
      note(relative_ ? "relative mouse" : "absolute mouse");
      return update_grabs();
    case ViewCommand::Sound:
      if (!sound_.is_open()) return note("this computer has no sound device");
      sound_on_ = !sound_on_;
      sound_.set_on(sound_on_);
      session_->want_sound(sound_on_);
      return note(sound_on_ ? "sound on" : "sound off");
    case ViewCommand::Clipboard:
      if (!switch_clipboard) return note("there is no clipboard to share");
      clipboard_on_ = !clipboard_on_;
      switch_clipboard(clipboard_on_);
      return note(clipboard_on_ ? "clipboard shared" : "clipboard not shared");
    case ViewCommand::Quit:
      leaving_ = true;
      return;
    case ViewCommand::Help:
      shared_.help = !shared_.help;
      return;
    case ViewCommand::SecureAttention:
      return send_secure_attention();
    case ViewCommand::None:
      return;
    case ViewCommand::LetGo:
      return set_free(!free_);
  }
}
