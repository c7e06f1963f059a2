// The worker's process as the service starts it, on a program that stands in for one, by the
// system's own calls. The session is the test's own: where that is another process's, only the
// system can go.
#include <gtest/gtest.h>

#include "apps/service/platform.h"
#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/beside_test.h"

namespace {

using namespace service_platform;

class ServiceProcessTest : public testing::Test {
 protected:
  std::unique_ptr<WorkerProcess> start(const std::vector<std::string>& words) {
    return start_worker(beside_test("service_stand_in.exe").string(), words, session_, wake_,
                        &error_);
  }
  static std::optional<WorkerEnd> end_of(WorkerProcess& process, WakeEvent& wake) {
    for (int i = 0; i < 100; ++i) {
      if (const std::optional<WorkerEnd> end = process.ended()) return end;
      wake.wait(100);
    }
    return std::nullopt;
  }
  std::optional<WorkerEnd> end_of(WorkerProcess& process) { return end_of(process, wake_); }
  static Handle look_at(DWORD id) {
    return Handle(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
  }
  static bool runs(const Handle& process) {
    return WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
  }
  static std::uint32_t own_session() {
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return session;
  }
  std::string told_by(const std::vector<std::string>& more = {}) {
    const std::string file = (directory_ / "told").string();
    std::vector<std::string> words = {"tell", file};
    words.insert(words.end(), more.begin(), more.end());
    const auto process = start(words);
    EXPECT_TRUE(process) << error_;
    if (!process || !end_of(*process)) return {};
    return "\n" + file_content(file);
  }

  const GraphicalSession session_{"the test's own", own_session(), {}};
  WakeEvent wake_{WakeEvent::Reset::Auto};
  std::string error_;
  TempDirectory directory_;
};

TEST_F(ServiceProcessTest, TheEndWakesTheServiceAndEachCodeIsKnown) {
  for (const int code : {0, 1, 2, 3, 4, 5, 6, 99}) {
    const auto process = start({"exit", std::to_string(code)});
    ASSERT_TRUE(process) << error_;
    EXPECT_TRUE(wake_.wait(30'000));
    const std::optional<WorkerEnd> end = process->ended();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->kind, WorkerEnd::Kind::Exited);
    EXPECT_EQ(end->number, code);
  }
}

TEST_F(ServiceProcessTest, AnEndByAnExceptionIsOne) {
  const auto process = start({"fault"});
  ASSERT_TRUE(process) << error_;
  const std::optional<WorkerEnd> end = end_of(*process);
  ASSERT_TRUE(end);
  EXPECT_EQ(words_for(*end), "ended by the exception 0xC0000005");
  EXPECT_TRUE(may_start_again(*end));
}

TEST_F(ServiceProcessTest, CannotBeAskedToEndButIsKilled) {
  const auto process = start({"wait"});
  ASSERT_TRUE(process) << error_;
  EXPECT_FALSE(process->terminate());
  EXPECT_FALSE(process->ended());
  process->kill();
  const std::optional<WorkerEnd> end = end_of(*process);
  ASSERT_TRUE(end);
  EXPECT_EQ(words_for(*end), "killed");
  EXPECT_TRUE(may_start_again(*end));
}

TEST_F(ServiceProcessTest, AWorkerThatStillRunsIsKilledWhenItIsForgotten) {
  auto process = start({"wait"});
  ASSERT_TRUE(process) << error_;
  const Handle seen = look_at(process->id());
  ASSERT_TRUE(seen);
  EXPECT_TRUE(runs(seen));
  process.reset();
  EXPECT_FALSE(runs(seen));
}

TEST_F(ServiceProcessTest, AnEndedWorkersIdIsItsOwnUntilItIsForgotten) {
  const auto process = start({"exit", "0"});
  ASSERT_TRUE(process) << error_;
  ASSERT_TRUE(end_of(*process));
  const Handle seen = look_at(process->id());
  EXPECT_TRUE(seen);
  EXPECT_FALSE(runs(seen));
}

TEST_F(ServiceProcessTest, AProgramThatIsMissingIsNamed) {
  EXPECT_FALSE(start_worker("C:\\nowhere\\lunderhaze-worker.exe", {}, session_, wake_, &error_));
  EXPECT_TRUE(error_.starts_with("C:\\nowhere\\lunderhaze-worker.exe (error ")) << error_;
}

TEST_F(ServiceProcessTest, RunsOnTheSessionsDesktopFromTheSystemsDirectoryWithoutAConsole) {
  const std::string told = told_by({"two words", "C:\\ends in\\"});
  EXPECT_NE(told.find("\ndesktop=Default\n"), std::string::npos) << told;
  EXPECT_NE(told.find("\nsession=" + std::to_string(own_session()) + "\n"), std::string::npos);
  EXPECT_NE(told.find("\nconsole=0\n"), std::string::npos);
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  EXPECT_NE(told.find("\ndirectory=" + to_utf8(system) + "\n"), std::string::npos) << told;
  EXPECT_NE(told.find("\"two words\" \"C:\\ends in\\\\\"\n"), std::string::npos) << told;
}

TEST_F(ServiceProcessTest, HasTheSystemsVariablesAndNoneOfTheServices) {
  SetEnvironmentVariableW(L"LUND_SECRET_OF_THE_SERVICE", L"1");
  const std::string told = told_by();
  SetEnvironmentVariableW(L"LUND_SECRET_OF_THE_SERVICE", nullptr);
  EXPECT_EQ(told.find("LUND_SECRET"), std::string::npos);
  EXPECT_NE(told.find("\nSystemRoot="), std::string::npos) << told;
}

// A pipe whose end was inherited would stay open as long as the worker runs.
TEST_F(ServiceProcessTest, InheritsNoHandle) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  Handle reading, writing;
  ASSERT_TRUE(CreatePipe(reading.receive(), writing.receive(), &inheritable, 0));
  const auto process = start({"wait"});
  ASSERT_TRUE(process) << error_;
  writing.reset();
  char byte = 0;
  DWORD moved = 0;
  EXPECT_FALSE(ReadFile(reading.get(), &byte, 1, &moved, nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_BROKEN_PIPE});
  EXPECT_FALSE(process->ended());
}

}  // namespace
