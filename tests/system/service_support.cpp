#include "tests/system/service_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>

#include "control/linux/descriptor.h"
#include "tests/support/temp_directory.h"

namespace system_test {

using host_service::Result;
using host_service::Verb;

namespace {

constexpr int DEFAULT_PORT = 9876;

}  // namespace

void ServiceTest::SetUp() {
  if (!MachineLab::missing().empty()) GTEST_SKIP() << MachineLab::missing();
  SystemTest::SetUp();
  lab_.emplace();
  client_place_ = lab_->inside({});
  port_ = DEFAULT_PORT;
  start_desktop(640, 400);
}

void ServiceTest::TearDown() {
  if (HasFailure() && service_) {
    ADD_FAILURE() << "the service said:\n" << service_->output();
    ADD_FAILURE() << "the worker's log:\n" << worker_log();
  }
  receiver_.reset();
  moving_.reset();
  service_.reset();
  lab_.reset();
  SystemTest::TearDown();
}

std::vector<std::string> ServiceTest::service_command(const std::vector<std::string>& more) const {
  std::vector<std::string> arguments = {"--display", desktop_->display()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return lab_->inside(at(service_place_, "lunderhaze-service", arguments));
}

void ServiceTest::launch_service(const std::vector<std::string>& more, const std::string& until) {
  service_ = std::make_unique<ChildProcess>(service_command(more), environment_);
  ASSERT_TRUE(service_->wait_for_output(until, std::chrono::seconds(20))) << service_->output();
}

void ServiceTest::start_service(const std::vector<std::string>& more) {
  launch_service(more, " is up\n");
  ASSERT_TRUE(comes_true([this] { return worker_runs(); }, std::chrono::seconds(20)));
}

Result ServiceTest::ask(Verb verb, const std::vector<unsigned char>& payload) {
  Result result;
  lab_->call([&] {
    result = host_service::transact(host_service::SERVICE_PIPE, {verb, payload}, nullptr);
  });
  return result;
}

void ServiceTest::pair_by_pin() {
  const Result opened = ask(Verb::PairingOpen, {60, 0, 0, 0});
  ASSERT_EQ(opened.status, host_service::Status::Ok) << opened.text;
  ASSERT_EQ(opened.text.size(), 6u);
  const RunResult paired = client({"pair", "--host", host_address(), "--pin", opened.text});
  ASSERT_EQ(paired.status, 0) << paired.output;
}

pid_t ServiceTest::worker() const {
  const std::vector<pid_t> workers = lab_->processes("lunderhaze-worker");
  return workers.empty() ? 0 : workers.front();
}

bool ServiceTest::worker_ends(std::chrono::milliseconds deadline) const {
  return comes_true([this] { return worker() == 0; }, deadline);
}

void ServiceTest::kill_worker(std::chrono::milliseconds pause) {
  const pid_t former = worker();
  ASSERT_NE(former, 0);
  kill(former, SIGKILL);
  EXPECT_TRUE(comes_true(
      [this, former] {
        const pid_t now = worker();
        return now != 0 && now != former;
      },
      pause + SLACK));
  EXPECT_TRUE(comes_true([this] { return worker_runs(); }, SLACK));
}

void ServiceTest::expect_nothing_left() const {
  EXPECT_EQ(lab_->processes("lunderhaze-worker").size(), 0u);
  EXPECT_EQ(lab_->processes("lunderhaze-service").size(), 0u);
  for (const auto& entry : std::filesystem::directory_iterator(lab_->path("/run/lunderhaze"))) {
    EXPECT_FALSE(entry.is_socket()) << entry.path();
    const Descriptor file(open(entry.path().c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    EXPECT_EQ(flock(file.get(), LOCK_EX | LOCK_NB), 0) << "still locked: " << entry.path();
  }
}

std::string ServiceTest::worker_log() const {
  return file_content(lab_->path("/var/lib/lunderhaze/host/host.log"));
}

}  // namespace system_test
