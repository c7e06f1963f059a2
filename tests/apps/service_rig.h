// A service's supervisor among scripted sessions, workers and pipes, in virtual time. One thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apps/service/supervisor.h"
#include "connection/clock.h"
#include "connection/secure.h"
#include "tests/support/virtual_time.h"

namespace service_test {

inline GraphicalSession session(std::uint32_t number, const std::string& user = "anna") {
  const std::string display = ":" + std::to_string(number - 1);
  return {"session " + std::to_string(number) + " of " + user, number, {{"DISPLAY", display}}};
}

// What the supervisor did to one worker, and how that one behaves.
struct FakeWorker {
  std::uint32_t id = 0;
  std::vector<std::string> arguments;
  GraphicalSession session;
  std::uint64_t started_us = 0;
  std::uint32_t attached_session = 0;
  bool heartbeats = true;
  std::uint64_t last_heartbeat_us = 0;
  bool obeys_stop = true, obeys_sigterm = true;
  bool can_be_asked = true;  // by its system, to end
  bool stop_asked = false, terminated = false, killed = false, closed = false;
  std::uint64_t stop_asked_us = 0, terminated_us = 0, killed_us = 0;
  std::vector<host_service::Request> requests;
  host_service::Result answer{host_service::Status::Ok, "worker running\n"};
  std::optional<WorkerEnd> end;

  void exit(int code) { end = WorkerEnd{WorkerEnd::Kind::Exited, code}; }
  void die(int signal) { end = WorkerEnd{WorkerEnd::Kind::Signalled, signal}; }
};

class ServiceRig : public testing::Test {
 protected:
  static constexpr std::uint64_t BEAT_US = 100'000;

  ServiceRig() { virtual_time::reset(); }

  // For so long: steps when the supervisor has asked for it or its event is set, and first of all,
  // since whatever a test has changed would have set it. The worker beats each 100 ms.
  void run_ms(std::uint64_t ms) {
    const std::uint64_t until_us = lund_now_us() + ms * 1'000;
    std::uint64_t due_us = lund_now_us();
    wake_.set();
    while (!supervisor_.done()) {
      if (wake_.wait(0) || lund_now_us() >= due_us)
        due_us = lund_now_us() + std::uint64_t{supervisor_.step()} * 1'000;
      if (lund_now_us() >= until_us) return;
      const std::uint64_t next_us =
          std::min({until_us, std::max(due_us, lund_now_us() + 1'000), lund_now_us() + BEAT_US});
      virtual_time::advance_us(next_us - lund_now_us());
      beat();
    }
  }
  void step() { run_ms(0); }

  FakeWorker& worker() { return *workers_.back(); }
  std::size_t starts() const { return workers_.size(); }
  bool running() const { return !workers_.empty() && !workers_.back()->closed; }
  int said(const std::string& part) const {
    return static_cast<int>(std::ranges::count_if(
        lines_, [&part](const std::string& line) { return line.find(part) != line.npos; }));
  }
  void activate(const GraphicalSession& session) { sessions_.view = {session, ""}; }
  void no_session(const std::string& why) { sessions_.view = {std::nullopt, why}; }
  // Runs the worker for so long, lets it end, and gives the pause until the next start.
  std::uint64_t pause_after_ms(int exit_code, std::uint64_t ran_ms = 0) {
    run_ms(ran_ms);
    const std::size_t before = starts();
    worker().exit(exit_code);
    const std::uint64_t ended_us = lund_now_us();
    while (starts() == before && lund_now_us() - ended_us < 200'000'000) run_ms(10);
    EXPECT_EQ(starts(), before + 1);
    return (worker().started_us - ended_us) / 1'000;
  }

  struct FakeSessions final : SessionSource {
    SessionView view{session(1), ""};
    SessionView active() override { return view; }
  };
  struct FakeProcess final : WorkerProcess {
    FakeProcess(std::shared_ptr<FakeWorker> of, WakeEvent& event)
        : worker(std::move(of)), wake(event) {}
    std::uint32_t id() const override { return worker->id; }
    std::optional<WorkerEnd> ended() override { return worker->end; }
    bool terminate() override {
      if (!worker->can_be_asked) return false;
      worker->terminated = true;
      worker->terminated_us = lund_now_us();
      if (worker->obeys_sigterm) worker->die(15);
      wake.set();
      return true;
    }
    void kill() override {
      worker->killed = true;
      worker->killed_us = lund_now_us();
      worker->die(9);
      wake.set();
    }
    std::shared_ptr<FakeWorker> worker;
    WakeEvent& wake;
  };
  // Made before its worker is: the worker is the one that attach names.
  struct FakeLink final : WorkerLink {
    FakeLink(std::vector<std::shared_ptr<FakeWorker>>& all, WakeEvent& event)
        : workers(all), wake(event) {}
    void attach(std::uint32_t, std::uint32_t session) override {
      worker = workers.back();
      worker->attached_session = session;
    }
    std::uint64_t heard_us() const override { return worker->last_heartbeat_us; }
    host_service::Result request(const host_service::Request& request) override {
      worker->requests.push_back(request);
      return worker->answer;
    }
    void ask_to_stop() override {
      worker->stop_asked = true;
      worker->stop_asked_us = lund_now_us();
      if (worker->obeys_stop) worker->exit(0);
      wake.set();
    }
    void close() override { worker->closed = true; }
    std::vector<std::shared_ptr<FakeWorker>>& workers;
    WakeEvent& wake;
    std::shared_ptr<FakeWorker> worker;
  };

  WorkerSupervisor::Parts parts() {
    return {sessions_,
            [this](const std::vector<std::string>& arguments, const GraphicalSession& for_session,
                   std::string* error) -> std::unique_ptr<WorkerProcess> {
              if (!start_error_.empty()) {
                *error = start_error_;
                return nullptr;
              }
              auto made = std::make_shared<FakeWorker>();
              made->id = 100 + static_cast<std::uint32_t>(workers_.size());
              made->arguments = arguments;
              made->session = for_session;
              made->started_us = lund_now_us();
              made->heartbeats = heartbeats_;
              workers_.push_back(made);
              return std::make_unique<FakeProcess>(made, wake_);
            },
            [this](const std::string& channel) -> std::shared_ptr<WorkerLink> {
              channels_.push_back(channel);
              return pipes_ ? std::make_shared<FakeLink>(workers_, wake_) : nullptr;
            },
            [this](void* bytes, std::size_t size) { return random_(bytes, size); },
            [this](const std::string& line) { lines_.push_back(line); },
            wake_,
            4711};
  }
  void beat() {
    if (workers_.empty() || worker().closed || !worker().heartbeats || worker().end) return;
    if (std::exchange(worker().last_heartbeat_us, lund_now_us()) == 0) wake_.set();
  }

  FakeSessions sessions_;
  std::vector<std::shared_ptr<FakeWorker>> workers_;
  std::vector<std::string> channels_;
  std::vector<std::string> lines_;
  std::string start_error_;
  bool pipes_ = true;
  bool heartbeats_ = true;  // of the workers to come
  std::function<int(void*, std::size_t)> random_ = lund_random_bytes;
  WakeEvent wake_{WakeEvent::Reset::Auto};
  WorkerSupervisor supervisor_{parts(), SupervisorTimes{}};
};

}  // namespace service_test
