// The windows on a host's screens: shows what the session brings and sends what the user does. One
// thread, the one that SDL's video was started on; the session runs on a thread of its own while
// `run` does.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps/client/host_session.h"
#include "apps/client/view/alt_gr.h"
#include "apps/client/view/carry.h"
#include "apps/client/view/overlay_font.h"
#include "apps/client/view/release_key.h"
#include "apps/client/view/scene.h"
#include "apps/client/view/screen_window.h"
#include "apps/client/view/sound_output.h"
#include "apps/client/view/view_inbox.h"
#include "apps/client/view/view_statistics.h"

struct ViewRequest {
  std::string host;  // its name, for titles and texts
  int screens = 1;
  std::uint16_t release_key = USAGE_RIGHT_CTRL;
  bool relative = false;
  bool full_screen = false;
  bool grab = true;    // the keyboard, so that Alt+Tab and the like go to the host
  double seconds = 0;  // from the first picture, or from a final refusal; 0: until closed
  std::filesystem::path snapshot;
  const std::atomic<bool>* stop = nullptr;
};

class Viewer {
 public:
  // The session is made from the sinks that `inbox` is. `sound` may be closed.
  Viewer(const ViewRequest& request, SoundOutput& sound);
  ~Viewer();
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  // Opens the windows. False with `error`.
  bool open(std::string* error);
  ViewInbox& inbox() { return *inbox_; }
  std::function<void(bool)> switch_clipboard;  // none: there is no clipboard

  // Runs the session to its end and the windows until they are closed. `text` says in words how
  // the session ended when it isn't Done.
  SessionEnd run(HostSession& session, std::string* text);

  // After run.
  nlohmann::json report(HostSession& session);

 private:
  struct Screen {
    int number = 0;
    std::unique_ptr<ScreenWindow> window;
    ScreenView view;
    ViewStatistics statistics;
    lund_hello_ack stream;
    StreamStatistics::Second second;
    bool fitted = false;
    bool exposed = false;
    bool closed = false;  // by the user, while the main screen goes on
  };

  // viewer.cpp
  void take_news();
  void take_news_of(Screen& screen);
  void show(Screen& screen);
  void show_cursor();
  void finish_second(std::uint64_t now_us);
  OverlayFigures figures_of(Screen& screen, const ViewStatistics::Second& second);
  int wait_ms(std::uint64_t now_us) const;
  bool time_is_over(std::uint64_t now_us) const;
  void note(const std::string& text);
  bool take_snapshots();

  // viewer_input.cpp
  void handle(const SDL_Event& event);
  void on_window(const SDL_WindowEvent& event);
  void on_key(const SDL_KeyboardEvent& event);
  void on_motion(const SDL_MouseMotionEvent& event);
  void on_button(const SDL_MouseButtonEvent& event);
  void on_wheel(const SDL_MouseWheelEvent& event);
  void on_command(ViewCommand command);
  void point_at(Screen& screen, int x, int y);
  void send_secure_attention();
  void lose_focus(Screen& screen);
  void close(Screen& screen);
  void update_grabs();
  void set_free(bool free);
  Screen* screen_of(Uint32 window);
  InputSender& input(const Screen& screen) { return session_->input(screen.number); }

  ViewRequest request_;
  SoundOutput& sound_;
  Uint32 wake_event_ = 0;
  OverlayFont font_;
  std::unique_ptr<ViewInbox> inbox_;
  SharedView shared_;
  std::vector<std::unique_ptr<Screen>> screens_;
  HostSession* session_ = nullptr;
  std::string path_;
  bool leaving_ = false;
  std::uint64_t second_us_ = 0;        // when the running second began
  std::uint64_t counted_from_us_ = 0;  // what `seconds` counts from; 0: not yet
  SoundOutput::Figures sound_figures_;

  ReleaseKey keys_;
  AltGrFilter alt_gr_;
  Screen* focused_ = nullptr;
  bool free_ = false;  // the user has let go of mouse and keyboard
  bool relative_ = false;
  bool sound_on_ = true;
  bool clipboard_on_ = true;
  Uint32 buttons_ = 0;  // that are down at the host, bit n for button n
  Carry motion_x_, motion_y_, wheel_x_, wheel_y_;
};
