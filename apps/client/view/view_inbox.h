// What the session says, on its way to the windows' thread: the session's threads put in, the
// windows' thread takes out all at once, woken by one call however much there is. Pictures have a
// slot of their own each; of everything else the newest counts. One lock, never held during a
// conversion or a call out.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/client/session_sinks.h"
#include "apps/client/view/latest_picture.h"

struct SessionNews {
  SessionState state = SessionState::Connecting;
  std::string text;
  std::vector<std::string> notices;
  std::string path;  // the newest that was told
};

struct ScreenNews {
  ScreenState state = ScreenState::Waiting;
  std::string text;
  std::optional<lund_hello_ack> granted;  // anew
  std::optional<PointerPosition> pointer;
  std::vector<PointerImage> images;
  std::optional<StreamStatistics::Second> second;
};

class ViewInbox : public SessionSinks {
 public:
  // `sound` takes what is heard, on the network thread; `wake` may be called by any thread.
  ViewInbox(int screens, std::function<void(const SoundBlock&)> sound, std::function<void()> wake);

  // Windows' thread.
  SessionNews take_session();
  ScreenNews take_screen(int screen);
  LatestPicture& pictures(int screen) { return at(screen).picture; }
  void awake() { woken_ = false; }  // before taking

  void picture(int screen, const DecodedPicture& picture, const FrameTimes& times) override;
  void state(SessionState state, const std::string& text) override;
  void screen_state(int screen, ScreenState state, const std::string& text) override;
  void granted(int screen, const lund_hello_ack& stream) override;
  void pointer(int screen, const PointerPosition& position) override;
  void pointer_image(int screen, const PointerImage& image) override;
  void sound(const SoundBlock& block) override { sound_(block); }
  void second(int screen, const StreamStatistics::Second& second) override;
  void path(const std::string& where) override;
  void notice(const std::string& line) override;

 private:
  struct Screen {
    LatestPicture picture;
    ScreenNews news;
  };
  Screen& at(int screen) { return *screens_[static_cast<std::size_t>(screen)]; }
  void wake();

  const std::function<void(const SoundBlock&)> sound_;
  const std::function<void()> wake_;
  std::atomic<bool> woken_{false};
  std::mutex mutex_;
  SessionNews session_;
  std::vector<std::unique_ptr<Screen>> screens_;
};
