#include "apps/client/connect_run.h"

#include <cstdio>

SessionEnd ConnectRun::run(HostSession& session, std::string* text) {
  session_ = &session;
  const SessionEnd end = session.run(text);
  if (end != SessionEnd::Done || broken_off_.empty() || !time_is_over()) return end;
  *text = broken_off_ + ", and did not come back";
  return SessionEnd::NoAnswer;
}

void ConnectRun::say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void ConnectRun::state(SessionState state, const std::string& text) {
  if (state == SessionState::BrokenOff) broken_off_ = text;
  if (state == SessionState::Streaming) broken_off_.clear();
}

void ConnectRun::second(int, const StreamStatistics::Second& second) {
  say(second.line);
}

bool ConnectRun::time_is_over() const {
  const double seconds = session_->seconds();
  return plan_.seconds > 0 && seconds > 0 && seconds >= plan_.seconds;
}

bool ConnectRun::step(std::uint64_t) {
  return (plan_.stop && *plan_.stop) || time_is_over();
}
