// The real service with its worker on a machine of its own, an administrator's requests, and a
// client: what ends, what comes back, and in which words.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "control/linux/descriptor.h"
#include "control/linux/unix_socket.h"
#include "tests/support/linux/process_image.h"
#include "tests/support/temp_directory.h"
#include "tests/system/service_support.h"

namespace system_test {
namespace {

using host_service::Status;
using host_service::Verb;
using std::chrono::milliseconds;

constexpr char BYE[] = "the host ended the stream";
constexpr seconds SERVICE_GONE(5);  // by then its worker has ended

const std::filesystem::path UNIT =
    std::filesystem::path(LUND_SOURCE_DIR) / "packaging/systemd/lunderhaze.service";

// What the unit says behind "Key=".
std::string unit_value(const std::string& key) {
  std::ifstream unit(UNIT);
  for (std::string line; std::getline(unit, line);)
    if (line.starts_with(key + "=")) return line.substr(key.size() + 1);
  return {};
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != text.npos;
}

class ServiceProgramTest : public ServiceTest {
 protected:
  // A client that streams something that moves.
  void start_stream(const std::vector<std::string>& more = {}) {
    moving_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
    pair_by_pin();
    start_receiver(more);
  }
  // A program that stands in for a worker and does this.
  std::string stand_in(const std::string& script) {
    const std::filesystem::path path = directory_ / "worker";
    write_file(path, "#!/bin/sh\n" + script + "\n");
    chmod(path.c_str(), 0755);
    return path.string();
  }
};

TEST_F(ServiceProgramTest, AClientPairsByThePinOfTheServicesPipeAndStreams) {
  start_service();
  start_stream();
  const std::string text = status();
  const std::string session = std::to_string(std::stoi(desktop_->display().substr(1)) + 1);
  EXPECT_TRUE(text.starts_with("service running; worker PID " + std::to_string(worker()) +
                               "; session " + session + "; starts 1; last exit: none\n" +
                               "stored 9876 60 20000 1 1 1 1 1400\nworker running; code "))
      << text;
  EXPECT_TRUE(holds(text, "; connected\n")) << text;
}

TEST_F(ServiceProgramTest, SettingsThatAreStoredShowBesideThoseThatRunUntilARestart) {
  start_service();
  host_service::Settings settings;
  settings.fps = 30;
  settings.codec = 2;
  EXPECT_EQ(ask(Verb::SetSettings, encode_settings(settings)).text, "completed");
  EXPECT_TRUE(holds(status(), "\nstored 9876 30 20000 2 1 1 1 1400\n")) << status();
  EXPECT_TRUE(holds(status(), "\ndefaults 9876 60 20000 1 1 1 1 1400\n")) << status();
  const pid_t former = worker();
  EXPECT_EQ(ask(Verb::Verb9).text, "worker restarting");
  ASSERT_TRUE(comes_true([&] { return worker() != former && worker_runs(); }));
  EXPECT_TRUE(holds(status(), "\ndefaults 9876 30 20000 2 1 1 1 1400\n")) << status();
  EXPECT_TRUE(holds(status(), "; starts 2; last exit: exit code 0: stopped in order\n"));
}

TEST_F(ServiceProgramTest, AKilledWorkerComesBackAndItsClientWithoutPairingAgain) {
  constexpr milliseconds LONGEST_PAUSE(50 * 16);
  start_service({"--backoff-ms", "50"});
  start_stream({"--reconnect"});
  const std::size_t said = receiver_->output().size();
  for (int i = 0; i < 5; ++i) kill_worker(LONGEST_PAUSE);
  EXPECT_TRUE(holds(status(), "; starts 6; last exit: killed by signal 9\n")) << status();
  for (const char* pause : {"50 ms", "100 ms", "200 ms", "400 ms", "800 ms"})
    EXPECT_TRUE(service_->wait_for_output(std::string("the next start is in ") + pause, SLACK))
        << service_->output();
  EXPECT_TRUE(receiver_->wait_for_output("back after", seconds(20) + SLACK, said))
      << receiver_->output();
}

TEST_F(ServiceProgramTest, AKilledServiceEndsItsWorkerWithAByeToTheClient) {
  start_service();
  start_stream();
  service_->signal(SIGKILL);
  const auto killed = std::chrono::steady_clock::now();
  EXPECT_TRUE(worker_ends(SERVICE_GONE + SLACK));
  std::printf("the worker ended %.2f s after its service\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count());
  EXPECT_TRUE(receiver_->wait_for_output(BYE, SLACK)) << receiver_->output();
}

TEST_F(ServiceProgramTest, AServiceThatIsStartedAfterAKilledOneServesAgain) {
  start_service();
  service_->signal(SIGKILL);
  end_of_service();
  // The former worker may still be ending: the first start is then one too early.
  start_service();
  EXPECT_TRUE(worker_runs());
}

TEST_F(ServiceProgramTest, AStoppedServiceEndsItsWorkerFirstAndLeavesNothing) {
  for (const int number : {SIGTERM, SIGINT}) {
    start_service();
    if (number == SIGTERM) start_stream();
    service_->signal(number);
    EXPECT_EQ(end_of_service(), 0);
    EXPECT_TRUE(holds(service_->output(), "ended (exit code 0: stopped in order)\n"));
    EXPECT_TRUE(holds(service_->output(), "service stopped\n"));
    if (receiver_) {
      EXPECT_TRUE(receiver_->wait_for_output(BYE, SLACK)) << receiver_->output();
    }
    receiver_.reset();
    expect_nothing_left();
  }
}

TEST_F(ServiceProgramTest, AnAdministratorsStopEndsWorkerAndServiceWith0) {
  start_service();
  EXPECT_EQ(ask(Verb::Stop).text, "service stopping");
  EXPECT_EQ(end_of_service(), 0);
  expect_nothing_left();
  EXPECT_EQ(ask(Verb::Status).status, Status::Unavailable);
}

TEST_F(ServiceProgramTest, AnXServerThatGoesAndComesBackIsStreamedAgainByTheSameWorker) {
  start_service();
  start_stream();
  const pid_t former = worker();
  receiver_.reset();
  desktop_->kill();
  desktop_->restart();
  moving_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
  start_receiver();
  EXPECT_EQ(worker(), former);
}

TEST_F(ServiceProgramTest, AWorkerThatCannotStartIsNotStartedAgainAndStatusSaysWhy) {
  const std::pair<int, const char*> codes[] = {
      {1, "exit code 1: its arguments were wrong, or it was not the system's own process"},
      {2, "exit code 2: the place of its lock is not private to the system"}};
  for (const auto& [code, words] : codes) {
    launch_service({"--worker", stand_in("exit " + std::to_string(code)), "--backoff-ms", "1"},
                   "it is not started again before");
    const std::string text = status();
    EXPECT_TRUE(text.starts_with("service running; no worker (not starting the worker again"))
        << text;
    EXPECT_TRUE(holds(text, std::string("; starts 1; last exit: ") + words)) << text;
    EXPECT_EQ(ask(Verb::PairingClose).status, Status::Unavailable);
    service_->signal(SIGTERM);
    EXPECT_EQ(end_of_service(), 0);
  }
}

TEST_F(ServiceProgramTest, ARestartTriesAWorkerThatWasGivenUp) {
  launch_service({"--worker", stand_in("exit 1")}, "it is not started again before");
  std::filesystem::remove(directory_ / "worker");
  std::filesystem::create_symlink(program("lunderhaze-worker"), directory_ / "worker");
  EXPECT_EQ(ask(Verb::Verb9).text, "worker restarting");
  EXPECT_TRUE(comes_true([this] { return worker_runs(); }, seconds(10) + SLACK));
}

TEST_F(ServiceProgramTest, AWorkersProgramThatIsMissingIsNamedAndAwaited) {
  launch_service({"--worker", (directory_ / "worker").string(), "--backoff-ms", "20"},
                 "/worker: No such file or directory; the next start is in 20 ms");
  std::filesystem::create_symlink(program("lunderhaze-worker"), directory_ / "worker");
  EXPECT_TRUE(comes_true([this] { return worker_runs(); }, seconds(10) + SLACK));
}

TEST_F(ServiceProgramTest, AWorkerThatIgnoresStopIsEndedBySigterm) {
  // It never opens its pipes, so it can't be asked.
  launch_service({"--worker", stand_in("exec sleep 600")}, "started for display");
  service_->signal(SIGTERM);
  EXPECT_EQ(end_of_service(), 0);
  EXPECT_TRUE(holds(service_->output(), "did not end within 10 s of Stop: sending SIGTERM\n"));
  EXPECT_TRUE(holds(service_->output(), "ended (killed by signal 15)\n"));
}

TEST_F(ServiceProgramTest, ASecondServiceIsRefusedAndTheFirstGoesOn) {
  start_service();
  const pid_t first = worker();
  const RunResult second = run_program(service_command({}), environment_, seconds(20));
  EXPECT_EQ(second.status, 3);
  EXPECT_TRUE(holds(second.output, "another lunderhaze-service runs on this machine"))
      << second.output;
  EXPECT_TRUE(worker_runs());
  EXPECT_EQ(worker(), first);
}

TEST_F(ServiceProgramTest, AnOrdinaryUserIsToldThatItMustRunAsRoot) {
  // Where that user may run it: the place of the build may be root's.
  chmod(directory_.c_str(), 0711);
  std::filesystem::copy_file(program("lunderhaze-service"), directory_ / "service");
  const RunResult result =
      lab_->run({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                 (directory_ / "service").string(), "--display", desktop_->display()});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(holds(result.output, "it must run as root")) << result.output;
}

TEST_F(ServiceProgramTest, APlaceOfItsPipesThatOthersCanEnterIsRefused) {
  ASSERT_EQ(lab_->run({"mkdir", "-m", "0755", "/run/lunderhaze"}).status, 0);
  const RunResult result = run_program(service_command({}), environment_, seconds(20));
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(holds(result.output, "others than root can reach it")) << result.output;
}

TEST_F(ServiceProgramTest, WrongOptionsAreRefusedInWords) {
  EXPECT_EQ(lab_->run({program("lunderhaze-service"), "--fly"}).status, 1);
  const RunResult far = lab_->run({program("lunderhaze-service"), "--display", "far:0"});
  EXPECT_EQ(far.status, 1);
  EXPECT_TRUE(holds(far.output, "--display must be one of this computer's")) << far.output;
}

TEST_F(ServiceProgramTest, APasswordAndAPinLeaveTheServicesMemory) {
  start_service();
  const std::string password = "tiger-lily 9 copper kettles";
  EXPECT_EQ(ask(Verb::SetPassword, {password.begin(), password.end()}).text, "completed");
  const host_service::Result opened = ask(Verb::PairingOpen, {60, 0, 0, 0});
  ASSERT_EQ(opened.text.size(), 6u);
  // As it stands in the answer: six digits alone may be there by chance.
  const std::vector<unsigned char> answer =
      encode_response(Verb::PairingOpen, Status::Ok, opened.text);
  const auto bytes = [](const auto& text) {
    return std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  };
  const std::string own = host_service::WORKER_PIPE_PREFIX;
  const ProcessImage image(service_->pid());
  EXPECT_FALSE(image.find(bytes(own)).empty());  // the search finds what is there
  EXPECT_TRUE(image.find(bytes(password)).empty());
  EXPECT_TRUE(image.find(bytes(answer)).empty());
}

TEST_F(ServiceProgramTest, ItsManagerHearsWhenItIsReadyWhatItDoesAndWhenItStops) {
  const std::filesystem::path name = directory_ / "notify";
  UnixAddress address;
  ASSERT_TRUE(address.fill(name));
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(socket.get(), address.get(), address.size()), 0);
  environment_["NOTIFY_SOCKET"] = name.string();
  const auto heard = [&socket] {
    char text[1'024];
    const ssize_t size = recv(socket.get(), text, sizeof text, 0);
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  start_service();
  EXPECT_EQ(heard(), "READY=1");
  EXPECT_EQ(heard(), "STATUS=serving display " + desktop_->display());
  service_->signal(SIGTERM);
  EXPECT_EQ(heard(), "STOPPING=1");
  EXPECT_EQ(heard(), "STATUS=stopping: the service ends");
  EXPECT_EQ(end_of_service(), 0);
}

// Of what the unit takes away: the capabilities, the way to new ones, and writing anywhere but to
// /run and /var/lib. The client isn't bound by it.
TEST_F(ServiceProgramTest, ItsWorkerStreamsWithTheCapabilitiesOfTheUnitOnAReadOnlySystem) {
  std::string bounds = "-all";
  std::istringstream capabilities(unit_value("CapabilityBoundingSet"));
  for (std::string name; capabilities >> name;) {
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    bounds += ",+" + name.substr(std::string("cap_").size());
  }
  ASSERT_NE(bounds, "-all");
  const RunResult sealed = lab_->run({"mount", "-n", "-o", "remount,bind,ro", "/"});
  if (sealed.status != 0) GTEST_SKIP() << sealed.output;
  service_place_ = {"setpriv", "--no-new-privs", "--bounding-set", bounds};
  start_service();
  client_place_ = {"nsenter", "--target", std::to_string(service_->pid()), "--net", "--"};
  start_stream();
  EXPECT_EQ(ask(Verb::SetPassword, {'p', 'a', 's', 's'}).text, "completed");
  service_->signal(SIGTERM);
  EXPECT_EQ(end_of_service(), 0);
  expect_nothing_left();
}

// ---- The unit

class ServiceUnitTest : public testing::Test {
 protected:
  void SetUp() override {
    if (run_program({"sh", "-c", "command -v systemd-analyze"}).status != 0)
      GTEST_SKIP() << "systemd-analyze is missing";
  }
  // What systemd-analyze finds wrong with the unit, on a computer where the program is installed.
  std::string complaints(const std::string& more = {}) {
    std::ifstream unit(UNIT);
    std::ofstream copy(directory_ / "lunderhaze.service");
    for (std::string line; std::getline(unit, line);) {
      const bool starts = line.starts_with("ExecStart=");
      copy << (starts ? std::string("ExecStart=") + LUND_BIN_DIR + "/lunderhaze-service" : line)
           << "\n";
      if (starts) copy << more;
    }
    copy.close();
    const RunResult result = run_program(
        {"systemd-analyze", "verify", "--man=no", (directory_ / "lunderhaze.service").string()});
    return result.status == 0 ? result.output : "failed: " + result.output;
  }
  TempDirectory directory_;
};

TEST_F(ServiceUnitTest, IsVerifiedBySystemd) {
  EXPECT_EQ(complaints(), "");
}

TEST_F(ServiceUnitTest, IsVerifiedByACheckThatSeesMistakes) {
  EXPECT_NE(complaints("ProtectSystem=sometimes\n"), "");
  EXPECT_NE(complaints("SystemCallFilter=no_such_call\n"), "");
}

}  // namespace
}  // namespace system_test
