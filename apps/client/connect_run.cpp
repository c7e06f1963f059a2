#include "apps/client/connect_run.h"

#include "connection/clock.h"

SessionEnd ConnectRun::run(HostSession& session, std::string* text) {
  session_ = &session;
  const SessionEnd end = session.run(text);
  if (plan_.sound && !plan_.sound->finish(lund_now_us())) {
    *text = "the sound could not be written: is the disk full?";
    return SessionEnd::LocalFailure;
  }
  if (end != SessionEnd::Done) return end;
  if (!broken_off_.empty() && time_is_over()) {
    *text = broken_off_ + ", and did not come back";
    return SessionEnd::NoAnswer;
  }
  *text = script_.failure();
  return text->empty() ? SessionEnd::Done : SessionEnd::LocalFailure;
}

std::optional<ConnectRun::Pointer> ConnectRun::pointer() const {
  if (!pointer_) return std::nullopt;
  return Pointer{*pointer_, session_->main().cursor().find(pointer_->shape_id)};
}

void ConnectRun::say(const std::string& line) {
  std::fprintf(plan_.talk, "%s\n", line.c_str());
  std::fflush(plan_.talk);
}

// ---- What the session tells

void ConnectRun::state(SessionState state, const std::string& text) {
  streaming_ = state == SessionState::Streaming;
  if (state == SessionState::BrokenOff) {
    broken_off_ = text;
    script_.interrupt();
  }
  if (streaming_) broken_off_.clear();
}

void ConnectRun::screen_state(int screen, ScreenState state, const std::string& text) {
  if (state == ScreenState::Streaming) lost_screens_.erase(screen);
  if (state != ScreenState::Ended) return;
  lost_screens_[screen] = text;
  say("screen " + std::to_string(screen) + ": " + text);
}

void ConnectRun::pointer(int screen, const PointerPosition& position) {
  if (screen == session_->main().screen()) pointer_ = position;
}

void ConnectRun::sound(const SoundBlock& block) {
  if (plan_.sound) plan_.sound->put(block);
}

void ConnectRun::second(int screen, const StreamStatistics::Second& second) {
  const bool main = screen == session_->main().screen();
  say((main ? "" : "screen " + std::to_string(screen) + ": ") + second.line);
}

// ---- Time

bool ConnectRun::time_is_over() const {
  const double seconds = session_->seconds();
  return plan_.seconds > 0 && seconds > 0 && seconds >= plan_.seconds;
}

bool ConnectRun::step(std::uint64_t now_us) {
  if (plan_.stop && *plan_.stop) return true;
  const bool pictured = session_->first_frame_us() != 0;
  if (pictured && plan_.sound && !plan_.sound->begun())
    plan_.sound->begin(session_->first_frame_us());
  if (pictured && streaming_) step_script(now_us);
  step_clipboard(now_us);
  if (!script_.failure().empty()) return true;
  const bool waits =
      streaming_ && (!script_.done() || delivery_ == ClipboardTransfer::Delivery::Pending);
  return time_is_over() && !waits;
}

void ConnectRun::step_script(std::uint64_t now_us) {
  ScreenStream& screen = session_->main();
  const InputScript::View view{screen.granted().width, screen.granted().height,
                               pointer_.value_or(PointerPosition{}), pointer_.has_value()};
  script_.step(now_us, view, screen.input());
}

void ConnectRun::step_clipboard(std::uint64_t now_us) {
  if (!plan_.clipboard) return;
  using Delivery = ClipboardTransfer::Delivery;
  const Delivery delivery = plan_.clipboard->delivery(now_us);
  if (delivery != delivery_) {
    if (delivery == Delivery::Delivered) say("clipboard: delivered");
    if (delivery == Delivery::Rejected) say("clipboard: the host has rejected it");
    if (delivery == Delivery::GivenUp) say("clipboard: the host does not answer");
  }
  delivery_ = delivery;
  if (plan_.clipboard->items_received() == items_said_) return;
  items_said_ = plan_.clipboard->items_received();
  const ClipboardItem& item = *plan_.clipboard->received();
  say("clipboard: received " + std::to_string(item.bytes.size()) + " bytes of " +
      (item.kind == LUND_CLIP_PNG ? "PNG" : "text"));
}
