#include "apps/service/service_commands.h"

#include "tests/apps/service_rig.h"

namespace service_test {
namespace {

using host_service::Request;
using host_service::Result;
using host_service::Settings;
using host_service::Status;
using host_service::Verb;

class ServiceCommandsTest : public ServiceRig {
 protected:
  Result ask(Verb verb, std::vector<unsigned char> payload = {}) {
    return carry_out({verb, std::move(payload)}, supervisor_, [this] { return stored_; });
  }
  std::optional<Settings> stored_ = Settings{};
};

TEST_F(ServiceCommandsTest, StatusHasTheServicesLinesInFrontOfTheWorkers) {
  step();
  worker().answer = {Status::Ok, "worker running; code 7K2M-Q9TX; idle\ndefaults 1 2\n"};
  const Result result = ask(Verb::Status);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_EQ(result.text,
            "service running; worker PID 100; session 1; starts 1; last exit: none\n"
            "stored 9876 60 20000 1 1 1 1 1400\n"
            "worker running; code 7K2M-Q9TX; idle\ndefaults 1 2\n");
}

TEST_F(ServiceCommandsTest, StatusNamesTheStoredSettingsInTheOrderOfTheRunningOnes) {
  stored_ = Settings{1, 2, 503, 2, 0, 2, 0, 600};
  no_session("no session is active");
  step();
  EXPECT_NE(ask(Verb::Status).text.find("stored 1 2 503 2 0 2 0 600\n"), std::string::npos);
  stored_.reset();
  EXPECT_NE(ask(Verb::Status).text.find("\nstored unreadable\n"), std::string::npos);
}

TEST_F(ServiceCommandsTest, StatusWithoutAWorkerIsTheServicesLinesAloneAndSaysWhy) {
  step();
  worker().exit(1);
  step();
  const Result result = ask(Verb::Status);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_TRUE(result.text.starts_with("service running; no worker (not starting the worker again"));
  EXPECT_NE(result.text.find("; last exit: exit code 1: its arguments were wrong"),
            std::string::npos);
  EXPECT_EQ(std::ranges::count(result.text, '\n'), 2);
}

TEST_F(ServiceCommandsTest, StatusOfAWorkerThatCannotAnswerSaysSo) {
  step();
  worker().answer = {Status::Unavailable, "the worker is starting"};
  EXPECT_NE(ask(Verb::Status).text.find("\nworker: the worker is starting\n"), std::string::npos);
}

TEST_F(ServiceCommandsTest, AStatusThatIsTooLongIsCutToWhatAnAnswerHolds) {
  step();
  worker().answer = {Status::Ok, std::string(host_service::RESPONSE_TEXT_MAX, 'x')};
  EXPECT_EQ(ask(Verb::Status).text.size(), host_service::RESPONSE_TEXT_MAX);
}

TEST_F(ServiceCommandsTest, TheWorkersVerbsGoToTheWorkerAndItsAnswerComesBack) {
  step();
  worker().answer = {Status::Persistence, "machine persistence failure"};
  const std::vector<unsigned char> payload = {60, 0, 0, 0};
  for (const Verb verb :
       {Verb::PairingOpen, Verb::PairingClose, Verb::SetPassword, Verb::ClearPassword,
        Verb::RemoveDevice, Verb::SetRelays, Verb::SetSettings}) {
    const Result result = ask(verb, payload);
    EXPECT_EQ(result.status, Status::Persistence);
    EXPECT_EQ(result.text, "machine persistence failure");
    ASSERT_FALSE(worker().requests.empty());
    EXPECT_EQ(worker().requests.back().verb, verb);
    EXPECT_EQ(worker().requests.back().payload, payload);
  }
  EXPECT_EQ(worker().requests.size(), 7u);
}

TEST_F(ServiceCommandsTest, WithoutAWorkerItsVerbsAreUnavailableAndTheTextSaysWhy) {
  no_session("no session is active");
  step();
  const Result result = ask(Verb::PairingClose);
  EXPECT_EQ(result.status, Status::Unavailable);
  EXPECT_EQ(result.text,
            "no worker is running: waiting for a graphical session: no session is active");
}

TEST_F(ServiceCommandsTest, Verb9RestartsTheWorker) {
  step();
  const Result result = ask(Verb::Verb9);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_EQ(result.text, "worker restarting");
  run_ms(1);
  EXPECT_EQ(starts(), 2u);
  EXPECT_TRUE(workers_[0]->requests.empty());
}

TEST_F(ServiceCommandsTest, Verb9WithoutASessionIsUnavailable) {
  no_session("no session is active");
  step();
  EXPECT_EQ(ask(Verb::Verb9).status, Status::Unavailable);
}

TEST_F(ServiceCommandsTest, StopEndsWorkerAndService) {
  step();
  const Result result = ask(Verb::Stop);
  EXPECT_EQ(result.status, Status::Ok);
  EXPECT_EQ(result.text, "service stopping");
  run_ms(1);
  EXPECT_TRUE(supervisor_.done());
}

TEST_F(ServiceCommandsTest, TheEventsOfAWorkerAreDeniedToAdministrators) {
  step();
  for (const Verb verb : {Verb::Heartbeat, Verb::SecureAttention}) {
    EXPECT_EQ(ask(verb).status, Status::Denied);
    EXPECT_EQ(ask(verb).text, "command denied");
  }
  EXPECT_TRUE(worker().requests.empty());
}

}  // namespace
}  // namespace service_test
