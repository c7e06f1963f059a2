// A headless connection: prints what happens, and ends after the time asked for. The network
// thread's, and its owner's after the session's run.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "apps/client/host_session.h"

class ConnectRun : public SessionSinks {
 public:
  struct Plan {
    double seconds = 10;  // of stream, from the first frame; 0: until stopped
    const std::atomic<bool>* stop = nullptr;
  };
  explicit ConnectRun(const Plan& plan) : plan_(plan) {}

  // Runs the session of which these are the sinks. `text` as HostSession::run gives it.
  SessionEnd run(HostSession& session, std::string* text);

  void state(SessionState state, const std::string& text) override;
  void second(int screen, const StreamStatistics::Second& second) override;
  void notice(const std::string& line) override { say(line); }
  bool step(std::uint64_t now_us) override;

 private:
  void say(const std::string& line);
  bool time_is_over() const;

  const Plan plan_;
  HostSession* session_ = nullptr;
  std::string broken_off_;  // why, while it is
};
