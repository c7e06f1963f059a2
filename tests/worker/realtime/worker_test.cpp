// The life of the worker's process on a platform that writes down what it is asked, with a real
// store, real pipes and a real socket: each exit code, and the order of the calls that lead there.
#include "worker/worker.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <stdexcept>

#include "connection/netsock.h"
#include "control/ipc_transport.h"
#include "control/keystore.h"
#include "control/security.h"
#include "control/settings.h"
#include "tests/support/fake_platform.h"
#include "tests/support/machine_store.h"
#include "tests/support/own_network.h"
#include "tests/support/pipe_place.h"
#include "tests/support/small_service.h"

using host_app::ExitCode;
using host_app::WorkerSystem;
using host_service::Status;
using host_service::Verb;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

using Calls = std::vector<std::string>;

constexpr std::uint16_t PORT = 9876;
constexpr std::chrono::seconds PATIENCE{20};
const std::string DIGITS = "0123456789abcdef0123456789abcdef";

std::string last_part(const std::string& pipe_name) {
  return std::filesystem::path(pipe_name).filename().string();
}

// The test's threads and the worker's write into it.
class CallBook {
 public:
  void add(const std::string& call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
  }
  Calls all() {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  Calls calls_;
};

// The pipes are those of the test's own directory.
class RecordingSystem final : public WorkerSystem {
 public:
  RecordingSystem(CallBook& book, const PipePlace& pipes) : book_(book), pipes_(pipes) {}

  void restrict_library_directories() override { book_.add("libraries"); }
  bool in_system_session() override {
    book_.add("identity");
    return is_system;
  }
  Lock take_lock() override {
    book_.add("lock");
    return lock;
  }
  void release_lock() override { book_.add("unlock"); }
  void stop_on_signals(WakeEvent* stop) override {
    book_.add(stop ? "signals on" : "signals off");
    const std::lock_guard guard(stop_mutex_);
    stop_event_ = stop;
  }
  host_service::Pipe open_pipe(const std::string& name, WakeEvent* stop) override {
    const bool events = name.ends_with(host_service::EVENTS_SUFFIX);
    book_.add(events ? "open events" : "open commands");
    return host_service::open_pipe(pipes_ / last_part(name), stop, open_limit_ms);
  }
  bool pipe_server(host_service::Pipe& pipe, std::uint32_t pid) override {
    book_.add("peer");
    return WorkerSystem::pipe_server(pipe, pid);
  }
  bool keep_display_awake(bool on) override {
    book_.add(on ? "awake" : "asleep");
    return true;
  }

  bool is_system = true;
  Lock lock = Lock::Held;
  std::uint32_t open_limit_ms = 20'000;

  // What a signal does, while the worker listens for it; false otherwise.
  bool request_end() {
    const std::lock_guard guard(stop_mutex_);
    if (stop_event_) stop_event_->set();
    return stop_event_ != nullptr;
  }

 private:
  std::mutex stop_mutex_;
  WakeEvent* stop_event_ = nullptr;  // the worker's own
  CallBook& book_;
  const PipePlace& pipes_;
};

class RecordingDisplays final : public VirtualDisplays {
 public:
  explicit RecordingDisplays(CallBook& book) : book_(book) {}
  VddState probe() override {
    book_.add("host starts");
    return {};
  }
  bool usable() override { return false; }
  bool acquire(int, int, int, int, const DesktopPoint*, DisplayInfo*, std::string*) override {
    return false;
  }
  void release(int) override {}
  void tick() override {}
  void restore_now() override { book_.add("host shuts down"); }
  std::string status_line() override { return ""; }

 private:
  CallBook& book_;
};

class WorkerLife : public testing::Test {
 protected:
  void SetUp() override {
    if (!PipePlace::possible()) GTEST_SKIP() << PipePlace::WHY_NOT;
    store_.emplace();
    platform_.add_display("DP-1", 0);
    platform_.on_list_displays = [this] { book_.add("list displays"); };
    record_ = platform_.record();
    record_.make_virtual_displays = [this] { return std::make_unique<RecordingDisplays>(book_); };
  }

  ExitCode run(std::vector<std::string> arguments) {
    return host_app::run_worker(arguments, system_, record_);
  }
  ExitCode run() { return run(arguments()); }
  std::vector<std::string> arguments() const {
    return {"--supervisor", std::to_string(host_service::Process::current().id()), "--channel",
            host_service::WORKER_PIPE_PREFIX + DIGITS};
  }

  void serve() {
    service_.emplace(pipes_ / last_part(arguments()[3]));
    ASSERT_TRUE(service_->serves());
  }
  // Runs it on a thread, with a service there.
  void launch() {
    serve();
    ended_ = std::async(std::launch::async, [this] { return run(); });
    ASSERT_TRUE(service_->meet());
  }
  // The same, once it runs.
  void start() {
    launch();
    ASSERT_TRUE(service_->wait_heartbeats(1));
  }
  ExitCode end() {
    if (ended_.wait_for(PATIENCE) == std::future_status::ready) return ended_.get();
    ADD_FAILURE() << "the worker doesn't end";
    system_.request_end();
    return ended_.get();
  }

  std::string log() const { return file_content(*store_ / "host.log"); }
  // The calls of a worker that got as far as its store.
  static Calls calls_around(const Calls& middle) {
    Calls all = {"libraries",     "identity",    "lock", "signals on",
                 "open commands", "open events", "peer", "peer"};
    all.insert(all.end(), middle.begin(), middle.end());
    all.insert(all.end(), {"signals off", "unlock"});
    return all;
  }

  const PipePlace pipes_;
  CallBook book_;
  RecordingSystem system_{book_, pipes_};
  FakePlatform platform_;
  Platform record_;
  std::optional<MachineStore> store_;
  std::optional<SmallService> service_;
  std::future<ExitCode> ended_;
};

// Beyond the proof of its peer, where a store and a port are the worker's.
class WorkerRun : public WorkerLife {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    if (!host_service::system_process(host_service::Process::current(), nullptr))
      GTEST_SKIP() << "a worker trusts no pipes but the system's";
    // The worker's port is the machine's; in a network of its own this test has it for itself.
    if (!have_own_network()) GTEST_SKIP() << "no network of its own here";
    WorkerLife::SetUp();
  }
};

const Calls WHOLE_LIFE = {"list displays", "host starts", "asleep", "host shuts down"};
constexpr char STOPPED[] = "Host worker stopped: startup or machine persistence failure";

}  // namespace

// ---- 0

TEST_F(WorkerRun, AStopCommandEndsItWith0AfterItsAnswer) {
  start();
  EXPECT_EQ(service_->ask(Verb::Stop)->text, "worker stopping");
  EXPECT_EQ(end(), ExitCode::Stopped);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around(WHOLE_LIFE)));
  EXPECT_THAT(log(), Not(HasSubstr(STOPPED)));
}

TEST_F(WorkerRun, ThePlatformsRequestToEndIsAnOrderlyStop) {
  start();
  EXPECT_TRUE(system_.request_end());
  EXPECT_EQ(end(), ExitCode::Stopped);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around(WHOLE_LIFE)));
}

TEST_F(WorkerRun, AServiceThatIsGoneEndsItInOrder) {
  start();
  service_->leave();
  EXPECT_EQ(end(), ExitCode::Stopped);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around(WHOLE_LIFE)));
}

TEST_F(WorkerRun, AnIdleWorkerAsksNothingOfThePowerManagerUntilItEnds) {
  start();
  EXPECT_TRUE(service_->wait_heartbeats(5));  // some polls
  EXPECT_THAT(book_.all().back(), "host starts");
  service_->leave();
  EXPECT_EQ(end(), ExitCode::Stopped);
}

TEST_F(WorkerRun, TheStoredSettingsAreItsHosts) {
  ASSERT_EQ(store_->configure(), "");
  host_service::Settings settings;
  settings.fps = 144;
  ASSERT_TRUE(host_app::save_settings(settings));
  store_->restart();
  start();
  EXPECT_THAT(service_->ask(Verb::Status)->text, HasSubstr("\ndefaults 9876 144 "));
  service_->leave();
  EXPECT_EQ(end(), ExitCode::Stopped);
}

TEST_F(WorkerRun, ItRunsWithoutADisplayToo) {
  platform_.displays.clear();
  start();
  service_->leave();
  EXPECT_EQ(end(), ExitCode::Stopped);
}

TEST_F(WorkerRun, ItNeverStartsWithPairingOpen) {
  start();
  EXPECT_THAT(service_->ask(Verb::Status)->text, HasSubstr("\npairing closed; "));
  service_->leave();
  EXPECT_EQ(end(), ExitCode::Stopped);
}

// ---- 1

TEST_F(WorkerLife, WrongArgumentsEndItWith1BeforeAnythingIsTouched) {
  const std::string pid = arguments()[1];
  const std::string channel = arguments()[3];
  for (const std::vector<std::string>& wrong :
       std::vector<std::vector<std::string>>{{},
                                             {"--channel", channel, "--supervisor", pid},
                                             {"--supervisor", pid, "--channel", channel, "more"},
                                             {"--supervisor", "0", "--channel", channel},
                                             {"--supervisor", "12x", "--channel", channel},
                                             {"--supervisor", "", "--channel", channel},
                                             {"--supervisor", pid, "--channel", channel + "0"}})
    EXPECT_EQ(run(wrong), ExitCode::Refused);
  EXPECT_THAT(book_.all(), testing::Each("libraries"));
}

TEST_F(WorkerLife, AProcessThatIsNotTheSystemsInASessionEndsWith1) {
  system_.is_system = false;
  EXPECT_EQ(run(), ExitCode::Refused);
  EXPECT_THAT(book_.all(), ElementsAre("libraries", "identity"));
}

// ---- 2 and 3

TEST_F(WorkerLife, ALockThatOthersCouldTakeEndsItWith2) {
  system_.lock = WorkerSystem::Lock::Unprotected;
  EXPECT_EQ(run(), ExitCode::Unprotected);
  EXPECT_THAT(book_.all(), ElementsAre("libraries", "identity", "lock"));
}

TEST_F(WorkerLife, ALockThatAnotherHasEndsItWith3) {
  system_.lock = WorkerSystem::Lock::NotHeld;
  EXPECT_EQ(run(), ExitCode::NotAlone);
  EXPECT_THAT(book_.all(), ElementsAre("libraries", "identity", "lock"));
}

// ---- 4

TEST_F(WorkerLife, AMissingCommandPipeEndsItWith4) {
  system_.open_limit_ms = 100;
  EXPECT_EQ(run(), ExitCode::NoPeer);
  EXPECT_THAT(book_.all(), ElementsAre("libraries", "identity", "lock", "signals on",
                                       "open commands", "signals off", "unlock"));
  EXPECT_TRUE(std::filesystem::is_empty(store_->parent()));
}

TEST_F(WorkerLife, AMissingEventsPipeEndsItWith4) {
  system_.open_limit_ms = 100;
  const host_service::Pipe commands =
      host_service::create_pipe(pipes_ / last_part(arguments()[3]), false, true);
  ASSERT_TRUE(commands);
  EXPECT_EQ(run(), ExitCode::NoPeer);
  EXPECT_THAT(book_.all(), ElementsAre("libraries", "identity", "lock", "signals on",
                                       "open commands", "open events", "signals off", "unlock"));
}

TEST_F(WorkerLife, ARequestToEndWhileItWaitsForItsPipesEndsItWith4) {
  ended_ = std::async(std::launch::async, [this] { return run(); });
  while (!system_.request_end()) std::this_thread::yield();
  EXPECT_EQ(end(), ExitCode::NoPeer);
}

TEST_F(WorkerLife, APipeOfALiveProcessOfTheSystemThatIsNotTheSupervisorEndsItWith4) {
  serve();
  std::vector<std::string> other = arguments();
  other[1] = std::to_string(host_service::Process::current().id() + 1);
  EXPECT_EQ(run(other), ExitCode::NoPeer);
  EXPECT_THAT(book_.all(),
              ElementsAre("libraries", "identity", "lock", "signals on", "open commands",
                          "open events", "peer", "signals off", "unlock"));
  EXPECT_TRUE(std::filesystem::is_empty(store_->parent()));
}

// ---- 5

TEST_F(WorkerRun, AStoreThatIsNotPrivateEndsItWith5AndWithoutALog) {
  ASSERT_EQ(store_->configure(), "");
  std::filesystem::permissions(store_->path(), std::filesystem::perms(0755));
  store_->restart();
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around({"asleep"})));
  EXPECT_FALSE(std::filesystem::exists(*store_ / "host.log"));
}

TEST_F(WorkerRun, ADamagedIdentityEndsItWith5AndIsKept) {
  ASSERT_EQ(store_->configure(), "");
  write_private_text(*store_ / "identity", "damaged");
  store_->restart();
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_EQ(file_content(*store_ / "identity"), "damaged");
}

TEST_F(WorkerRun, MalformedSettingsEndItWith5) {
  ASSERT_EQ(store_->configure(), "");
  write_private_text(*store_ / "settings", "0123456789abcdef");
  store_->restart();
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around({"asleep"})));
}

TEST_F(WorkerRun, ALogThatCannotBeOpenedEndsItWith5) {
  ASSERT_EQ(store_->configure(), "");
  std::filesystem::create_directory(*store_ / "host.log");
  std::filesystem::permissions(*store_ / "host.log", std::filesystem::perms::owner_all);
  store_->restart();
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_EQ(store_failure(), "machine log open failed");
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around({"asleep"})));
}

TEST_F(WorkerRun, ADisplayListThatThrowsEndsItWith5AndALine) {
  record_.list_displays = []() -> std::vector<DisplayInfo> { throw std::runtime_error("trouble"); };
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_THAT(log(), HasSubstr(STOPPED));
  EXPECT_THAT(log(), Not(HasSubstr("trouble")));
}

TEST_F(WorkerRun, AHostThatCannotBeMadeEndsItWith5AndNothingToShutDown) {
  ASSERT_EQ(store_->configure(), "");
  write_private_text(*store_ / "host_id", "no number");
  store_->restart();
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around({"list displays", "asleep"})));
  EXPECT_THAT(log(), HasSubstr(STOPPED));
}

TEST_F(WorkerRun, ABusyPortEndsItWith5AndTheHostThatExistsIsShutDown) {
  const lund_socket taken = lund_udp_open(4, nullptr, PORT);
  ASSERT_NE(taken, LUND_NO_SOCKET);
  launch();
  EXPECT_EQ(end(), ExitCode::Failed);
  EXPECT_THAT(book_.all(),
              ElementsAreArray(calls_around({"list displays", "asleep", "host shuts down"})));
  EXPECT_EQ(service_->heartbeats(), 0);
  EXPECT_THAT(log(), HasSubstr(STOPPED));
  lund_udp_close(taken);
}

// ---- 6

TEST_F(WorkerRun, AStoreThatFailsWhileItRunsEndsItWith6AndTheWholeStopSequence) {
  start();
  keystore::failHostStore("trouble");
  EXPECT_EQ(end(), ExitCode::StoreFailed);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around(WHOLE_LIFE)));
  EXPECT_THAT(log(), Not(HasSubstr(STOPPED)));
}

TEST_F(WorkerRun, ASaveThatFailsIsAnsweredAndEndsItWith6) {
  start();
  std::filesystem::create_directory(*store_ / "settings");  // no file can take its place
  const auto result =
      service_->ask(Verb::SetSettings, host_service::encode_settings(host_service::Settings{}));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, Status::Persistence);
  EXPECT_EQ(result->text, "machine persistence failure");
  EXPECT_EQ(end(), ExitCode::StoreFailed);
  EXPECT_THAT(book_.all(), ElementsAreArray(calls_around(WHOLE_LIFE)));
}
