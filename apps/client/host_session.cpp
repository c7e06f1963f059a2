#include "apps/client/host_session.h"

#include <algorithm>
#include <cassert>
#include <cstdio>

#include "connection/byte_order.h"
#include "connection/clock.h"
#include "connection/noise.h"

namespace {

constexpr std::uint64_t CONNECT_TIMEOUT_US = 10'000'000;
// A host that ends each new stream at once isn't asked more often than this.
constexpr std::uint64_t RECONNECT_PERIOD_US = 1'000'000;
// A wish for sound isn't acknowledged. It shows in what comes: silence is packets too. A host that
// was told so often has no sound to send.
constexpr std::uint64_t SOUND_REPEAT_US = 1'000'000;
constexpr int SOUND_TELLINGS = 3;
constexpr std::uint64_t SOUND_GONE_US = 500'000;

bool wants_sound(const SessionRequest& request) {
  return request.screens.front().screen == 0 && request.screens.front().audio != 0;
}

}  // namespace

HostSession::HostSession(HostLink& link, const SessionRequest& request, SessionSinks& sinks)
    : link_(link),
      sinks_(sinks),
      reconnect_(request.reconnect),
      clipboard_(request.screens.front().screen == 0 ? request.clipboard : nullptr),
      others_(request.screens.size()),
      wanted_sound_(wants_sound(request)),
      sound_([this](const SoundBlock& block) { sinks_.sound(block); }) {
  assert(request.screens.size() <= std::size_t{LUND_CLIENT_SESSIONS});
  assert(request.recordings.empty() || request.recordings.size() == request.screens.size());
  for (std::size_t i = 0; i < request.screens.size(); ++i)
    streams_.push_back(std::make_unique<ScreenStream>(
        link, sinks, request.screens[i],
        request.recordings.empty() ? std::filesystem::path() : request.recordings[i]));
}

HostSession::~HostSession() = default;

ScreenStream& HostSession::stream(int screen) {
  for (const auto& stream : streams_)
    if (stream->screen() == screen) return *stream;
  assert(false && "a screen that wasn't requested");
  return main();
}

double HostSession::seconds() const {
  return first_frame_us_ == 0 ? 0.0 : static_cast<double>(lund_now_us() - first_frame_us_) / 1e6;
}

void HostSession::end(SessionEnd how, std::string text) {
  if (!ending_) ending_ = StreamEnding{how, std::move(text)};
}

void HostSession::set_state(SessionState state, const std::string& text) {
  sinks_.state(state, text);
}

SessionEnd HostSession::run(std::string* text) {
  started_us_ = lund_now_us();
  set_state(SessionState::Connecting);
  connect(started_us_);
  link_.run(
      UINT64_MAX,
      [this](const std::uint8_t* p, std::size_t n, const PacketOrder& order) {
        on_packet(p, n, order);
      },
      [this](const lund_conn_event& e) { on_event(e); }, [this] { return step(); });
  // A lost BYE costs the host three seconds of streaming to nobody.
  for (int i = 0; i < 2; ++i)
    for (const auto& stream : streams_) stream->leave();
  forget_streams();
  for (const auto& stream : streams_) stream->finish();
  for (const auto& stream : streams_)
    if (stream->decoder().recording_failed())
      ending_ = {SessionEnd::LocalFailure, "the recording could not be written: is the disk full?"};
  *text = ending_->text;
  set_state(SessionState::Ended, ending_->text);
  return ending_->how;
}

// ---- Connecting

void HostSession::connect(std::uint64_t now) {
  attempt_us_ = now;
  if (lund_client_connect(link_.engine()) != 0)
    end(SessionEnd::LocalFailure, "the host's key is not known");
}

void HostSession::forget_streams() {
  if (clipboard_up_) clipboard_->session_end(main().session());
  clipboard_up_ = false;
  for (std::size_t i = 0; i < streams_.size(); ++i) {
    streams_[i]->forget();
    others_[i] = {false, 0, is_closed(*streams_[i])};
  }
  lund_client_session_close(link_.engine(), 0);
  obstacles_.clear();
}

bool HostSession::may_come_back() const {
  return reconnect_ && first_frame_us_ != 0 &&
         (ending_->how == SessionEnd::NoAnswer || ending_->how == SessionEnd::HostEnded);
}

void HostSession::break_off(std::uint64_t now) {
  if (broken_off_.empty()) {
    broken_off_ = ending_->text;
    broken_off_us_ = main().last_heard_us();
    sinks_.notice(ending_->text + ": connecting again");
    set_state(SessionState::BrokenOff, ending_->text);
  }
  ending_.reset();
  forget_streams();
  if (now - attempt_us_ >= RECONNECT_PERIOD_US)
    connect(now);
  else
    attempt_us_ = 0;
}

void HostSession::note_path(const lund_conn_event& event) {
  const double at_s = static_cast<double>(lund_now_us() - started_us_) / 1e6;
  const std::string line = paths_.begin(event, at_s, main().frame_counts());
  if (line.empty()) return;
  sinks_.path(paths_.where());
  sinks_.notice(line);
}

void HostSession::on_event(const lund_conn_event& event) {
  obstacles_.note(event, lund_now_us());
  if (event.type == LUND_EV_CLIENT_SESSION_UP) on_session_up(event);
  if (event.type != LUND_EV_PATH_CHANGED) return;
  note_path(event);
  if (clipboard_up_) clipboard_->resize(main().session(), static_cast<int>(main().payload()));
}

// The engine's sessions are all alike: the first is the main screen's, then whoever waits takes
// one.
void HostSession::on_session_up(const lund_conn_event& event) {
  const std::uint64_t now = lund_now_us();
  const bool loopback = event.addr.family == 4 && event.addr.address[0] == 127;
  if (main().session() == 0) {
    main().attach(event.session_id, loopback, wanted_sound_, now);
    return note_path(event);
  }
  for (std::size_t i = 1; i < streams_.size(); ++i) {
    if (!others_[i].opening) continue;
    others_[i].opening = false;
    if (others_[i].given_up) break;
    return streams_[i]->attach(event.session_id, loopback, false, now);
  }
  lund_client_session_close(link_.engine(), event.session_id);  // no longer wanted
}

void HostSession::step_connecting(std::uint64_t now) {
  if (attempt_us_ == 0) {
    // The pause after a host that answers and ends.
    if (now - main().last_heard_us() >= RECONNECT_PERIOD_US) connect(now);
    return;
  }
  const bool up = main().session() != 0;
  const auto rejection = up ? std::nullopt : obstacles_.rejected(now);
  if (rejection == LUND_REJECT_BUSY)
    end(SessionEnd::Busy, "the host is busy: another device is connected");
  else if (rejection)
    end(SessionEnd::UnknownDevice, "the host does not know this device: pair first");
  else if (now - attempt_us_ > CONNECT_TIMEOUT_US)
    end(SessionEnd::NoAnswer, up ? "the host did not answer the request for a stream"
                                 : obstacles_.why_unreached("no answer from the host"));
}

// ---- Streaming

void HostSession::on_packet(const std::uint8_t* packet, std::size_t size,
                            const PacketOrder& order) {
  const auto session = load_le<std::uint32_t>(packet + 4);
  const auto owner = std::find_if(streams_.begin(), streams_.end(),
                                  [&](const auto& stream) { return stream->session() == session; });
  if (owner == streams_.end()) return;
  ScreenStream& stream = **owner;
  const bool streamed = stream.streaming();
  stream.take(packet, size, order);
  if (&stream != &main()) return;
  if (!streamed) {
    if (stream.streaming()) on_granted();
    return;
  }
  switch (packet[2]) {
    case LUND_PKT_VIDEO_SHARD:
      if (stream.first_frame_us() != 0) note_first_frame(stream.first_frame_us());
      return;
    case LUND_PKT_AUDIO:
      last_sound_us_ = lund_now_us();
      if (const auto offset = stream.clock_offset_us(); offset && wanted_sound_)
        sound_.take(packet, size, *offset);
      return;
    case LUND_PKT_CLIPBOARD:
    case LUND_PKT_CLIPBOARD_ACK:
      if (clipboard_up_) clipboard_->receive(packet, size);
      return;
    default:
      return;
  }
}

void HostSession::on_granted() {
  set_state(SessionState::Streaming);
  sound_.begin();
  told_sound_ = wanted_sound_;
  told_sound_us_ = last_sound_us_ = lund_now_us();
  if (!clipboard_) return;
  const std::uint32_t session = main().session();
  clipboard_up_ = true;
  clipboard_->session_start(session, static_cast<int>(main().payload()),
                            [this, session](const std::uint8_t* bytes, std::uint64_t size) {
                              return link_.send(session, bytes, static_cast<std::size_t>(size));
                            });
}

void HostSession::note_first_frame(std::uint64_t now) {
  if (first_frame_us_ == 0) {
    first_frame_us_ = now;
    hello_to_first_frame_ms_ = static_cast<double>(now - main().first_hello_us()) / 1000;
  }
  if (broken_off_.empty()) return;
  const Reconnect back{static_cast<double>(now - started_us_) / 1e6,
                       static_cast<double>(now - broken_off_us_) / 1e3, broken_off_};
  reconnects_.push_back(back);
  broken_off_.clear();
  char line[64];
  std::snprintf(line, sizeof line, "back after %.1f s", back.gap_ms / 1000);
  sinks_.notice(line);
}

bool HostSession::step() {
  const std::uint64_t now = lund_now_us();
  if (!ending_ && main().ending()) ending_ = main().ending();
  if (ending_ && !may_come_back()) return true;
  if (stop_) {
    ending_ = {SessionEnd::Done, {}};
    return true;
  }
  if (ending_) break_off(now);
  if (sinks_.step(now)) {
    ending_ = {SessionEnd::Done, {}};
    return true;
  }
  if (!main().streaming()) step_connecting(now);
  std::uint64_t due_us = main().step(now);
  if (!ending_ && main().ending()) ending_ = main().ending();
  if (main().streaming()) {
    tell_sound(now);
    step_others(now);
    for (std::size_t i = 1; i < streams_.size(); ++i)
      due_us = std::min(due_us, streams_[i]->step(now));
  }
  link_.ask_within(due_us);
  return ending_ && !may_come_back();
}

void HostSession::tell_sound(std::uint64_t now) {
  if (!carries_sound()) return;
  const bool wanted = wanted_sound_;
  const bool heard = now - last_sound_us_ < SOUND_GONE_US;
  if (wanted == heard || wanted != told_sound_) sound_tellings_ = 0;
  if (wanted == told_sound_ && (wanted == heard || now - told_sound_us_ < SOUND_REPEAT_US)) return;
  if (sound_tellings_ >= SOUND_TELLINGS) return;
  ++sound_tellings_;
  told_sound_ = wanted;
  told_sound_us_ = now;
  std::uint8_t packet[16];
  const lund_packet_header header;
  link_.send(main().session(), packet,
             lund_encode_audio_control(packet, sizeof packet, &header, wanted));
}

// ---- Screens other than the main one

void HostSession::close_screen(int screen) {
  assert(screen != main().screen());
  closing_ |= 1U << static_cast<unsigned>(screen);
}

bool HostSession::is_closed(const ScreenStream& stream) const {
  return ((closing_ >> static_cast<unsigned>(stream.screen())) & 1U) != 0;
}

// The host's end of a session, or this one's, is the end of the engine's.
void HostSession::end_other(std::size_t index) {
  ScreenStream& stream = *streams_[index];
  const std::string text = stream.ending() ? stream.ending()->text : std::string();
  const std::uint32_t session = stream.session();
  stream.forget();
  if (session != 0) lund_client_session_close(link_.engine(), session);
  sinks_.screen_state(stream.screen(), ScreenState::Ended, text);
}

void HostSession::step_others(std::uint64_t now) {
  for (std::size_t i = 1; i < streams_.size(); ++i)
    if (!others_[i].given_up) step_other(i, now);
}

void HostSession::step_other(std::size_t index, std::uint64_t now) {
  ScreenStream& stream = *streams_[index];
  Other& other = others_[index];
  if (is_closed(stream)) {
    other.given_up = true;
    return end_other(index);
  }
  const bool asking = other.opening || (stream.session() != 0 && !stream.streaming());
  if (asking && now - other.attempt_us > CONNECT_TIMEOUT_US)
    stream.end(SessionEnd::NoAnswer, "the host did not answer the request for a stream");
  if (stream.ending()) {
    const SessionEnd how = stream.ending()->how;
    other.given_up = !reconnect_ || (how != SessionEnd::NoAnswer && how != SessionEnd::HostEnded);
    other.attempt_us = now;
    return end_other(index);
  }
  // A handshake that goes on stays the one that is waited for.
  if (stream.session() != 0 || other.opening || now - other.attempt_us < RECONNECT_PERIOD_US)
    return;
  if (lund_client_open_session(link_.engine()) != 0) return;  // none free yet
  other.opening = true;
  other.attempt_us = now;
  sinks_.screen_state(stream.screen(), ScreenState::Waiting, {});
}
