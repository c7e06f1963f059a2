#include "apps/service/linux/login_sessions.h"

#include <utility>

namespace {

constexpr std::uint32_t CALM_MS = 60'000;  // logind reports what changes

std::string name_of(const LoginSession& session) {
  return "session " + session.id + " of " + session.user;
}

}  // namespace

std::optional<std::string> why_not_served(const std::optional<LoginSession>& session) {
  if (!session) return "no session is active";
  const std::string name = name_of(*session);
  if (session->type == "x11") return std::nullopt;
  if (session->type == "wayland")
    return name + " is a Wayland session, whose screen can't be captured: choose an X11 session " +
           "when logging in";
  if (session->type == "tty") return name + " is a text console";
  return name + " is of the unknown type \"" + session->type + "\"";
}

LoginSessions::LoginSessions(std::unique_ptr<LoginSeat> seat, FindEnvironment find, WakeEvent& wake)
    : seat_(std::move(seat)), find_(std::move(find)), wake_(wake) {
  view_ = look();
  thread_ = std::thread(&LoginSessions::run, this);
}

LoginSessions::~LoginSessions() {
  stop_.set();
  thread_.join();
}

SessionView LoginSessions::active() {
  const std::lock_guard lock(mutex_);
  return view_;
}

void LoginSessions::run() {
  while (!stop_.wait(0)) {
    seat_->wait_for_change(stop_, resolved_ ? CALM_MS : PATIENCE_MS);
    const SessionView view = look();
    const std::lock_guard lock(mutex_);
    if (view.session == view_.session && view.why == view_.why) continue;
    view_ = view;
    wake_.set();
  }
}

SessionView LoginSessions::look() {
  const std::optional<LoginSession> session = seat_->active();
  if (session && session == resolved_) return view_;
  resolved_.reset();
  if (const std::optional<std::string> why = why_not_served(session)) {
    resolved_ = session;
    return {std::nullopt, *why};
  }
  const std::optional<Environment> environment = find_(*session);
  if (!environment) return {std::nullopt, name_of(*session) + " has no display yet"};
  resolved_ = session;
  const std::string& display = environment->at("DISPLAY");
  return {GraphicalSession{name_of(*session) + " on " + display, local_session_number(display),
                           *environment},
          ""};
}
