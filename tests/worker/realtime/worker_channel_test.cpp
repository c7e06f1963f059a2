// The worker's two threads on real pipes, with a service at the other ends.
#include "worker/worker_channel.h"

#include <gmock/gmock.h>

#include <chrono>

#include "control/security.h"
#include "host/server.h"
#include "tests/support/fake_platform.h"
#include "tests/support/pipe_place.h"
#include "tests/support/small_service.h"
#include "tests/support/temporary_store.h"

using host_app::WorkerChannel;
using host_service::Status;
using host_service::Verb;
using testing::StartsWith;

namespace {

constexpr std::uint32_t AT_ONCE_MS = 4'000;  // less than any limit of the pipes
constexpr std::uint32_t PATIENCE_MS = 20'000;

class WorkerChannelThreads : public testing::Test {
 protected:
  void SetUp() override {
    if (!PipePlace::possible()) GTEST_SKIP() << PipePlace::WHY_NOT;
    if (!host_service::system_process(host_service::Process::current(), nullptr))
      GTEST_SKIP() << "a worker trusts no pipes but the system's";
    service_.emplace(name_);
    ASSERT_TRUE(service_->serves());
    channel_.emplace(
        host_service::open_pipe(name_, nullptr, PATIENCE_MS),
        host_service::open_pipe(name_ + host_service::EVENTS_SUFFIX, nullptr, PATIENCE_MS),
        stop_event_, host_service::Process::current().id());
    ASSERT_TRUE(service_->meet());
    channel_->start(host_);
  }
  bool ends_at_once() {
    const bool ended = stop_event_.wait(AT_ONCE_MS);
    if (ended) channel_->join();
    return ended;
  }

  const PipePlace place_;
  const std::string name_ = place_ / "channel";
  TemporaryStore store_;
  FakePlatform platform_;
  HostServer host_{{}, {}, platform_.record()};  // not open: its views are empty
  WakeEvent stop_event_{WakeEvent::Reset::Manual};
  std::optional<SmallService> service_;
  std::optional<WorkerChannel> channel_;
};

}  // namespace

TEST_F(WorkerChannelThreads, CommandsAreAnsweredWhileHeartbeatsGoOn) {
  for (int i = 0; i < 3; ++i) {
    const auto result = service_->ask(Verb::Status);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, Status::Ok);
    EXPECT_THAT(result->text, StartsWith("worker running; code "));
    EXPECT_TRUE(service_->wait_heartbeats(1));
  }
  EXPECT_FALSE(stop_event_.wait(0));
}

TEST_F(WorkerChannelThreads, StopIsAnsweredBeforeBothThreadsEnd) {
  const auto result = service_->ask(Verb::Stop);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->text, "worker stopping");
  EXPECT_TRUE(ends_at_once());
}

TEST_F(WorkerChannelThreads, ARequestForAttentionReachesTheService) {
  channel_->sas_requested = true;
  EXPECT_TRUE(service_->wait_heartbeats(2));
  EXPECT_EQ(service_->attentions(), 1);
}

TEST_F(WorkerChannelThreads, TheAnswerToAHeartbeatCanEndTheWorker) {
  service_->order_stop();
  EXPECT_TRUE(ends_at_once());
}

TEST_F(WorkerChannelThreads, AServiceThatIsGoneEndsBothThreadsAtOnce) {
  EXPECT_TRUE(service_->wait_heartbeats(1));
  service_->leave();
  EXPECT_TRUE(ends_at_once());
}

TEST_F(WorkerChannelThreads, ACommandPipeThatIsClosedAloneEndsTheWorkerToo) {
  service_->leave_commands();
  EXPECT_TRUE(ends_at_once());
}

TEST_F(WorkerChannelThreads, AServiceThatFallsSilentEndsTheWorkerAtTheLimitOfItsHeartbeat) {
  EXPECT_TRUE(service_->wait_heartbeats(1));
  service_->fall_silent();
  EXPECT_TRUE(stop_event_.wait(PATIENCE_MS));
  channel_->join();
}

TEST_F(WorkerChannelThreads, AFrameThatDoesNotDecodeEndsTheWorkerUnanswered) {
  std::vector<unsigned char> frame = host_service::encode_request({Verb::Status, {}});
  frame[6] = 11;  // no verb's number
  EXPECT_TRUE(service_->send(frame));
  EXPECT_TRUE(ends_at_once());
  channel_.reset();
  EXPECT_FALSE(host_service::read_frame(service_->commands(), &frame, nullptr, PATIENCE_MS));
}

TEST_F(WorkerChannelThreads, ItsEndIsTheWorkersEnd) {
  channel_.reset();
  EXPECT_TRUE(stop_event_.wait(0));
  EXPECT_FALSE(service_->ask(Verb::Status));
}
