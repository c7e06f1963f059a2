#include "apps/service/supervisor.h"

#include <algorithm>
#include <array>
#include <utility>

#include "connection/clock.h"

namespace {

constexpr std::uint32_t IDLE_MS = 60'000;  // whatever ends the idleness sets the event
constexpr std::uint32_t KILLED_MS = 1'000;

// Until `deadline_us`, rounded up, so that the step that follows finds it passed.
std::uint32_t ms_until(std::uint64_t deadline_us) {
  const std::uint64_t now_us = lund_now_us();
  if (deadline_us <= now_us) return 0;
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>((deadline_us - now_us + 999) / 1'000, IDLE_MS));
}

std::string duration_text(std::uint64_t ms) {
  return ms % 1'000 == 0 || ms >= 10'000 ? std::to_string(ms / 1'000) + " s"
                                         : std::to_string(ms) + " ms";
}

}  // namespace

WorkerSupervisor::WorkerSupervisor(Parts parts, const SupervisorTimes& times)
    : parts_(std::move(parts)), times_(times) {
  state_.last_exit = "none";
  state_.doing = "starting";
}

std::uint32_t WorkerSupervisor::step() {
  if (run_.process) {
    if (const std::optional<WorkerEnd> end = run_.process->ended()) worker_ended(*end);
  }
  switch (phase_) {
    case Phase::Idle:
      return step_idle();
    case Phase::Running:
      return step_running();
    case Phase::Asked:
    case Phase::Terminated:
    case Phase::Killed:
      return step_stopping();
    case Phase::Done:
      break;
  }
  return IDLE_MS;
}

std::uint32_t WorkerSupervisor::step_idle() {
  if (stop_wanted()) {
    enter(Phase::Done);
    return 0;
  }
  const bool restarted = take_restart();
  const SessionView view = parts_.sessions.active();
  if (!view.session) return wait_for_session(view.why);
  if (view.session != served_ || restarted) {
    served_ = view.session;
    given_up_ = false;
    backoff_.reset();
    start_at_us_ = 0;
  }
  {
    const std::lock_guard lock(mutex_);
    state_.session = served_->number;
  }
  if (given_up_) return IDLE_MS;
  const std::uint32_t left_ms = ms_until(start_at_us_);
  return left_ms > 0 ? left_ms : start();
}

std::uint32_t WorkerSupervisor::wait_for_session(const std::string& why) {
  served_.reset();
  given_up_ = false;
  {
    const std::lock_guard lock(mutex_);
    state_.session = 0;
  }
  const std::string doing = "waiting for a graphical session: " + why;
  if (state().doing != doing) parts_.say(doing);
  set_doing(doing);
  return IDLE_MS;
}

std::uint32_t WorkerSupervisor::start() {
  std::string channel;
  if (!new_channel(&channel)) return start_failed("the system's random source failed");
  channel = host_service::WORKER_PIPE_PREFIX + channel;
  run_.link = parts_.make_link(channel);
  if (!run_.link) return start_failed("its pipes can't be made");
  std::string error;
  run_.process = parts_.start_worker(
      {"--supervisor", std::to_string(parts_.own_id), "--channel", channel}, *served_, &error);
  if (!run_.process) {
    run_.link.reset();
    return start_failed(error);
  }
  const std::uint32_t worker = run_.process->id();
  run_.started_us = lund_now_us();
  run_.link->attach(worker, served_->number);
  {
    const std::lock_guard lock(mutex_);
    state_.worker = worker;
    ++state_.starts;
    shared_link_ = run_.link;
  }
  enter(Phase::Running);
  set_doing("serving " + served_->name);
  parts_.say("worker " + std::to_string(worker) + " started for " + served_->name);
  return step_running();
}

std::uint32_t WorkerSupervisor::start_failed(const std::string& why) {
  return pause(0, "the worker can't be started: " + why);
}

std::uint32_t WorkerSupervisor::pause(std::uint64_t ran_ms, const std::string& what) {
  const std::uint32_t pause_ms = backoff_.next_ms(ran_ms);
  start_at_us_ = lund_now_us() + std::uint64_t{pause_ms} * 1'000;
  set_doing("pausing before the next start, as " + what);
  parts_.say(what + "; the next start is in " + duration_text(pause_ms));
  return pause_ms;
}

std::uint32_t WorkerSupervisor::step_running() {
  if (stop_wanted()) {
    ask_to_stop("the service ends");
  } else if (restart_wanted()) {
    ask_to_stop("a restart was asked for");
  } else if (const SessionView view = parts_.sessions.active(); view.session != served_) {
    ask_to_stop(view.session ? "the active session is now " + view.session->name : view.why);
  } else {
    const std::uint64_t heard_us = run_.link->heard_us();
    const std::uint32_t limit_ms = heard_us == 0 ? times_.first_heartbeat_ms : times_.silence_ms;
    const std::uint64_t since_us = heard_us == 0 ? run_.started_us : heard_us;
    const std::uint32_t left_ms = ms_until(since_us + std::uint64_t{limit_ms} * 1'000);
    if (left_ms > 0) return left_ms;
    kill("no sign of life for " + duration_text(limit_ms));
  }
  return step_stopping();
}

void WorkerSupervisor::ask_to_stop(const std::string& why) {
  run_.asked = true;
  enter(Phase::Asked);
  set_doing("stopping: " + why);
  parts_.say("stopping worker " + std::to_string(run_.process->id()) + ": " + why);
  run_.link->ask_to_stop();
}

void WorkerSupervisor::kill(const std::string& why) {
  enter(Phase::Killed);
  set_doing("killing the worker: " + why);
  parts_.say("worker " + std::to_string(run_.process->id()) + ": " + why + ": killing it");
  run_.process->kill();
}

std::uint32_t WorkerSupervisor::step_stopping() {
  const std::uint64_t limit_ms = phase_ == Phase::Asked ? times_.stop_ms : times_.terminate_ms;
  // A process that the kernel can't end yet: nothing else can be done about it.
  if (phase_ == Phase::Killed) return KILLED_MS;
  const std::uint32_t left_ms = ms_until(phase_since_us_ + limit_ms * 1'000);
  if (left_ms > 0) return left_ms;
  const std::string held_out = "did not end within " + duration_text(limit_ms);
  if (phase_ == Phase::Terminated) {
    kill(held_out + " of SIGTERM");
    return KILLED_MS;
  }
  if (!run_.process->terminate()) {
    kill(held_out + " of Stop");
    return KILLED_MS;
  }
  enter(Phase::Terminated);
  parts_.say("worker " + std::to_string(run_.process->id()) + ": " + held_out +
             " of Stop: sending SIGTERM");
  return times_.terminate_ms;
}

void WorkerSupervisor::worker_ended(const WorkerEnd& end) {
  const bool asked = run_.asked;
  // Whoever ends a process that was up can give it any code: those that mean something are told by
  // one that is starting.
  const bool was_up = run_.link->heard_us() != 0;
  const std::string words = words_for(end);
  const std::string what =
      "worker " + std::to_string(run_.process->id()) + " ended (" + words + ")";
  const std::uint64_t ran_ms = (lund_now_us() - run_.started_us) / 1'000;
  {
    const std::lock_guard lock(mutex_);
    shared_link_.reset();
    state_.worker = 0;
    state_.last_exit = words;
  }
  run_.link->close();
  run_ = {};
  enter(Phase::Idle);
  if (asked) {
    // What it was asked for comes next, at once: the end, another session, a fresh worker.
    backoff_.reset();
    start_at_us_ = 0;
    set_doing("between two workers");
    parts_.say(what);
  } else if (was_up || may_start_again(end)) {
    pause(ran_ms, what);
  } else {
    given_up_ = true;
    set_doing("not starting the worker again, as " + what);
    parts_.say(what +
               "; it is not started again before a restart is asked for or another session " +
               "is active");
  }
}

// 32 lower-case hexadecimal digits. That none comes twice is the random source's 128 bits; one that
// repeats itself has failed.
bool WorkerSupervisor::new_channel(std::string* channel) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::array<std::uint8_t, 16> bytes{};
  if (parts_.random(bytes.data(), bytes.size()) != 0) return false;
  for (const std::uint8_t byte : bytes) {
    *channel += DIGITS[byte >> 4];
    *channel += DIGITS[byte & 15];
  }
  return std::exchange(former_channel_, *channel) != *channel;
}

void WorkerSupervisor::enter(Phase phase) {
  phase_ = phase;
  phase_since_us_ = lund_now_us();
}

void WorkerSupervisor::stop() {
  const std::lock_guard lock(mutex_);
  // Once: the loop that steps asks for it again at each turn, and would never rest.
  if (!std::exchange(stop_wanted_, true)) parts_.wake.set();
}

bool WorkerSupervisor::restart() {
  const std::lock_guard lock(mutex_);
  if (state_.session == 0) return false;
  restart_wanted_ = true;
  parts_.wake.set();
  return true;
}

bool WorkerSupervisor::stop_wanted() const {
  const std::lock_guard lock(mutex_);
  return stop_wanted_;
}

bool WorkerSupervisor::restart_wanted() const {
  const std::lock_guard lock(mutex_);
  return restart_wanted_;
}

bool WorkerSupervisor::take_restart() {
  const std::lock_guard lock(mutex_);
  return std::exchange(restart_wanted_, false);
}

void WorkerSupervisor::set_doing(const std::string& doing) {
  const std::lock_guard lock(mutex_);
  state_.doing = doing;
}

std::shared_ptr<WorkerLink> WorkerSupervisor::link() const {
  const std::lock_guard lock(mutex_);
  return shared_link_;
}

WorkerSupervisor::State WorkerSupervisor::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}
