// The service's own pipe, with this process and others as administrators' programs.
#include "apps/service/admin_server.h"

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/apps/realtime/linux/service_pipes.h"
#include "tests/support/linux/forked.h"

namespace service_test {
namespace {

using namespace host_service;

class AdminServerTest : public PipesTest {
 protected:
  void SetUp() override {
    PipesTest::SetUp();
    if (IsSkipped()) return;
    server_ = std::make_unique<AdminServer>(
        SERVICE_PIPE, [this](const Request& request) { return handle(request); },
        [this](const std::string& line) { say(line); });
    ASSERT_TRUE(server_->start());
  }
  Result handle(const Request& request) {
    ++handled_;
    if (request.verb == Verb::SetPassword) hold_.wait(10'000);
    return {Status::Ok, "verb " + std::to_string(static_cast<int>(request.verb))};
  }
  static Result ask(Verb verb) { return transact(SERVICE_PIPE, {verb, {}}, nullptr); }

  std::atomic<int> handled_{0};
  WakeEvent hold_{WakeEvent::Reset::Manual};
  std::unique_ptr<AdminServer> server_;
};

TEST_F(AdminServerTest, AnswersOneRequestAConnection) {
  for (int i = 0; i < 10; ++i) {
    const Result result = ask(Verb::Status);
    EXPECT_EQ(result.status, Status::Ok);
    EXPECT_EQ(result.text, "verb 1");
  }
  Pipe pipe = open_pipe(SERVICE_PIPE, nullptr, 5'000);
  std::vector<unsigned char> answer;
  ASSERT_TRUE(write_frame(pipe, encode_request({Verb::Status, {}}), nullptr, 5'000));
  ASSERT_TRUE(read_frame(pipe, &answer, nullptr, 5'000));
  write_frame(pipe, encode_request({Verb::Status, {}}), nullptr, 5'000);
  EXPECT_FALSE(read_frame(pipe, &answer, nullptr, 5'000));
  EXPECT_EQ(handled_, 11);
}

TEST_F(AdminServerTest, AnOrdinaryUserIsNotLetIn) {
  Forked user([] {
    if (!become_ordinary()) return 1;
    return ask(Verb::Status).status == Status::Unavailable ? 0 : 2;
  });
  EXPECT_EQ(user.wait(), 0);
  EXPECT_EQ(handled_, 0);
}

TEST_F(AdminServerTest, ASecondServiceIsRefused) {
  AdminServer second(
      SERVICE_PIPE, [](const Request&) { return Result{}; }, [](const std::string&) {});
  EXPECT_FALSE(second.start());
  EXPECT_EQ(ask(Verb::Status).text, "verb 1");
}

TEST_F(AdminServerTest, MalformedRequestsAreDroppedUnansweredAndOthersServed) {
  const std::vector<std::vector<unsigned char>> hostile = {
      {'L', 'H', 'I', 'P', 1, 0, 1, 0, 0x01, 0x40, 0, 0},  // 16,385 bytes
      {'L', 'H', 'I', 'Q', 1, 0, 1, 0, 0, 0, 0, 0},        // another magic
      {'L', 'H', 'I', 'P', 1, 0, 11, 0, 0, 0, 0, 0},       // an unknown verb
      {'L', 'H', 'I', 'P', 1, 0, 2, 0, 4, 0, 0, 0, 29, 0, 0, 0},
  };
  for (const std::vector<unsigned char>& bytes : hostile) {
    Pipe pipe = open_pipe(SERVICE_PIPE, nullptr, 5'000);
    ASSERT_TRUE(pipe);
    EXPECT_TRUE(write_frame(pipe, bytes, nullptr, 5'000));
    std::vector<unsigned char> answer;
    EXPECT_FALSE(read_frame(pipe, &answer, nullptr, 5'000));
  }
  EXPECT_EQ(handled_, 0);
  EXPECT_EQ(ask(Verb::Status).text, "verb 1");
  EXPECT_EQ(said("dropped a request"), static_cast<int>(hostile.size()));
}

TEST_F(AdminServerTest, APeerThatEndsInMidFrameIsForgotten) {
  for (int i = 0; i < 10; ++i) {
    Forked peer([] {
      Pipe pipe = open_pipe(SERVICE_PIPE, nullptr, 5'000);
      const std::vector<unsigned char> half = {'L', 'H', 'I', 'P', 1, 0};
      return write_frame(pipe, half, nullptr, 5'000) ? 0 : 1;
    });
    EXPECT_EQ(peer.wait(), 0);
  }
  EXPECT_EQ(ask(Verb::Status).text, "verb 1");
  EXPECT_EQ(handled_, 1);
}

// As many as there are instances send nothing: the next administrator waits no longer than its own
// 5 s allow.
TEST_F(AdminServerTest, SilentPeersOnAllInstancesHoldAnAdministratorUpForLessThanItsLimit) {
  std::vector<Pipe> silent;
  for (int i = 0; i < AdminServer::INSTANCES; ++i) {
    silent.push_back(open_pipe(SERVICE_PIPE, nullptr, 5'000));
    ASSERT_TRUE(silent.back());
  }
  EXPECT_EQ(ask(Verb::Status).text, "verb 1");
  EXPECT_LE(AdminServer::CLIENT_LIMIT_MS, PIPE_LIMIT_MS);
}

TEST_F(AdminServerTest, APeerThatSendsAByteASecondIsCutOff) {
  Pipe slow = open_pipe(SERVICE_PIPE, nullptr, 5'000);
  ASSERT_TRUE(slow);
  std::atomic<bool> cut{false};
  std::thread sender([&slow, &cut] {
    const std::vector<unsigned char> request = encode_request({Verb::Status, {}});
    for (const unsigned char byte : request) {
      if (!write_frame(slow, {byte}, nullptr, 5'000)) break;
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    cut = true;
  });
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ask(Verb::Status).text, "verb 1");
  sender.join();
  EXPECT_TRUE(cut);
  EXPECT_EQ(said("too slow"), 1);
}

TEST_F(AdminServerTest, ARequestThatTakesItsTimeHoldsNobodyElseUp) {
  std::thread first([] { transact(SERVICE_PIPE, {Verb::SetPassword, {'a'}}, nullptr); });
  while (handled_ == 0) std::this_thread::yield();
  EXPECT_EQ(ask(Verb::Status).text, "verb 1");
  hold_.set();
  first.join();
}

TEST_F(AdminServerTest, AnAnswerThatIsUnderWayStillGoesOutAtTheEnd) {
  std::thread administrator([] {
    EXPECT_EQ(transact(SERVICE_PIPE, {Verb::SetPassword, {'a'}}, nullptr).text, "verb 4");
  });
  while (handled_ == 0) std::this_thread::yield();
  hold_.set();
  server_->stop();
  administrator.join();
}

TEST_F(AdminServerTest, NothingOfTheNameIsLeftAtTheEnd) {
  server_->stop();
  for (const auto& entry : std::filesystem::directory_iterator("/run/lunderhaze"))
    ADD_FAILURE() << entry.path();
}

}  // namespace
}  // namespace service_test
