// Which session is served, and what becomes of its worker: started with a channel of its own,
// watched by its heartbeats, restarted after a pause when it ends by itself, stopped in order when
// the session changes, an administrator asks, or the service ends. All policy; what it rules lies
// behind seams.h.
//
// One thread runs `step`, as soon as the event that it was made with is set and as often as `step`
// asks. Any thread may call the rest. One mutex, held for copies only.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/service/backoff.h"
#include "apps/service/seams.h"
#include "control/wake_event.h"

struct SupervisorTimes {
  BackoffTimes backoff;
  std::uint32_t first_heartbeat_ms = 30'000;  // a start lists displays, derives keys, opens sockets
  std::uint32_t silence_ms = 15'000;          // of a worker that sends one each 100 ms
  std::uint32_t stop_ms = 10'000;             // to end after Stop
  std::uint32_t terminate_ms = 5'000;         // and after SIGTERM
};

class WorkerSupervisor {
 public:
  struct Parts {
    SessionSource& sessions;
    StartWorker start_worker;
    MakeLink make_link;
    std::function<int(void* bytes, std::size_t size)> random;  // as lund_random_bytes
    Say say;
    WakeEvent& wake;
    std::uint32_t own_id = 0;  // this process, by which a worker knows its service
  };
  struct State {
    std::uint32_t worker = 0;   // its process, 0 without one
    std::uint32_t session = 0;  // served or to be served, 0 without one
    std::uint32_t starts = 0;
    std::string doing;      // in words, of the worker or of what is waited for; without "; "
    std::string last_exit;  // in words, "none" before the first
  };

  WorkerSupervisor(Parts parts, const SupervisorTimes& times);

  std::uint32_t step();  // milliseconds until the next is due, unless the event is set before
  bool done() const { return phase_ == Phase::Done; }

  void stop();  // the worker, then this
  bool stop_wanted() const;
  // The worker is stopped and started anew, or started at once if it waits; false without a
  // session.
  bool restart();
  std::shared_ptr<WorkerLink> link() const;  // null without a worker
  State state() const;

 private:
  enum class Phase { Idle, Running, Asked, Terminated, Killed, Done };
  struct Run {
    std::shared_ptr<WorkerLink> link;
    std::unique_ptr<WorkerProcess> process;
    std::uint64_t started_us = 0;
    bool asked = false;  // to stop
  };

  std::uint32_t step_idle();
  std::uint32_t step_running();
  std::uint32_t step_stopping();
  std::uint32_t wait_for_session(const std::string& why);
  std::uint32_t start();
  std::uint32_t start_failed(const std::string& why);
  std::uint32_t pause(std::uint64_t ran_ms, const std::string& what);
  void ask_to_stop(const std::string& why);
  void kill(const std::string& why);
  void worker_ended(const WorkerEnd& end);
  bool new_channel(std::string* channel);

  bool restart_wanted() const;
  bool take_restart();
  void enter(Phase phase);
  void set_doing(const std::string& doing);

  const Parts parts_;
  const SupervisorTimes times_;
  Backoff backoff_{times_.backoff};
  Phase phase_ = Phase::Idle;
  std::uint64_t phase_since_us_ = 0;
  std::optional<GraphicalSession> served_;
  bool given_up_ = false;  // until another session or a restart
  std::uint64_t start_at_us_ = 0;
  std::string former_channel_;
  Run run_;

  mutable std::mutex mutex_;
  State state_;
  std::shared_ptr<WorkerLink> shared_link_;  // run_.link, while the worker may be asked
  bool stop_wanted_ = false;
  bool restart_wanted_ = false;
};
