// The real worker on a machine of its own, under a service as small as it can be: each exit code
// from its real cause, and nothing left behind.
#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <set>

#include "connection/netsock.h"
#include "control/security.h"
#include "tests/support/linux/forked.h"
#include "tests/support/linux/machine_lab.h"
#include "tests/support/linux/process_image.h"
#include "tests/support/linux/screen_saver.h"
#include "tests/support/small_service.h"
#include "tests/support/temp_directory.h"
#include "tests/system/desk_support.h"

using host_service::Status;
using host_service::Verb;
using testing::HasSubstr;
using testing::IsSubsetOf;
using testing::Not;

namespace system_test {
namespace {

namespace fs = std::filesystem;

constexpr int PORT = 9876;
constexpr char RUNTIME[] = "/run/lunderhaze";
constexpr char STORE[] = "/var/lib/lunderhaze/host";
constexpr char STOPPED[] = "Host worker stopped: startup or machine persistence failure";
constexpr seconds PATIENCE(20);
constexpr seconds SERVICE_GONE(5);  // the worker ends by then
constexpr seconds SLACK(5);         // of a loaded computer

// USB HID usages, page 7.
constexpr int USAGE_A = 0x04, USAGE_DELETE = 0x4C, USAGE_LEFT_CTRL = 0xE0, USAGE_LEFT_ALT = 0xE2;

class WorkerProgramTest : public DeskTest {
 protected:
  void SetUp() override {
    if (!MachineLab::missing().empty()) GTEST_SKIP() << MachineLab::missing();
    DeskTest::SetUp();
    lab_.emplace();
    client_place_ = lab_->inside({});
    port_ = PORT;
    start_desktop(640, 400);
  }
  void TearDown() override {
    if (HasFailure() && worker_) ADD_FAILURE() << "the worker's log:\n" << log();
    hand_.reset();
    if (service_) lab_->call([this] { service_.reset(); });
    worker_.reset();
    lab_.reset();
    DeskTest::TearDown();
  }

  // ---- The service

  void serve_pipes() {
    lab_->call([this] { service_.emplace(channel_); });
    ASSERT_TRUE(service_->serves());
  }
  std::string ask(Verb verb, const std::vector<unsigned char>& payload = {}) {
    const auto result = service_->ask(verb, payload);
    EXPECT_TRUE(result) << "no answer";
    return result ? result->text : "";
  }
  void leave() {
    lab_->call([this] { service_.reset(); });
  }

  // ---- The worker

  std::vector<std::string> arguments(pid_t supervisor = getpid()) const {
    return {"--supervisor", std::to_string(supervisor), "--channel", channel_};
  }
  ChildProcess launch(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& by = {}) {
    return ChildProcess(lab_->inside(at(by, "lunderhaze-worker", arguments)), environment_);
  }
  void launch_worker() {
    worker_ = std::make_unique<ChildProcess>(lab_->inside(at({}, "lunderhaze-worker", arguments())),
                                             environment_);
  }
  // A worker that runs, with this test as its service.
  void start_worker() {
    serve_pipes();
    launch_worker();
    ASSERT_TRUE(service_->meet());
    ASSERT_TRUE(service_->wait_heartbeats(1));
  }
  // Expects its end with that code, without a word and with nothing left behind.
  void expect_end(int code) {
    EXPECT_EQ(worker_->wait(PATIENCE), code);
    EXPECT_EQ(worker_->output(), "");
    expect_nothing_left();
  }
  void expect_nothing_left() {
    EXPECT_TRUE(lab_->processes("lunderhaze-worker").empty());
    EXPECT_TRUE(User(desktop_->display()).holds_nothing());
    if (service_) leave();
    EXPECT_THAT(names_in(RUNTIME), testing::IsEmpty());
    EXPECT_THAT(names_in(STORE),
                IsSubsetOf({"host.log", "store.key", "identity", "host_id", "settings",
                            "authorized_clients", "pairing_password", "relays", "clipboard_sync"}));
  }
  int run_worker(const std::vector<std::string>& with, const std::vector<std::string>& by = {}) {
    ChildProcess process = launch(with, by);
    const int code = process.wait(PATIENCE).value_or(-1);
    EXPECT_EQ(process.output(), "");
    return code;
  }

  std::set<std::string> names_in(const fs::path& directory) const {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(lab_->path(directory), error))
      names.insert(entry.path().filename());
    return names;
  }
  fs::path stored(const std::string& name) const { return lab_->path(STORE) / name; }
  void store(const std::string& name, const std::string& content) {
    write_file(stored(name), content);
    fs::permissions(stored(name), fs::perms::owner_read | fs::perms::owner_write);
  }
  // A store as a worker that has run leaves it.
  void make_store() {
    start_worker();
    EXPECT_EQ(ask(Verb::Stop), "worker stopping");
    expect_end(0);
  }
  std::string log() const { return file_content(stored("host.log")); }

  // ---- A client

  void pair_by_pin() {
    const std::string pin = ask(Verb::PairingOpen, {60, 0, 0, 0});
    const RunResult result = client({"pair", "--host", host_address(), "--pin", pin});
    ASSERT_EQ(result.status, 0) << result.output;
  }
  // One that streams and holds a key and a button down.
  void start_stream_with_a_key_down() {
    end_key_repeat();
    pair_by_pin();
    start_hand();
    hand_->act("0 key " + std::to_string(USAGE_A) + " down");
    hand_->act("0 button 1 down");
    User user(desktop_->display());
    EXPECT_TRUE(comes_true([&] { return !user.holds_nothing(); }));
  }

  const std::string channel_ =
      std::string(host_service::WORKER_PIPE_PREFIX) + "00112233445566778899aabbccddeeff";
  std::optional<MachineLab> lab_;
  std::optional<SmallService> service_;
  std::unique_ptr<ChildProcess> worker_;
};

// ---- 0

TEST_F(WorkerProgramTest, StopIsAnsweredAndEndsItWith0) {
  start_worker();
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(0);
  EXPECT_THAT(log(), Not(HasSubstr(STOPPED)));
}

TEST_F(WorkerProgramTest, SigtermAndSigintEndItWith0) {
  for (const int number : {SIGTERM, SIGINT}) {
    start_worker();
    worker_->signal(number);
    expect_end(0);
  }
}

TEST_F(WorkerProgramTest, AServiceThatIsGoneEndsItWith0AndAByeToItsClient) {
  start_worker();
  start_stream_with_a_key_down();
  const auto since = std::chrono::steady_clock::now();
  leave();
  EXPECT_EQ(worker_->wait(PATIENCE), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - since, SERVICE_GONE + SLACK);
  EXPECT_TRUE(hand_->has_said("ended: the host ended the stream"));
  expect_nothing_left();
}

TEST_F(WorkerProgramTest, AServiceThatIsKilledEndsItWith0AndAByeToItsClient) {
  // The service is a process of its own, and lets the client in.
  const Signal met;
  Forked service([&] {
    bool answered = false;
    lab_->call([&] {
      SmallService supervisor(channel_);
      answered = supervisor.meet() && supervisor.wait_heartbeats(1) &&
                 supervisor.ask(Verb::SetPassword, {'p', 'a', 's', 's'}).has_value();
      if (answered) met.give();
      pause();
    });
    return 1;
  });
  worker_ = std::make_unique<ChildProcess>(
      lab_->inside(at({}, "lunderhaze-worker", arguments(service.pid()))), environment_);
  met.take();
  const RunResult paired = client({"pair", "--host", host_address(), "--password", "pass"});
  ASSERT_EQ(paired.status, 0) << paired.output;
  start_hand();
  const auto since = std::chrono::steady_clock::now();
  service.end();
  EXPECT_EQ(worker_->wait(PATIENCE), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - since, SERVICE_GONE + SLACK);
  EXPECT_TRUE(hand_->has_said("ended: the host ended the stream"));
}

TEST_F(WorkerProgramTest, AStopWhileAClientHoldsAKeyLetsGoOfIt) {
  start_worker();
  start_stream_with_a_key_down();
  EXPECT_THAT(ask(Verb::Status), HasSubstr("; connected\n"));
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(0);
  EXPECT_TRUE(hand_->has_said("ended: the host ended the stream"));
}

TEST_F(WorkerProgramTest, VersionIsTheOneWordItSays) {
  const RunResult result = lab_->run({program("lunderhaze-worker"), "--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, testing::MatchesRegex("Lunderhaze [0-9.]+ \\(.+\\)\n"));
}

// ---- 1

TEST_F(WorkerProgramTest, WrongArgumentsEndItWith1) {
  EXPECT_EQ(run_worker({}), 1);
  EXPECT_EQ(run_worker({"--version", "--version"}), 1);
  EXPECT_EQ(run_worker({"--channel", channel_, "--supervisor", "12"}), 1);
  EXPECT_EQ(run_worker({"--supervisor", "12x", "--channel", channel_}), 1);
  EXPECT_EQ(run_worker({"--supervisor", "12", "--channel", channel_ + "0"}), 1);
  EXPECT_FALSE(fs::exists(lab_->path(RUNTIME)));
}

TEST_F(WorkerProgramTest, WithoutRootItEndsWith1) {
  EXPECT_EQ(run_worker(arguments(),
                       {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"}),
            1);
  EXPECT_FALSE(fs::exists(lab_->path(RUNTIME)));
}

TEST_F(WorkerProgramTest, WithoutAGraphicalSessionItEndsWith1) {
  environment_["DISPLAY"] = "";
  EXPECT_EQ(run_worker(arguments()), 1);
  EXPECT_FALSE(fs::exists(lab_->path(RUNTIME)));
}

// ---- 2

TEST_F(WorkerProgramTest, ARuntimeDirectoryThatIsNotPrivateEndsItWith2) {
  const fs::path directory = lab_->path(RUNTIME);
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms(0755));
  EXPECT_EQ(run_worker(arguments()), 2);
  fs::permissions(directory, fs::perms(0700));
  ASSERT_EQ(chown(directory.c_str(), ORDINARY_USER, ORDINARY_USER), 0);
  EXPECT_EQ(run_worker(arguments()), 2);
  fs::remove(directory);
  fs::create_directory_symlink("/var/lib", directory);
  EXPECT_EQ(run_worker(arguments()), 2);
  EXPECT_TRUE(fs::is_empty(lab_->path("/var/lib")));
}

// ---- 3

TEST_F(WorkerProgramTest, ASecondWorkerEndsWith3AndDoesNotDisturbTheFirst) {
  start_worker();
  EXPECT_EQ(run_worker(arguments()), 3);
  EXPECT_TRUE(service_->wait_heartbeats(2));
  EXPECT_THAT(ask(Verb::Status), HasSubstr("worker running; "));
  EXPECT_EQ(run_worker(arguments()), 3);
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(0);
}

TEST_F(WorkerProgramTest, AKilledWorkersLockDoesNotKeepTheNextOneOut) {
  start_worker();
  worker_->signal(SIGKILL);
  EXPECT_EQ(worker_->wait(PATIENCE), 128 + SIGKILL);
  leave();
  start_worker();
  EXPECT_EQ(ask(Verb::Stop), "worker stopping");
  expect_end(0);
}

// ---- 4

TEST_F(WorkerProgramTest, WithoutPipesItEndsWith4AfterFiveSeconds) {
  const auto since = std::chrono::steady_clock::now();
  EXPECT_EQ(run_worker(arguments()), 4);
  EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(4'900));
  expect_nothing_left();
  EXPECT_FALSE(fs::exists(lab_->path(STORE)));
}

TEST_F(WorkerProgramTest, PipesOfAnotherProcessThanTheSupervisorEndItWith4) {
  serve_pipes();
  EXPECT_EQ(run_worker(arguments(getppid())), 4);
  EXPECT_FALSE(fs::exists(lab_->path(STORE)));
}

// ---- 5

TEST_F(WorkerProgramTest, ADamagedStoreEndsItWith5AndIsKeptAsItIs) {
  make_store();
  store("identity", "damaged");
  serve_pipes();
  launch_worker();
  expect_end(5);
  EXPECT_EQ(file_content(stored("identity")), "damaged");
  EXPECT_THAT(log(), Not(HasSubstr(STOPPED)));  // it was not open yet
}

TEST_F(WorkerProgramTest, AStoreThatOthersCanReadEndsItWith5) {
  make_store();
  fs::permissions(lab_->path(STORE), fs::perms(0755));
  serve_pipes();
  launch_worker();
  expect_end(5);
}

TEST_F(WorkerProgramTest, MalformedSettingsEndItWith5) {
  make_store();
  store("settings", "sixteen bytes, no");
  serve_pipes();
  launch_worker();
  expect_end(5);
}

TEST_F(WorkerProgramTest, AMalformedHostIdEndsItWith5AndALine) {
  make_store();
  store("host_id", "no number");
  serve_pipes();
  launch_worker();
  expect_end(5);
  EXPECT_THAT(log(), HasSubstr(STOPPED));
}

TEST_F(WorkerProgramTest, ABusyPortEndsItWith5AndALine) {
  lund_socket taken = LUND_NO_SOCKET;
  lab_->call([&] { taken = lund_udp_open(4, nullptr, PORT); });
  ASSERT_NE(taken, LUND_NO_SOCKET);
  serve_pipes();
  launch_worker();
  expect_end(5);
  EXPECT_THAT(log(), HasSubstr(STOPPED));
  lund_udp_close(taken);
}

// ---- 6

TEST_F(WorkerProgramTest, ASaveThatFailsIsAnsweredAndEndsItWith6AndAByeToItsClient) {
  start_worker();
  start_stream_with_a_key_down();
  fs::create_directory(stored("settings"));  // no file can take its place
  const auto result =
      service_->ask(Verb::SetSettings, host_service::encode_settings(host_service::Settings{}));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, Status::Persistence);
  EXPECT_EQ(result->text, "machine persistence failure");
  expect_end(6);
  EXPECT_TRUE(hand_->has_said("ended: the host ended the stream"));
}

TEST_F(WorkerProgramTest, ADeviceThatCannotBeSavedEndsItWith6) {
  start_worker();
  const std::string pin = ask(Verb::PairingOpen, {60, 0, 0, 0});
  fs::create_directory(stored("authorized_clients"));
  client({"pair", "--host", host_address(), "--pin", pin});
  expect_end(6);
  EXPECT_THAT(log(), HasSubstr("paired device persistence failed; authorization was not saved"));
}

// ---- What else a service needs of it

TEST_F(WorkerProgramTest, TheServiceKnowsItsWorkerByItsPipes) {
  start_worker();
  const auto worker = host_service::Process::open(static_cast<std::uint32_t>(worker_->pid()));
  std::uint32_t session = 0;
  ASSERT_TRUE(host_service::system_process(worker, &session));
  EXPECT_EQ(session, std::stoul(desktop_->display().substr(1)) + 1);
  EXPECT_TRUE(host_service::pipe_client(service_->commands(), false, &worker, session));
  EXPECT_TRUE(host_service::pipe_client(service_->events(), false, &worker, session));
  EXPECT_FALSE(host_service::pipe_client(service_->commands(), false, &worker, session + 1));
}

TEST_F(WorkerProgramTest, AClientsChordAsksTheServiceForAttention) {
  start_worker();
  end_key_repeat();
  pair_by_pin();
  start_hand();
  for (const int usage : {USAGE_LEFT_CTRL, USAGE_LEFT_ALT, USAGE_DELETE})
    hand_->act("0 key " + std::to_string(usage) + " down");
  EXPECT_TRUE(comes_true([&] { return service_->attentions() == 1; }));
  for (const int usage : {USAGE_DELETE, USAGE_LEFT_ALT, USAGE_LEFT_CTRL})
    hand_->act("0 key " + std::to_string(usage) + " up");
  EXPECT_EQ(hand_->leave(), 0);
  EXPECT_TRUE(service_->wait_heartbeats(3));
  EXPECT_EQ(service_->attentions(), 1);
}

TEST_F(WorkerProgramTest, WhatTheServiceSentAndGotOfSecretsIsNowhereInItsMemory) {
  start_worker();
  const std::string password = "correct horse battery staple";
  const std::string relay_key = "a-key-of-a-relay-server";
  EXPECT_EQ(ask(Verb::SetPassword, {password.begin(), password.end()}), "completed");
  const std::string relays =
      "lunderhaze-relays-v1\nlunderhaze-relay://relay.example:9877#" + relay_key + "\n";
  EXPECT_EQ(ask(Verb::SetRelays, {relays.begin(), relays.end()}), "completed");
  const std::string pin = ask(Verb::PairingOpen, {60, 0, 0, 0});
  EXPECT_EQ(client({"pair", "--host", host_address(), "--pin", pin}).status, 0);
  EXPECT_EQ(ask(Verb::PairingClose), "completed");
  const RunResult paired = client({"pair", "--host", host_address(), "--password", password});
  EXPECT_EQ(paired.status, 0) << paired.output;
  EXPECT_TRUE(service_->wait_heartbeats(1));

  worker_->signal(SIGSTOP);
  const auto in_memory = [this](const std::string& text) {
    return image_count(worker_->pid(),
                       {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  };
  EXPECT_GE(in_memory("--supervisor"), 1);  // the eye sees
  EXPECT_EQ(in_memory(password), 0);
  EXPECT_EQ(in_memory(relay_key), 0);
  EXPECT_LE(in_memory(pin), 1);  // in the engine's own record, until the next one
  worker_->signal(SIGCONT);
  EXPECT_THAT(log(), testing::AllOf(Not(HasSubstr(password)), Not(HasSubstr(relay_key)),
                                    Not(HasSubstr(pin))));
}

TEST_F(WorkerProgramTest, TheScreenStaysAwakeWhileAClientIsConnected) {
  start_worker();
  pair_by_pin();
  ScreenSaver saver;
  start_hand();
  EXPECT_TRUE(saver.is_held_off());
  EXPECT_EQ(hand_->leave(), 0);
  EXPECT_TRUE(saver.comes());
}

}  // namespace
}  // namespace system_test
