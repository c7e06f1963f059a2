// The service's ends of a worker's pipes, with this process as the worker.
#include "apps/service/worker_link.h"

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>

#include "connection/clock.h"
#include "tests/apps/realtime/linux/service_pipes.h"
#include "tests/support/linux/forked.h"

namespace service_test {
namespace {

using namespace host_service;

// A worker's end of one pipe.
struct WorkerEnd {
  Pipe pipe;

  bool send(Verb verb) { return write_frame(pipe, encode_request({verb, {}}), nullptr, 5'000); }
  std::optional<Status> answer_to(Verb verb) {
    std::vector<unsigned char> frame;
    Status status = Status::Failed;
    std::string text;
    if (!read_frame(pipe, &frame, nullptr, 5'000) ||
        !decode_response(frame.data(), frame.size(), verb, &status, &text))
      return std::nullopt;
    return status;
  }
  std::optional<Status> exchange(Verb verb) { return send(verb) ? answer_to(verb) : std::nullopt; }
  std::optional<Request> take() {
    std::vector<unsigned char> frame;
    Request request;
    if (!read_frame(pipe, &frame, nullptr, 5'000) ||
        !decode_request(frame.data(), frame.size(), &request))
      return std::nullopt;
    return request;
  }
  bool answer(Verb verb, Status status, const std::string& text) {
    return write_frame(pipe, encode_response(verb, status, text), nullptr, 5'000);
  }
};

class WorkerLinkTest : public PipesTest {
 protected:
  void SetUp() override {
    PipesTest::SetUp();
    if (!IsSkipped()) make(patient());
  }
  // The worker here beats when a test wants it to, however loaded the computer.
  static LinkTimes patient() {
    LinkTimes times;
    times.silence_ms = 600'000;
    return times;
  }
  void make(const LinkTimes& times) {
    link_.reset();
    link_ = PipeLink::make(
        channel_, [this](const std::string& line) { say(line); }, wake_, times);
    ASSERT_TRUE(link_);
  }
  void attach() { link_->attach(static_cast<std::uint32_t>(getpid()), SESSION); }
  void open_both() {
    commands_.pipe = open_pipe(channel_, nullptr, 5'000);
    events_.pipe = open_pipe(channel_ + EVENTS_SUFFIX, nullptr, 5'000);
    ASSERT_TRUE(commands_.pipe && events_.pipe);
  }
  // The worker is up: from now on it is asked what administrators ask.
  void begin() {
    attach();
    open_both();
    ASSERT_EQ(events_.exchange(Verb::Heartbeat), Status::Ok);
  }

  static constexpr std::uint32_t SESSION = 8;
  const Variable display_{"DISPLAY", ":7"};  // of this process as the worker
  const std::string channel_ = std::string(WORKER_PIPE_PREFIX) + std::string(32, 'a');
  WakeEvent wake_{WakeEvent::Reset::Auto};
  std::shared_ptr<PipeLink> link_;
  WorkerEnd commands_, events_;
};

TEST_F(WorkerLinkTest, ServesBothPipesBeforeTheWorkerStarts) {
  open_both();
  EXPECT_TRUE(pipe_server(commands_.pipe, static_cast<std::uint32_t>(getpid())));
  EXPECT_TRUE(pipe_server(events_.pipe, static_cast<std::uint32_t>(getpid())));
}

TEST_F(WorkerLinkTest, AChannelThatSomebodyServesIsNotMade) {
  EXPECT_FALSE(PipeLink::make(
      channel_, [](const std::string&) {}, wake_));
}

TEST_F(WorkerLinkTest, AHeartbeatIsAnsweredAndNoted) {
  attach();
  open_both();
  EXPECT_EQ(link_->heard_us(), 0u);
  const std::uint64_t before_us = lund_now_us();
  EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Ok);
  EXPECT_GE(link_->heard_us(), before_us);
  EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Ok);
  EXPECT_EQ(said(" is up"), 1);
  EXPECT_TRUE(wake_.wait(0));
}

TEST_F(WorkerLinkTest, SecureAttentionIsAnsweredAndLogged) {
  begin();
  const std::uint64_t heard_us = link_->heard_us();
  EXPECT_EQ(events_.exchange(Verb::SecureAttention), Status::Ok);
  EXPECT_EQ(said("asked for the secure attention sequence"), 1);
  EXPECT_EQ(link_->heard_us(), heard_us);
}

TEST_F(WorkerLinkTest, ARequestGoesToTheWorkerAndItsAnswerComesBack) {
  begin();
  std::thread worker([this] {
    const std::optional<Request> request = commands_.take();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->verb, Verb::SetPassword);
    EXPECT_EQ(request->payload, (std::vector<unsigned char>{'a', 'b'}));
    commands_.answer(Verb::SetPassword, Status::Failed, "password operation failed");
  });
  const Result result = link_->request({Verb::SetPassword, {'a', 'b'}});
  EXPECT_EQ(result.status, Status::Failed);
  EXPECT_EQ(result.text, "password operation failed");
  worker.join();
}

TEST_F(WorkerLinkTest, RequestsReachTheWorkerOneAtATime) {
  begin();
  std::thread worker([this] {
    for (int i = 0; i < 20; ++i) {
      const std::optional<Request> request = commands_.take();
      ASSERT_TRUE(request);
      // Nothing else comes before the answer.
      WakeEvent never(WakeEvent::Reset::Manual);
      std::vector<unsigned char> early;
      EXPECT_FALSE(read_frame(commands_.pipe, &early, &never, 1));
      commands_.answer(request->verb, Status::Ok, "completed");
    }
  });
  std::vector<std::thread> administrators;
  administrators.reserve(4);
  std::atomic<int> completed{0};
  for (int i = 0; i < 4; ++i)
    administrators.emplace_back([this, &completed] {
      for (int n = 0; n < 5; ++n)
        if (link_->request({Verb::PairingClose, {}}).text == "completed") ++completed;
    });
  for (std::thread& administrator : administrators) administrator.join();
  worker.join();
  EXPECT_EQ(completed, 20);
}

TEST_F(WorkerLinkTest, HeartbeatsAreAnsweredWhileARequestTakesItsTime) {
  begin();
  std::thread administrator([this] {
    EXPECT_EQ(link_->request({Verb::SetPassword, {'a'}}).status, Status::Ok);
  });
  ASSERT_TRUE(commands_.take());
  for (int i = 0; i < 10; ++i) EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Ok);
  commands_.answer(Verb::SetPassword, Status::Ok, "completed");
  administrator.join();
}

TEST_F(WorkerLinkTest, WhoWaitsTooLongForAnothersRequestIsToldThatTheWorkerIsBusy) {
  LinkTimes times = patient();
  times.turn_ms = 50;
  make(times);
  begin();
  std::thread first([this] { link_->request({Verb::SetPassword, {'a'}}); });
  ASSERT_TRUE(commands_.take());
  const Result second = link_->request({Verb::PairingClose, {}});
  EXPECT_EQ(second.status, Status::Unavailable);
  EXPECT_EQ(second.text, "the worker is busy with another request");
  commands_.answer(Verb::SetPassword, Status::Ok, "completed");
  first.join();
}

TEST_F(WorkerLinkTest, AWorkerThatDoesNotAnswerARequestIsToldToStopAndAskedNoMore) {
  LinkTimes times = patient();
  times.answer_ms = 50;
  make(times);
  begin();
  const Result result = link_->request({Verb::PairingClose, {}});
  EXPECT_EQ(result.status, Status::Failed);
  EXPECT_EQ(result.text, "the worker did not answer");
  EXPECT_EQ(said("did not answer a request"), 1);
  EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Unavailable);
  // Its late answer is nobody's.
  ASSERT_TRUE(commands_.take());
  commands_.answer(Verb::PairingClose, Status::Ok, "completed");
  EXPECT_EQ(link_->request({Verb::PairingClose, {}}).status, Status::Unavailable);
}

TEST_F(WorkerLinkTest, AWorkerThatHangsIsNotAsked) {
  LinkTimes times;
  times.silence_ms = 20;
  make(times);
  begin();
  while (lund_now_us() - link_->heard_us() <= 20'000) std::this_thread::yield();
  const Result result = link_->request({Verb::Status, {}});
  EXPECT_EQ(result.status, Status::Unavailable);
  EXPECT_EQ(result.text, "the worker shows no sign of life");
}

TEST_F(WorkerLinkTest, BeforeTheWorkerIsThereItIsStarting) {
  EXPECT_EQ(link_->request({Verb::Status, {}}).text, "the worker is starting");
  EXPECT_EQ(link_->request({Verb::Status, {}}).status, Status::Unavailable);
}

TEST_F(WorkerLinkTest, AnInvalidRequestIsNotPassedOn) {
  begin();
  EXPECT_EQ(link_->request({Verb::PairingOpen, {}}).status, Status::Invalid);
}

TEST_F(WorkerLinkTest, StopIsARequestOfItsOwn) {
  begin();
  link_->ask_to_stop();
  const std::optional<Request> request = commands_.take();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->verb, Verb::Stop);
  commands_.answer(Verb::Stop, Status::Ok, "worker stopping");
}

TEST_F(WorkerLinkTest, AWorkerThatCannotBeAskedToStopHearsItWithItsHeartbeat) {
  link_->ask_to_stop();  // it is starting
  attach();
  open_both();
  while (events_.exchange(Verb::Heartbeat) == Status::Ok) std::this_thread::yield();
  EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Unavailable);
}

TEST_F(WorkerLinkTest, AnotherProcessIsSentAwayAndTheWorkerStillLetIn) {
  Forked stranger([this] {
    Pipe pipe = open_pipe(channel_, nullptr, 5'000);
    if (!pipe) return 1;
    // Sent away: nothing is ever asked of it.
    std::vector<unsigned char> frame;
    return read_frame(pipe, &frame, nullptr, 5'000) ? 2 : 0;
  });
  attach();
  while (said("sent away") == 0) std::this_thread::yield();
  open_both();
  EXPECT_EQ(events_.exchange(Verb::Heartbeat), Status::Ok);
  EXPECT_EQ(stranger.wait(), 0);
}

TEST_F(WorkerLinkTest, AWorkerOfAnotherSessionIsSentAway) {
  link_->attach(static_cast<std::uint32_t>(getpid()), SESSION + 1);
  commands_.pipe = open_pipe(channel_, nullptr, 5'000);
  ASSERT_TRUE(commands_.pipe);
  std::vector<unsigned char> frame;
  EXPECT_FALSE(read_frame(commands_.pipe, &frame, nullptr, 5'000));
  EXPECT_GE(said("sent away"), 1);
}

TEST_F(WorkerLinkTest, AWorkerThatOpensNoPipeIsNamed) {
  LinkTimes times = patient();
  times.connect_ms = 50;
  make(times);
  attach();
  while (said("did not open its pipes") == 0) std::this_thread::yield();
  EXPECT_EQ(link_->request({Verb::Status, {}}).text, "the worker is ending");
}

TEST_F(WorkerLinkTest, WhatIsNoEventOfAWorkerIsNotAnswered) {
  begin();
  EXPECT_TRUE(events_.send(Verb::Status));
  while (said("sent what is no event of a worker") == 0) std::this_thread::yield();
  EXPECT_EQ(link_->request({Verb::Status, {}}).status, Status::Unavailable);
}

TEST_F(WorkerLinkTest, ClosingEndsARequestThatWaits) {
  begin();
  std::thread administrator([this] {
    EXPECT_EQ(link_->request({Verb::SetPassword, {'a'}}).status, Status::Unavailable);
  });
  ASSERT_TRUE(commands_.take());
  link_->close();
  administrator.join();
}

TEST_F(WorkerLinkTest, NothingOfTheNamesIsLeft) {
  begin();
  link_.reset();
  for (const auto& entry : std::filesystem::directory_iterator("/run/lunderhaze"))
    ADD_FAILURE() << entry.path();
}

}  // namespace
}  // namespace service_test
