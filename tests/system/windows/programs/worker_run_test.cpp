// The worker's program beyond its peer, under a service as small as it can be: each exit code from
// its real cause, on a store that counts as the system's. By LocalSystem, whose pipes it trusts.
#include <gmock/gmock.h>

#include "connection/netsock.h"
#include "control/security.h"
#include "control/windows/wide_text.h"
#include "tests/support/small_service.h"
#include "tests/support/windows/heard_program.h"
#include "tests/support/windows/installed_programs.h"
#include "worker/exit_code.h"

namespace {

using host_app::ExitCode;
using host_service::Status;
using host_service::Verb;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr std::uint16_t PORT = 9876;
constexpr seconds SERVICE_GONE{5};  // the worker ends by then
constexpr seconds SLACK{5};         // of a loaded computer
constexpr char STOPPED[] = "Host worker stopped: startup or machine persistence failure";

class WorkerOfTheSystem : public testing::Test {
 protected:
  void SetUp() override {
    if (!host_service::system_process(host_service::Process::current(), nullptr))
      GTEST_SKIP() << "a worker trusts no pipes but the system's";
    if (!InstalledPrograms::possible()) GTEST_SKIP() << "this computer's store is its own";
    installed_.emplace();
  }
  void TearDown() override {
    if (HasFailure() && installed_) ADD_FAILURE() << "the worker's log:\n" << log();
  }

  std::wstring command() const { return command((*installed_ / "lunderhaze-worker.exe").native()); }
  static std::wstring command(const std::wstring& program) {
    return program + L" --supervisor " + std::to_wstring(GetCurrentProcessId()) + L" --channel " +
           to_wide(CHANNEL);
  }
  void serve_pipes() {
    service_.emplace(CHANNEL);
    ASSERT_TRUE(service_->serves());
  }
  // A worker that runs, with this test as its service.
  void start_worker() {
    serve_pipes();
    worker_ = std::make_unique<HeardProgram>(command());
    ASSERT_TRUE(service_->meet());
    ASSERT_TRUE(service_->wait_heartbeats(1));
  }
  std::string ask(Verb verb, const std::vector<unsigned char>& payload = {}) {
    const auto result = service_->ask(verb, payload);
    EXPECT_TRUE(result) << "no answer";
    return result ? result->text : "";
  }
  // Its end with that code, without a word and with nothing left behind.
  void expect_end(ExitCode code) {
    EXPECT_EQ(worker_->wait(), static_cast<int>(code));
    EXPECT_EQ(worker_->output(), "");
    const Handle mutex(OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\LunderhazeHostWorker-v1"));
    EXPECT_FALSE(mutex);
    service_.reset();
  }
  void expect_failed_start() {
    serve_pipes();
    worker_ = std::make_unique<HeardProgram>(command());
    expect_end(ExitCode::Failed);
  }
  // A store as a worker that has run leaves it.
  void make_store() {
    start_worker();
    EXPECT_EQ(ask(Verb::Stop), "worker stopping");
    expect_end(ExitCode::Stopped);
    fs::remove(installed_->stored("host.log"));
  }
  std::string log() const { return file_content(installed_->stored("host.log")); }

  static inline const std::string CHANNEL =
      std::string(host_service::WORKER_PIPE_PREFIX) + "00112233445566778899aabbccddeeff";
  std::optional<InstalledPrograms> installed_;
  std::optional<SmallService> service_;
  std::unique_ptr<HeardProgram> worker_;
};

// ---- 0

TEST_F(WorkerOfTheSystem, StopIsAnsweredAndEndsItWith0) {
  start_worker();
  EXPECT_THAT(ask(Verb::Status), HasSubstr("worker running; code "));
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
  EXPECT_THAT(log(), HasSubstr("started (pid "));
  EXPECT_THAT(log(), Not(HasSubstr(STOPPED)));
}

TEST_F(WorkerOfTheSystem, AServiceThatIsGoneEndsItWith0) {
  start_worker();
  const auto since = steady_clock::now();
  service_->leave();
  EXPECT_EQ(worker_->wait(), static_cast<int>(ExitCode::Stopped));
  EXPECT_LT(steady_clock::now() - since, SERVICE_GONE + SLACK);
}

TEST_F(WorkerOfTheSystem, AHeartbeatsAnswerOrdersItsEndWith0) {
  start_worker();
  service_->order_stop();
  expect_end(ExitCode::Stopped);
}

TEST_F(WorkerOfTheSystem, TheNextOneKeepsTheIdentity) {
  start_worker();
  const std::string first = ask(Verb::Status);
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
  start_worker();
  EXPECT_EQ(ask(Verb::Status), first);
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
}

// ---- 2

// The text of the descriptor is a constant, so that no system in order refuses it.
TEST_F(WorkerOfTheSystem, ADescriptorThatTheSystemDoesNotAcceptEndsItWith2) {
  serve_pipes();
  const ProgramEnd end = run_program(command(L"worker_without_descriptors.exe"));
  EXPECT_EQ(end.status, static_cast<int>(ExitCode::Unprotected));
  EXPECT_EQ(end.output, "");
  EXPECT_FALSE(fs::exists(installed_->stored("host.log")));
}

// ---- 3

TEST_F(WorkerOfTheSystem, ASecondWorkerEndsWith3AndDoesNotDisturbTheFirst) {
  start_worker();
  const ProgramEnd second = run_program(command());
  EXPECT_EQ(second.status, static_cast<int>(ExitCode::NotAlone));
  EXPECT_EQ(second.output, "");
  EXPECT_TRUE(service_->wait_heartbeats(2));
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
}

TEST_F(WorkerOfTheSystem, AKilledWorkersMutexDoesNotKeepTheNextOneOut) {
  start_worker();
  worker_->end();
  service_.reset();
  start_worker();
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
}

// ---- 5

TEST_F(WorkerOfTheSystem, ADamagedIdentityEndsItWith5AndIsKeptAsItIs) {
  make_store();
  write_file(installed_->stored("identity"), "damaged");
  expect_failed_start();
  EXPECT_EQ(file_content(installed_->stored("identity")), "damaged");
  EXPECT_FALSE(fs::exists(installed_->stored("host.log")));  // it was not open yet
}

TEST_F(WorkerOfTheSystem, MalformedSettingsEndItWith5) {
  make_store();
  write_file(installed_->stored("settings"), "fifteen bytes..");
  expect_failed_start();
  EXPECT_FALSE(fs::exists(installed_->stored("host.log")));
}

TEST_F(WorkerOfTheSystem, AMalformedHostIdEndsItWith5AndALine) {
  make_store();
  write_file(installed_->stored("host_id"), "no number");
  expect_failed_start();
  EXPECT_THAT(log(), HasSubstr(STOPPED));
}

TEST_F(WorkerOfTheSystem, ALogThatCannotBeOpenedEndsItWith5) {
  make_store();
  fs::create_directory(installed_->stored("host.log"));
  expect_failed_start();
}

TEST_F(WorkerOfTheSystem, ABusyPortEndsItWith5AndALine) {
  make_store();
  lund_net_init();
  const lund_socket taken = lund_udp_open(4, nullptr, PORT);
  ASSERT_NE(taken, LUND_NO_SOCKET);
  expect_failed_start();
  EXPECT_THAT(log(), HasSubstr(STOPPED));
  lund_udp_close(taken);
}

// ---- 6

TEST_F(WorkerOfTheSystem, ASaveThatFailsIsAnsweredAndEndsItWith6) {
  start_worker();
  fs::create_directory(installed_->stored("settings"));  // no file can take its place
  const auto result =
      service_->ask(Verb::SetSettings, host_service::encode_settings(host_service::Settings{}));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, Status::Persistence);
  EXPECT_EQ(result->text, "machine persistence failure");
  expect_end(ExitCode::StoreFailed);
}

TEST_F(WorkerOfTheSystem, ADeviceThatCannotBeSavedEndsItWith6) {
  start_worker();
  const std::string pin = ask(Verb::PairingOpen, {60, 0, 0, 0});
  fs::create_directory(installed_->stored("authorized_clients"));
  const TempDirectory client;
  const ProgramEnd paired = run_program(L"lunderhaze-client.exe --store " + client.path().native() +
                                        L" pair --host 127.0.0.1 --pin " + to_wide(pin));
  expect_end(ExitCode::StoreFailed);
  EXPECT_THAT(log(), HasSubstr("paired device persistence failed; authorization was not saved"))
      << paired.output;
}

// ---- What else a service needs of it

TEST_F(WorkerOfTheSystem, TheServiceKnowsItsWorkerByItsPipes) {
  start_worker();
  const auto worker = host_service::Process::open(worker_->program().id());
  std::uint32_t session = 0;
  ASSERT_TRUE(host_service::system_process(worker, &session));
  EXPECT_EQ(session, WTSGetActiveConsoleSessionId());
  EXPECT_TRUE(host_service::pipe_client(service_->commands(), false, &worker, session));
  EXPECT_TRUE(host_service::pipe_client(service_->events(), false, &worker, session));
  EXPECT_FALSE(host_service::pipe_client(service_->commands(), false, &worker, session + 1));
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(ExitCode::Stopped);
}

}  // namespace
