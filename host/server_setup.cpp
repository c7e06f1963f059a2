// From a queued HELLO to a running session, on the setup thread; and the end of sessions, on any.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "connection/clock.h"
#include "control/log.h"
#include "host/server.h"

// The display that a screen is to stream, and what was known when it was chosen.
struct HostServer::ChosenDisplay {
  DisplayInfo display;
  bool is_virtual = false;
  bool usable = false;  // virtual displays can be had
};

void HostServer::start_session(const JobPtr& job) {
  const std::uint64_t since_us = lund_now_us();
  lund_hello hello;
  if (lund_decode_hello(job->hello.data(), job->hello.size(), &hello) != 0) return;

  ChosenDisplay chosen;
  if (!choose_display(*job, hello, &chosen)) return;
  if (!check_in(*job, chosen)) return;
  const SessionPtr session = make_session(*job, hello, chosen);
  if (!open_capture(*job, *session)) return;
  if (!go_live(job, session)) return;

  const StreamValues stream = session->stream();
  send_ack(job->session, LUND_HELLO_ACCEPTED, &stream);
  if (job->screen == 0) start_clipboard(*session);
  log_started(*job, hello, *session, since_us);
  session->start();
  status_changed();
}

void HostServer::start_clipboard(const ScreenSession& session) {
  const std::uint32_t id = session.setup.session;
  clipboard_->session_start(
      id, session.setup.stream.payload, [this, id](const std::uint8_t* bytes, std::uint64_t size) {
        return send_sealed(id, bytes, static_cast<std::size_t>(size), nullptr);
      });
  // The client may have said BYE already, and the end of the session may have come before this.
  if (session.ended) clipboard_->session_end(id);
}

// ---- The display

bool HostServer::choose_display(const SetupJob& job, const lund_hello& hello,
                                ChosenDisplay* chosen) {
  const std::vector<DisplayInfo> displays =
      platform_.list_displays ? platform_.list_displays() : std::vector<DisplayInfo>();
  const std::vector<MonitorEntry> entries = to_monitor_entries(displays);
  const int mode = virtual_displays_->enabled;
  chosen->usable = mode != VIRTUAL_DISPLAY_OFF && virtual_displays_->usable();
  const int monitor = monitor_for_screen(entries, wanted_display_, job.screen);
  const DisplayPlan plan = plan_display(mode, chosen->usable, hello, monitor >= 0);

  std::string error;
  if (plan == DisplayPlan::Virtual) {
    const int main = pick_main_monitor(entries, wanted_display_);
    const DisplayRequest request =
        virtual_display_request(hello, options_, displays, main, virtual_right_edges());
    if (virtual_displays_->acquire(job.screen, request.width, request.height, request.fps,
                                   job.screen == 0 ? nullptr : &request.place, &chosen->display,
                                   &error)) {
      chosen->is_virtual = true;
      return true;
    }
    if (monitor >= 0)
      hlog("screen %d: virtual display unavailable (%s); streaming a physical monitor", job.screen,
           error.c_str());
  }
  if (plan != DisplayPlan::None && monitor >= 0) {
    chosen->display = displays[static_cast<std::size_t>(monitor)];
    return true;
  }
  if (displays.empty() && platform_.display_obstacle) {
    const std::string obstacle = platform_.display_obstacle();
    if (!obstacle.empty()) hlog("screen %d: %s", job.screen, obstacle.c_str());
  }
  if (error.empty()) error = no_display_message(job.screen, entries, mode, chosen->usable);
  reject(job.session, job.screen, job.who(), error, false);
  return false;
}

std::vector<int> HostServer::virtual_right_edges() {
  std::vector<int> edges;
  for (const SessionPtr& session : sessions())
    if (session->setup.virtual_lease) edges.push_back(session->setup.display.right);
  return edges;
}

// False when the setup has been cancelled while a display was looked for.
bool HostServer::check_in(const SetupJob& job, const ChosenDisplay& chosen) {
  {
    std::scoped_lock lock(sessions_mutex_);
    if (!job.cancelled && !stopping_) {
      if (job.screen == 0) display_ = chosen.display;
      return true;
    }
  }
  if (chosen.is_virtual) virtual_displays_->release(job.screen);
  return false;
}

// ---- The session

HostServer::SessionPtr HostServer::make_session(const SetupJob& job, const lund_hello& hello,
                                                const ChosenDisplay& chosen) {
  lund_session_info info;
  const bool known = lund_host_session_info_get(host_, job.session, &info) == 0;
  std::unique_ptr<AudioCapture> audio;
  if (job.screen == 0 && options_.audio && platform_.make_audio) audio = platform_.make_audio();

  SessionSetup setup;
  setup.session = job.session;
  setup.screen = job.screen;
  setup.client = job.client;
  setup.name = job.name;
  setup.code = job.code;
  setup.path_label = job.path_label;
  setup.stream = choose_stream(hello, options_, chosen.display, known ? info.path : job.path);
  setup.hello = job.hello;
  setup.display = chosen.display;
  setup.virtual_lease = chosen.is_virtual;
  setup.audio_allowed = audio != nullptr;
  setup.audio_requested = setup.audio_allowed && hello.audio != 0;
  if (hello.display_mode == 1 && !chosen.is_virtual)
    hlog("screen %d: client asked for a virtual display; streaming the physical monitor (%s)",
         job.screen, physical_instead_reason(virtual_displays_->enabled, chosen.usable));
  return std::make_shared<ScreenSession>(
      *this, std::move(setup), platform_.make_capture ? platform_.make_capture() : nullptr,
      std::move(audio));
}

bool HostServer::open_capture(const SetupJob& job, ScreenSession& session) {
  const bool opened = session.init_capture(options_.encoder);
  if (!opened)
    hlog("screen %d: capture/encoder initialization failed; rejecting session", job.screen);
  const std::string encoder = session.capture ? session.capture->encoder_name() : std::string();
  const bool crowded = encoder.find("nvenc") != encoder.npos && count_encoder(encoder) >= 1;
  const bool nvidia = session.setup.display.name.find("NVIDIA") != std::string::npos;
  if (!opened && nvidia)
    hlog(
        "screen %d: no encoder opened. GeForce GPUs allow a limited number of concurrent NVENC "
        "sessions (8 on current drivers, 3-5 on older ones); Parsec, OBS, ShadowPlay and Discord "
        "count too",
        job.screen);
  else if (crowded)
    hlog(
        "screen %d: %d concurrent %s sessions now (GeForce limit: 8 on current drivers, 3-5 on "
        "older ones, shared with other apps)",
        job.screen, count_encoder(encoder) + 1, encoder.c_str());
  if (!opened) refuse_capture(job, session);
  return opened;
}

int HostServer::count_encoder(const std::string& encoder) {
  int count = 0;
  for (const SessionPtr& session : sessions())
    if (session->capture->encoder_name() == encoder) ++count;
  return count;
}

// The client sees a stream that can't be had as a connection that ends.
void HostServer::refuse_capture(const SetupJob& job, const ScreenSession& session) {
  release_lease(session);
  bool wanted = false;
  {
    std::scoped_lock lock(sessions_mutex_);
    wanted = !job.cancelled && !stopping_;
  }
  if (wanted) {
    const lund_packet_header bye{LUND_PKT_BYE, 0, job.session};
    std::uint8_t packet[LUND_HEADER_SIZE];
    send_sealed(job.session, packet, lund_encode_header(packet, sizeof packet, &bye), nullptr);
    lund_host_session_close(host_, job.session);
  }
  hlog("screen %d: session rejected: no working capture/encoder", job.screen);
}

// False when the setup was cancelled, or another client got in since the HELLO was judged.
bool HostServer::go_live(const JobPtr& job, const SessionPtr& session) {
  {
    std::scoped_lock lock(sessions_mutex_);
    const bool foreign = std::ranges::any_of(sessions_list_, [&](const SessionPtr& other) {
      return other->setup.client != job->client;
    });
    if (!job->cancelled && !stopping_ && !foreign) {
      // A capture that took long to open is no silence of the client's.
      session->last_heard_us = lund_now_us();
      if (session->setup.screen == 0 && audio_pref_ >= 0 && audio_owner_ == job->client)
        session->audio_on = session->setup.audio_allowed && audio_pref_ == 1;
      sessions_list_.push_back(session);
      std::erase(jobs_, job);
      take_qos_locked(*session);
      return true;
    }
    if (foreign) send_ack(job->session, LUND_HELLO_BUSY, nullptr);
  }
  release_lease(*session);
  return false;
}

// One peer at a time has its traffic marked: a main screen's, or that of a client's only one.
void HostServer::take_qos_locked(const ScreenSession& session) {
  if (qos_session_ != 0) return;
  if (session.setup.screen != 0 && sessions_list_.size() != 1) return;
  lund_session_info info;
  if (lund_host_session_info_get(host_, session.setup.session, &info) != 0) return;
  if (info.peer.family != 4) return;
  qos_session_ = session.setup.session;
  socket_.qos_set_peer(info.peer);
}

void HostServer::log_started(const SetupJob& job, const lund_hello& hello,
                             const ScreenSession& session, std::uint64_t since_us) const {
  const SessionSetup& setup = session.setup;
  const StreamValues& stream = setup.stream;
  const DisplayInfo& display = setup.display;
  char line[160];
  std::snprintf(
      line, sizeof line, "%s %dx%d@%d %d kbps, datagram %d (payload %d), FEC %d%%, audio %s",
      stream.hevc ? "HEVC" : "H.264", stream.width, stream.height, stream.fps, stream.bitrate_kbps,
      stream.datagram, stream.payload, stream.fec_percent, setup.audio_requested ? "on" : "off");
  hlog(
      "%ssession %08x started: %s via %s, %s, encoder %s (%s %s %dx%d@%dHz, client max %ux%u@%u "
      "mode %u, setup %.0f ms)",
      session.tag().c_str(), setup.session, job.who().c_str(), setup.path_label.c_str(), line,
      session.capture->encoder_name().c_str(), setup.virtual_lease ? "virtual display" : "display",
      display.device.c_str(), display.width, display.height, display.refresh_hz, hello.width,
      hello.height, hello.fps, hello.display_mode,
      static_cast<double>(lund_now_us() - since_us) / 1e3);
}

void HostServer::release_lease(const ScreenSession& session) {
  if (session.setup.virtual_lease) virtual_displays_->release(session.setup.screen);
}

// ---- The end

void HostServer::end_session(const SessionPtr& session, const char* reason, bool notify,
                             bool whole_client, bool close_link) {
  std::vector<SessionPtr> ended;
  bool clear_qos = false;
  {
    std::scoped_lock lock(sessions_mutex_);
    ended = take_out_locked(session, whole_client);
    if (ended.empty()) return;
    for (const SessionPtr& gone : ended)
      if (gone->setup.session == qos_session_) clear_qos = true;
    if (clear_qos) qos_session_ = 0;
  }
  tear_down(*ended.front(), reason, notify, close_link);
  for (std::size_t i = 1; i < ended.size(); ++i) tear_down(*ended[i], "screen 0 ended", true, true);
  injector_.release_all();
  if (clear_qos) socket_.qos_clear();
  status_changed();
}

// Takes the session off the list, with all else of its client when it is its main screen. Empty
// when somebody else has ended it: of several threads that race, this makes one the winner.
std::vector<HostServer::SessionPtr> HostServer::take_out_locked(const SessionPtr& session,
                                                                bool whole_client) {
  std::vector<SessionPtr> ended;
  if (std::erase(sessions_list_, session) == 0) return ended;
  ended.push_back(session);
  const std::string& client = session->setup.client;
  if (!whole_client || session->setup.screen != 0) return ended;
  if (client == audio_owner_) audio_pref_ = -1;
  std::erase_if(sessions_list_, [&](const SessionPtr& other) {
    if (other->setup.client != client) return false;
    ended.push_back(other);
    return true;
  });
  std::erase_if(jobs_, [&](const JobPtr& job) {
    if (job->client != client) return false;
    job->cancelled = true;
    return true;
  });
  return ended;
}

void HostServer::tear_down(ScreenSession& session, const char* reason, bool notify,
                           bool close_link) {
  const SessionSetup& setup = session.setup;
  if (notify) session.send_bye();
  session.stop();
  release_lease(session);
  if (setup.screen == 0) clipboard_->session_end(setup.session);
  if (host_ && close_link) lund_host_session_close(host_, setup.session);
  hlog("%ssession %08x ended (%s): %s, %s", session.tag().c_str(), setup.session, reason,
       client_text(setup.name, setup.code).c_str(), session.summary().c_str());
}
