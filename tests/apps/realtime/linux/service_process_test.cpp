// The worker's process as the service starts it, on programs that stand in for one, and what the
// service tells its manager.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fcntl.h>
#include <thread>

#include "apps/service/linux/manager.h"
#include "apps/service/platform.h"
#include "control/linux/descriptor.h"
#include "gtest/gtest.h"
#include "tests/support/linux/environment.h"
#include "tests/support/temp_directory.h"

namespace {

using namespace service_platform;

class ServiceProcessTest : public testing::Test {
 protected:
  std::unique_ptr<WorkerProcess> shell(const std::string& script,
                                       const Environment& environment = {}) {
    return start_worker("/bin/sh", {"-c", script}, {"", 1, environment}, wake_, &error_);
  }
  std::optional<WorkerEnd> end_of(WorkerProcess& process) {
    for (int i = 0; i < 100; ++i) {
      if (const std::optional<WorkerEnd> end = process.ended()) return end;
      wake_.wait(100);
    }
    return std::nullopt;
  }
  bool is_there(pid_t pid) { return kill(pid, 0) == 0; }

  WakeEvent wake_{WakeEvent::Reset::Auto};
  std::string error_;
  TempDirectory directory_;
};

TEST_F(ServiceProcessTest, TheEndWakesTheServiceAndItsCodeIsKnown) {
  const auto process = shell("exit 6");
  ASSERT_TRUE(process) << error_;
  EXPECT_TRUE(wake_.wait(10'000));
  const std::optional<WorkerEnd> end = process->ended();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->kind, WorkerEnd::Kind::Exited);
  EXPECT_EQ(end->number, 6);
}

TEST_F(ServiceProcessTest, AnEndBySignalIsOne) {
  const auto process = shell("kill -SEGV $$");
  const std::optional<WorkerEnd> end = end_of(*process);
  ASSERT_TRUE(end);
  EXPECT_EQ(end->kind, WorkerEnd::Kind::Signalled);
  EXPECT_EQ(end->number, SIGSEGV);
}

TEST_F(ServiceProcessTest, AProgramThatIsMissingIsNamed) {
  EXPECT_FALSE(start_worker("/nowhere/lunderhaze-worker", {}, {}, wake_, &error_));
  EXPECT_EQ(error_, "/nowhere/lunderhaze-worker: No such file or directory");
}

TEST_F(ServiceProcessTest, TheWorkerHasTheSessionsVariablesAndNoneOfTheServices) {
  const Variable secret("LUND_SECRET_OF_THE_SERVICE", "1");
  const std::string file = (directory_ / "environment").string();
  const auto process = shell("exec /usr/bin/env >" + file, {{"DISPLAY", ":7"}});
  ASSERT_TRUE(end_of(*process));
  const std::string variables = file_content(file);
  EXPECT_NE(variables.find("DISPLAY=:7\n"), std::string::npos);
  EXPECT_NE(variables.find("PATH="), std::string::npos);
  EXPECT_EQ(variables.find("LUND_SECRET"), std::string::npos);
  EXPECT_EQ(variables.find("HOME="), std::string::npos);
}

TEST_F(ServiceProcessTest, TheWorkerInheritsNoDescriptor) {
  const Descriptor inheritable(open("/etc/hostname", O_RDONLY));
  ASSERT_GE(inheritable.get(), 0);
  const std::string file = (directory_ / "descriptors").string();
  const auto process = shell("links=$(readlink /proc/$$/fd/*); echo \"$links\" >" + file);
  ASSERT_TRUE(end_of(*process));
  const std::string open_files = file_content(file);
  EXPECT_EQ(open_files.find("hostname"), std::string::npos) << open_files;
  EXPECT_TRUE(open_files.starts_with("/dev/null\n/dev/null\n/dev/null\n")) << open_files;
}

TEST_F(ServiceProcessTest, AnInterruptMeantForTheServiceDoesNotReachTheWorker) {
  const auto process = shell("sleep 60");
  const auto worker = static_cast<pid_t>(process->id());
  EXPECT_EQ(getsid(worker), worker);
  EXPECT_NE(getpgid(worker), getpgrp());
}

TEST_F(ServiceProcessTest, SigtermAsksAndSigkillEnds) {
  const auto obeys = shell("exec sleep 60");
  EXPECT_TRUE(obeys->terminate());
  EXPECT_EQ(end_of(*obeys)->number, SIGTERM);
  const std::string ready = (directory_ / "ready").string();
  const auto ignores = shell("trap '' TERM; touch " + ready + "; while :; do sleep 60; done");
  while (!std::filesystem::exists(ready)) std::this_thread::yield();
  EXPECT_TRUE(ignores->terminate());
  EXPECT_FALSE(ignores->ended());
  ignores->kill();
  EXPECT_EQ(end_of(*ignores)->number, SIGKILL);
}

TEST_F(ServiceProcessTest, AnEndedWorkersIdIsItsOwnUntilItIsForgotten) {
  auto process = shell("exit 0");
  const auto id = static_cast<pid_t>(process->id());
  ASSERT_TRUE(end_of(*process));
  EXPECT_TRUE(is_there(id));
  process.reset();
  EXPECT_FALSE(is_there(id));
}

TEST_F(ServiceProcessTest, AWorkerThatStillRunsIsKilledWhenItIsForgotten) {
  auto process = shell("exec sleep 60");
  const auto id = static_cast<pid_t>(process->id());
  process.reset();
  EXPECT_FALSE(is_there(id));
}

class ManagerTest : public testing::Test {
 protected:
  // A socket as systemd listens on, by a file's name or, with '@' first, without a file.
  Descriptor listen_as(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
              0);
    return socket;
  }
  std::string received(const Descriptor& socket) {
    char text[256];
    const ssize_t size = recv(socket.get(), text, sizeof text, MSG_DONTWAIT);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }
  TempDirectory directory_;
};

TEST_F(ManagerTest, HearsOfReadinessStatusAndEnd) {
  const std::string name = (directory_ / "notify").string();
  const Descriptor socket = listen_as(name);
  const Variable variable("NOTIFY_SOCKET", name.c_str());
  tell_manager_ready();
  EXPECT_EQ(received(socket), "READY=1");
  tell_manager_status("serving display :0");
  EXPECT_EQ(received(socket), "STATUS=serving display :0");
  tell_manager_stopping();
  EXPECT_EQ(received(socket), "STOPPING=1");
}

TEST_F(ManagerTest, MayListenWithoutAFile) {
  const std::string name = "@lunderhaze-test-" + std::to_string(getpid());
  const Descriptor socket = listen_as(name);
  const Variable variable("NOTIFY_SOCKET", name.c_str());
  EXPECT_TRUE(notify_manager("READY=1"));
  EXPECT_EQ(received(socket), "READY=1");
}

TEST_F(ManagerTest, IsNotMissed) {
  const Variable variable("NOTIFY_SOCKET", nullptr);
  EXPECT_FALSE(notify_manager("READY=1"));
  const Variable gone("NOTIFY_SOCKET", (directory_ / "gone").c_str());
  EXPECT_FALSE(notify_manager("READY=1"));
}

}  // namespace
