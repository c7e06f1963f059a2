#include "apps/client/view/viewer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <thread>

#include "apps/client/json_report.h"
#include "apps/client/view/keyboard_grab.h"
#include "apps/client/view/overlay.h"
#include "connection/clock.h"

namespace {

constexpr ViewSize FIRST_SIZE{1280, 720};  // before the stream's is known
constexpr int FONT_PIXELS = 15;
constexpr std::uint64_t SECOND_US = 1'000'000;
constexpr std::uint64_t HINT_US = 5 * SECOND_US;
constexpr std::uint64_t NOTE_US = 2 * SECOND_US;
constexpr std::uint64_t STOP_LOOK_US = 100'000;  // how often Ctrl+C is looked for
constexpr int CASCADE = 48;                      // window units between windows on one display

// Each on a display of its own while there are enough, else one beside the other.
void place(int index, WindowRequest* request) {
  if (index == 0) return;
  if (index < SDL_GetNumVideoDisplays()) {
    request->x = request->y = static_cast<int>(SDL_WINDOWPOS_CENTERED_DISPLAY(index));
  } else {
    request->x = request->y = index * CASCADE;
  }
}

}  // namespace

Viewer::Viewer(const ViewRequest& request, SoundOutput& sound)
    : request_(request),
      sound_(sound),
      wake_event_(SDL_RegisterEvents(1)),
      keys_(request.release_key),
      relative_(request.relative) {
  shared_.host = request.host;
  shared_.key_label = release_key_label(request.release_key);
  inbox_ = std::make_unique<ViewInbox>(
      request.screens, [this](const SoundBlock& block) { sound_.play(block); },
      [type = wake_event_] {
        SDL_Event event{};
        event.type = type;
        SDL_PushEvent(&event);
      });
}

Viewer::~Viewer() {
  screens_.clear();
  font_.font.reset();
}

bool Viewer::open(std::string* error) {
  std::string no_font;
  font_ = open_overlay_font(FONT_PIXELS, &no_font);
  if (!font_.font) std::fprintf(stderr, "no words over the picture: %s\n", no_font.c_str());
  for (int i = 0; i < request_.screens; ++i) {
    auto screen = std::make_unique<Screen>();
    screen->number = i;
    WindowRequest wanted;
    wanted.title = window_title(request_.host, i, request_.screens);
    wanted.size = FIRST_SIZE;
    wanted.full_screen = request_.full_screen;
    place(i, &wanted);
    screen->window = ScreenWindow::open(wanted, font_.font.get(), error);
    if (!screen->window) return false;
    screens_.push_back(std::move(screen));
  }
  // A desktop without a window manager gives a new window no focus.
  SDL_Window* first = screens_.front()->window->window();
  SDL_RaiseWindow(first);
  SDL_SetWindowInputFocus(first);
  return true;
}

void Viewer::note(const std::string& text) {
  shared_.note = text;
  shared_.note_until_us = lund_now_us() + NOTE_US;
}

SessionEnd Viewer::run(HostSession& session, std::string* text) {
  session_ = &session;
  SessionEnd end = SessionEnd::Done;
  std::thread network([&] {
    end = session.run(text);
    SDL_Event event{};
    event.type = wake_event_;
    SDL_PushEvent(&event);
  });
  second_us_ = lund_now_us();
  shared_.hint_until_us = second_us_ + HINT_US;
  while (!leaving_) {
    for (const auto& screen : screens_) show(*screen);
    show_cursor();
    SDL_Event event;
    if (SDL_WaitEventTimeout(&event, wait_ms(lund_now_us())) != 0) {
      do {
        if (event.type != wake_event_) handle(event);
      } while (SDL_PollEvent(&event) != 0);
    }
    take_news();
    const std::uint64_t now = lund_now_us();
    if (now >= second_us_ + SECOND_US) finish_second(now);
    if ((request_.stop && *request_.stop) || time_is_over(now)) leaving_ = true;
  }
  const bool snapped = take_snapshots();
  session.stop();
  network.join();
  finish_second(lund_now_us());
  if (!snapped) {
    std::fprintf(stderr, "cannot write %s\n", request_.snapshot.string().c_str());
    return SessionEnd::LocalFailure;
  }
  return end;
}

bool Viewer::time_is_over(std::uint64_t now_us) const {
  return request_.seconds > 0 && counted_from_us_ != 0 &&
         static_cast<double>(now_us - counted_from_us_) >= request_.seconds * 1e6;
}

int Viewer::wait_ms(std::uint64_t now_us) const {
  std::uint64_t until = std::min(now_us + STOP_LOOK_US, second_us_ + SECOND_US);
  for (const auto& screen : screens_)
    until = std::min(until, changes_at_us(shared_, screen->view, now_us));
  return until <= now_us ? 0 : static_cast<int>((until - now_us + 999) / 1000);
}

void Viewer::take_news() {
  inbox_->awake();
  const SessionNews news = inbox_->take_session();
  for (const std::string& line : news.notices) std::printf("%s\n", line.c_str());
  path_ = news.path;
  const bool changed = news.state != shared_.session || news.text != shared_.session_text;
  if (changed) {
    shared_.session = news.state;
    shared_.session_text = news.text;
    if (news.state == SessionState::BrokenOff)
      std::printf("%s: connecting again\n", news.text.c_str());
    if (news.state == SessionState::Ended && !news.text.empty())
      std::fprintf(stderr, "%s\n", news.text.c_str());
    if (news.state == SessionState::Ended && counted_from_us_ == 0)
      counted_from_us_ = lund_now_us();
    if (news.state == SessionState::Ended && news.text.empty()) leaving_ = true;
  }
  for (const auto& screen : screens_) take_news_of(*screen);
  std::fflush(stdout);
  std::fflush(stderr);
  if (changed) update_grabs();
}

void Viewer::take_news_of(Screen& screen) {
  ScreenNews news = inbox_->take_screen(screen.number);
  if (news.state == ScreenState::Ended && screen.view.state != ScreenState::Ended &&
      shared_.session == SessionState::Streaming && !screen.closed && !news.text.empty())
    std::fprintf(stderr, "screen %d: %s\n", screen.number, news.text.c_str());
  screen.view.state = news.state;
  screen.view.text = news.text;
  if (news.granted) {
    screen.stream = *news.granted;
    screen.view.pointer.forget();
    if (!screen.fitted) screen.window->fit({screen.stream.width, screen.stream.height});
    screen.fitted = true;
  }
  for (const PointerImage& image : news.images) screen.window->keep_pointer_image(image);
  if (news.pointer) screen.view.pointer.reported(*news.pointer);
  screen.view.image_known = screen.window->use_pointer_image(screen.view.pointer.shape());
  if (news.second) screen.second = *news.second;
}

void Viewer::show(Screen& screen) {
  if (screen.closed) return;
  const ShownPicture* picture = inbox_->pictures(screen.number).take();
  if (picture) {
    screen.window->set_picture(*picture);
    screen.view.picture = {picture->width, picture->height};
    screen.view.picture_serial = picture->serial;
    if (counted_from_us_ == 0) counted_from_us_ = lund_now_us();
  }
  screen.view.window = screen.window->size();
  const Scene scene = compose(shared_, screen.view, lund_now_us());
  if (screen.window->draw(scene, screen.exposed) && picture)
    screen.statistics.shown(picture->times,
                            static_cast<double>(lund_now_us() - picture->decoded_us));
  screen.exposed = false;
}

void Viewer::show_cursor() {
  SDL_Window* under = SDL_GetMouseFocus();
  Screen* screen = under ? screen_of(SDL_GetWindowID(under)) : nullptr;
  if (!screen) return;
  const Scene scene = compose(shared_, screen->view, lund_now_us());
  const bool visible = SDL_ShowCursor(SDL_QUERY) == SDL_ENABLE;
  if (visible != scene.own_pointer) SDL_ShowCursor(scene.own_pointer ? SDL_ENABLE : SDL_DISABLE);
  if (!scene.own_pointer) return;
  SDL_Cursor* cursor = nullptr;
  if (screen->view.mouse_over && scene.banner.empty())
    cursor = screen->window->cursor(view_scale(scene.shown, screen->view.picture));
  if (!cursor) cursor = SDL_GetDefaultCursor();
  if (SDL_GetCursor() != cursor) SDL_SetCursor(cursor);
}

OverlayFigures Viewer::figures_of(Screen& screen, const ViewStatistics::Second& second) {
  OverlayFigures figures;
  figures.stages = second.stages;
  figures.fps = second.fps;
  figures.mbps = screen.second.mbps;
  figures.rtt_ms = session_->rtt_us() / 1000;
  const double total = screen.second.received + screen.second.lost;
  figures.loss_percent = total > 0 ? 100.0 * screen.second.lost / total : 0;
  figures.path = path_;
  figures.sound = sound_.is_open() && sound_on_;
  figures.sound_ms = sound_figures_.buffered_ms;
  figures.sound_most_ms = sound_figures_.most_lately_ms;
  figures.stream = {screen.stream.width, screen.stream.height};
  figures.window = screen.window->size();
  figures.codec = codec_name(screen.stream.codec);
  return figures;
}

void Viewer::finish_second(std::uint64_t now_us) {
  const double lasted = static_cast<double>(now_us - second_us_) / 1e6;
  second_us_ = now_us;
  sound_figures_ = sound_.take_figures();
  for (const auto& screen : screens_) {
    const ViewStatistics::Second second = screen->statistics.finish_second(lasted);
    screen->view.statistics = statistics_lines(figures_of(*screen, second));
    renew_keyboard_grab(screen->window->window());
  }
  alt_gr_.want(focused_ != nullptr);
}

bool Viewer::take_snapshots() {
  if (request_.snapshot.empty()) return true;
  bool written = true;
  for (const auto& screen : screens_) {
    if (screen->closed) continue;
    std::filesystem::path path = request_.snapshot;
    if (screen->number > 0)
      path.replace_filename(path.stem().string() + "-" + std::to_string(screen->number) +
                            path.extension().string());
    show(*screen);
    written = write_png(path, screen->window->read_back()) && written;
  }
  return written;
}

nlohmann::json Viewer::report(HostSession& session) {
  nlohmann::json json;
  json["rtt_ms"] = rounded(session.rtt_us() / 1000);
  json["reconnects"] = session.reconnects().size();
  json["host"] = request_.host;
  json["path"] = path_;
  json["screens"] = nlohmann::json::array();
  for (const auto& screen : screens_) {
    const ViewSize window = screen->window->size();
    json["screens"].push_back({{"screen", screen->number},
                               {"codec", codec_name(screen->stream.codec)},
                               {"width", screen->stream.width},
                               {"height", screen->stream.height},
                               {"window", {window.width, window.height}},
                               {"pictures_shown", screen->statistics.pictures()},
                               {"pictures_replaced", inbox_->pictures(screen->number).replaced()},
                               {"latency_ms", screen->statistics.latency_report()}});
  }
  const SoundOutput::Figures sound = sound_.take_figures();
  json["sound"] = {{"device", sound_.was_open()},
                   {"buffered_ms", rounded(sound.buffered_ms)},
                   {"buffered_max_ms", rounded(sound.most_ms)},
                   {"played_ms", rounded(static_cast<double>(sound.playout.played_frames) * 1000 /
                                         PlayoutBuffer::RATE_HZ)},
                   {"underruns", sound.playout.underruns},
                   {"overruns", sound.playout.overruns},
                   {"frames_dropped", sound.playout.frames_dropped},
                   {"frames_merged", sound.playout.frames_merged},
                   {"frames_inserted", sound.playout.frames_inserted}};
  return json;
}
