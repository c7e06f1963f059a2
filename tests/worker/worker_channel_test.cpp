// The worker's end of both pipes against scripts, a step at a time on the virtual clock.
#include "worker/worker_channel.h"

#include <gmock/gmock.h>

#include "connection/clock.h"
#include "control/keystore_internal.h"
#include "tests/support/fake_pipe.h"
#include "tests/support/host_world.h"

using host_app::WorkerChannel;
using host_service::Request;
using host_service::Status;
using host_service::Verb;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint32_t SERVICE = 4711;
constexpr std::uint32_t SOMEBODY = 4712;

struct Answer {
  Status status = Status::Failed;
  std::string text;
  bool operator==(const Answer&) const = default;
};

class WorkerChannelSteps : public HostWorld {
 protected:
  void send(Verb verb, std::vector<unsigned char> payload = {}) {
    commands_.incoming.push_back(host_service::encode_request({verb, std::move(payload)}));
  }
  bool command_step() { return channel_.command_step(host()); }
  bool stopped() { return stop_event_.wait(0); }
  Answer answer(Verb verb, std::size_t index = 0) {
    Answer out;
    EXPECT_TRUE(index < commands_.written.size());
    if (index >= commands_.written.size()) return out;
    const auto& frame = commands_.written[index];
    EXPECT_TRUE(
        host_service::decode_response(frame.data(), frame.size(), verb, &out.status, &out.text));
    return out;
  }

  // The service's side of the events pipe.
  void service_answers(Status to_heartbeat, Status to_attention = Status::Ok) {
    events_.reply = [this, to_heartbeat, to_attention](const FakePipe::Bytes& frame) {
      Request request;
      EXPECT_TRUE(host_service::decode_request(frame.data(), frame.size(), &request));
      EXPECT_THAT(request.payload, IsEmpty());
      asked_.push_back(request.verb);
      const Status status = request.verb == Verb::Heartbeat ? to_heartbeat : to_attention;
      events_.incoming.push_back(host_service::encode_response(request.verb, status, ""));
    };
  }
  std::uint64_t event_step_ms(bool expected) {
    const std::uint64_t since_us = lund_now_us();
    EXPECT_EQ(channel_.event_step(), expected);
    return (lund_now_us() - since_us) / 1'000;
  }

  FakePipe commands_;
  FakePipe events_;
  std::vector<Verb> asked_;
  WakeEvent stop_event_{WakeEvent::Reset::Manual};
  WorkerChannel channel_{fake_pipe(commands_), fake_pipe(events_), stop_event_, SERVICE};
};

}  // namespace

// ---- Commands

TEST_F(WorkerChannelSteps, ACommandIsCarriedOutAndAnswered) {
  send(Verb::PairingOpen, {60, 0, 0, 0});
  EXPECT_TRUE(command_step());
  EXPECT_EQ(answer(Verb::PairingOpen), (Answer{Status::Ok, host().pairing_status().pin}));
  EXPECT_FALSE(stopped());
}

TEST_F(WorkerChannelSteps, AnIdleChannelHoldsForever) {
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(command_step());
  EXPECT_FALSE(stopped());
  send(Verb::PairingClose);
  EXPECT_TRUE(command_step());
  EXPECT_EQ(answer(Verb::PairingClose), (Answer{Status::Ok, "completed"}));
}

TEST_F(WorkerChannelSteps, EachReadAndWriteHasFiveSeconds) {
  service_answers(Status::Ok);
  send(Verb::PairingClose);
  command_step();
  command_step();
  channel_.event_step();
  EXPECT_THAT(commands_.limits_ms, ElementsAre(5'000u, 5'000u, 5'000u));
  EXPECT_THAT(events_.limits_ms, ElementsAre(5'000u, 5'000u));
}

TEST_F(WorkerChannelSteps, AnIdleChannelWhoseServerCannotBeToldEndsTheWorker) {
  commands_.server = 0;
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, AnIdleChannelWithAnotherServerEndsTheWorker) {
  commands_.server = SOMEBODY;
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, AnIdleChannelWhoseServiceHasDiedEndsTheWorker) {
  commands_.trusted = false;
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, AValidFrameFromAnotherProcessEndsTheWorkerUnanswered) {
  start_host();
  send(Verb::PairingOpen, {60, 0, 0, 0});
  commands_.server = SOMEBODY;
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
  EXPECT_THAT(commands_.written, IsEmpty());
  EXPECT_EQ(host().pairing_status().open, 0u);
}

TEST_F(WorkerChannelSteps, WhoThePeerIsCountsAtEachFrame) {
  service_answers(Status::Ok);
  for (int frame = 1; frame <= 3; ++frame) {
    send(Verb::PairingClose);
    EXPECT_TRUE(command_step());
    EXPECT_TRUE(channel_.event_step());
    EXPECT_EQ(commands_.identity_checks, frame);
    EXPECT_EQ(events_.identity_checks, frame);
  }
  send(Verb::PairingClose);
  commands_.trusted = false;
  EXPECT_FALSE(command_step());
  EXPECT_THAT(commands_.written, SizeIs(3));
}

TEST_F(WorkerChannelSteps, AFrameThatDoesNotDecodeEndsTheWorkerUnanswered) {
  send(Verb::Status);
  commands_.incoming.back().push_back(0);
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
  EXPECT_THAT(commands_.written, IsEmpty());
}

TEST_F(WorkerChannelSteps, StopIsAnsweredBeforeTheWorkerEnds) {
  send(Verb::Stop);
  EXPECT_FALSE(command_step());
  EXPECT_EQ(answer(Verb::Stop), (Answer{Status::Ok, "worker stopping"}));
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, Verb9AndTheWorkersOwnVerbsAreDenied) {
  std::size_t answered = 0;
  for (const Verb verb : {Verb::Verb9, Verb::Heartbeat, Verb::SecureAttention}) {
    send(verb);
    EXPECT_TRUE(command_step());
    EXPECT_EQ(answer(verb, answered++), (Answer{Status::Denied, "command denied"}));
  }
  EXPECT_FALSE(stopped());
}

TEST_F(WorkerChannelSteps, AnUnhealthyStoreIsTheAnswerToAnythingAndEndsTheWorker) {
  start_host();
  store().break_machine_store();
  send(Verb::SetSettings, host_service::encode_settings({}));
  EXPECT_FALSE(command_step());
  EXPECT_EQ(answer(Verb::SetSettings),
            (Answer{Status::Persistence, "machine persistence failure"}));
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, AWriteThatFailsEndsTheWorker) {
  send(Verb::PairingClose);
  commands_.writes_fail = true;
  EXPECT_FALSE(command_step());
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, NothingIsReadOnceTheWorkerStops) {
  send(Verb::PairingOpen, {60, 0, 0, 0});
  service_answers(Status::Ok);
  stop_event_.set();
  EXPECT_FALSE(command_step());
  EXPECT_FALSE(channel_.event_step());
  EXPECT_THAT(commands_.limits_ms, IsEmpty());
  EXPECT_THAT(events_.limits_ms, IsEmpty());
}

// ---- Events

TEST_F(WorkerChannelSteps, AHeartbeatGoesOutEvery100Milliseconds) {
  service_answers(Status::Ok);
  EXPECT_EQ(event_step_ms(true), 100u);
  EXPECT_EQ(event_step_ms(true), 100u);
  EXPECT_THAT(asked_, ElementsAre(Verb::Heartbeat, Verb::Heartbeat));
}

TEST_F(WorkerChannelSteps, ARequestForAttentionGoesOutOnceInPlaceOfAHeartbeat) {
  service_answers(Status::Ok);
  channel_.sas_requested = true;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(channel_.event_step());
  EXPECT_THAT(asked_, ElementsAre(Verb::SecureAttention, Verb::Heartbeat, Verb::Heartbeat));
}

TEST_F(WorkerChannelSteps, AnyOtherStatusToAHeartbeatIsAnOrderToStop) {
  for (const Status status : {Status::Invalid, Status::Denied, Status::Unavailable,
                              Status::Persistence, Status::Failed}) {
    stop_event_.reset();
    service_answers(status);
    EXPECT_FALSE(channel_.event_step());
    EXPECT_TRUE(stopped());
  }
}

TEST_F(WorkerChannelSteps, TheStatusToARequestForAttentionIsIgnored) {
  service_answers(Status::Ok, Status::Denied);
  channel_.sas_requested = true;
  EXPECT_TRUE(channel_.event_step());
  EXPECT_FALSE(stopped());
}

TEST_F(WorkerChannelSteps, AHeartbeatThatIsNotAnsweredEndsTheWorkerInFiveSeconds) {
  EXPECT_EQ(event_step_ms(false), 5'000u);
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, AnAnswerToAnotherVerbEndsTheWorker) {
  events_.incoming.push_back(host_service::encode_response(Verb::Status, Status::Ok, ""));
  EXPECT_FALSE(channel_.event_step());
  EXPECT_TRUE(stopped());
}

TEST_F(WorkerChannelSteps, NothingIsSentToAServerThatIsNotTheService) {
  events_.server = SOMEBODY;
  EXPECT_FALSE(channel_.event_step());
  EXPECT_TRUE(stopped());
  EXPECT_THAT(events_.written, IsEmpty());
}

TEST_F(WorkerChannelSteps, AHeartbeatThatCannotBeWrittenEndsTheWorker) {
  events_.writes_fail = true;
  EXPECT_FALSE(channel_.event_step());
  EXPECT_TRUE(stopped());
}
