#include "apps/client/view/view_inbox.h"

#include <utility>

#include "connection/clock.h"

ViewInbox::ViewInbox(int screens, std::function<void(const SoundBlock&)> sound,
                     std::function<void()> wake)
    : sound_(std::move(sound)), wake_(std::move(wake)) {
  for (int i = 0; i < screens; ++i) screens_.push_back(std::make_unique<Screen>());
}

void ViewInbox::wake() {
  if (!woken_.exchange(true)) wake_();
}

SessionNews ViewInbox::take_session() {
  std::lock_guard lock(mutex_);
  SessionNews news = session_;
  session_.notices.clear();
  return news;
}

ScreenNews ViewInbox::take_screen(int screen) {
  std::lock_guard lock(mutex_);
  ScreenNews& kept = at(screen).news;
  ScreenNews news;
  news.state = kept.state;
  news.text = kept.text;
  news.granted = std::exchange(kept.granted, std::nullopt);
  news.pointer = std::exchange(kept.pointer, std::nullopt);
  news.images = std::exchange(kept.images, {});
  news.second = std::exchange(kept.second, std::nullopt);
  return news;
}

void ViewInbox::picture(int screen, const DecodedPicture& picture, const FrameTimes& times) {
  if (at(screen).picture.offer(picture, times, lund_now_us())) wake();
}

void ViewInbox::state(SessionState state, const std::string& text) {
  {
    std::lock_guard lock(mutex_);
    session_.state = state;
    session_.text = text;
  }
  wake();
}

void ViewInbox::screen_state(int screen, ScreenState state, const std::string& text) {
  {
    std::lock_guard lock(mutex_);
    at(screen).news.state = state;
    at(screen).news.text = text;
  }
  wake();
}

void ViewInbox::granted(int screen, const lund_hello_ack& stream) {
  {
    std::lock_guard lock(mutex_);
    at(screen).news.granted = stream;
  }
  wake();
}

void ViewInbox::pointer(int screen, const PointerPosition& position) {
  {
    std::lock_guard lock(mutex_);
    at(screen).news.pointer = position;
  }
  wake();
}

void ViewInbox::pointer_image(int screen, const PointerImage& image) {
  {
    std::lock_guard lock(mutex_);
    at(screen).news.images.push_back(image);
  }
  wake();
}

void ViewInbox::second(int screen, const StreamStatistics::Second& second) {
  std::lock_guard lock(mutex_);
  at(screen).news.second = second;
}

void ViewInbox::path(const std::string& where) {
  std::lock_guard lock(mutex_);
  session_.path = where;
}

void ViewInbox::notice(const std::string& line) {
  {
    std::lock_guard lock(mutex_);
    session_.notices.push_back(line);
  }
  wake();
}
