// The worker's program through the stages of its start, each told by its exit code. The stages
// behind the first need LocalSystem's token, which Wine gives from its version 10 on.
#include <gtest/gtest.h>

#include <filesystem>

#include "control/ipc_transport.h"
#include "control/windows/wide_text.h"
#include "tests/support/windows/neighbour.h"
#include "tests/support/windows/started_program.h"
#include "worker/exit_code.h"

namespace {

using host_app::ExitCode;
using host_service::EVENTS_SUFFIX;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds PATIENCE{60'000};
constexpr milliseconds PIPE_LIMIT{host_service::PIPE_LIMIT_MS};
const std::string DIGITS = "0123456789abcdef0123456789abcdef";

std::string channel(const std::string& digits = DIGITS) {
  return host_service::WORKER_PIPE_PREFIX + digits;
}

class WorkerStages : public testing::Test {
 protected:
  static StartedProgram start(const std::string& arguments, As as = As::System) {
    return StartedProgram(L"lunderhaze-worker.exe " + to_wide(arguments), as);
  }
  static StartedProgram start(std::uint32_t supervisor) {
    return start("--supervisor " + std::to_string(supervisor) + " --channel " + channel());
  }
  static int code_of(const StartedProgram& program) {
    const auto code = program.wait(PATIENCE);
    return code ? static_cast<int>(*code) : -1;
  }
  static int number(ExitCode code) { return static_cast<int>(code); }
  static bool mutex_exists() {
    const Handle mutex(OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\LunderhazeHostWorker-v1"));
    return mutex || GetLastError() == ERROR_ACCESS_DENIED;
  }
  // Both pipes, as the service's are.
  static void serve(Neighbour& service) {
    ASSERT_NE(service.tell("serve " + channel()), "no");
    ASSERT_NE(service.tell("serve " + channel() + EVENTS_SUFFIX), "no");
  }
};

class WorkerStagesOfTheSystem : public WorkerStages {
 protected:
  void SetUp() override {
    if (!system_) GTEST_SKIP() << Neighbour::NO_SYSTEM;
  }
  Neighbour system_{As::System};
};

// ---- 1

TEST_F(WorkerStages, WrongArgumentsEndItWith1) {
  const std::string pid = std::to_string(GetCurrentProcessId());
  for (const std::string& wrong : {
           std::string(),
           std::string("--help"),
           "--channel " + channel() + " --supervisor " + pid,
           "--supervisor " + pid + " --channel " + channel() + " more",
           "--Supervisor " + pid + " --channel " + channel(),
           "--supervisor 0 --channel " + channel(),
           "--supervisor 12x --channel " + channel(),
           "--supervisor \"\" --channel " + channel(),
           // Digits, but not ASCII's.
           "--supervisor \uff11\uff12 --channel " + channel(),
           "--supervisor " + pid + " --channel " + channel("0123456789ABCDEF0123456789abcdef"),
           "--supervisor " + pid + " --channel " + channel(DIGITS.substr(1)),
           "--supervisor " + pid + " --channel " + channel(DIGITS + "0"),
           "--supervisor " + pid + " --channel \\\\.\\pipe\\Another-v1-" + DIGITS,
       })
    EXPECT_EQ(code_of(start(wrong, As::Self)), number(ExitCode::Refused)) << wrong;
}

TEST_F(WorkerStages, AnOrdinaryUsersProcessEndsWith1AtOnceThoughItsPipesAreThere) {
  Neighbour service;
  serve(service);
  const StartedProgram worker =
      start("--supervisor " + std::to_string(service.id()) + " --channel " + channel(), As::Self);
  EXPECT_EQ(code_of(worker), number(ExitCode::Refused));
}

TEST_F(WorkerStages, ItTellsItsVersion) {
  EXPECT_EQ(code_of(start("--version", As::Self)), 0);
}

TEST_F(WorkerStagesOfTheSystem, WrongArgumentsEndItWith1AsTheSystemToo) {
  EXPECT_EQ(code_of(start("--supervisor 0 --channel " + channel())), number(ExitCode::Refused));
}

// ---- 3 and 4

TEST_F(WorkerStagesOfTheSystem, ASecondWorkerEndsWith3AndTheFirstGoesOnToWaitForItsPipes) {
  const auto begun = steady_clock::now();
  const StartedProgram first = start(system_.id());
  // Until the first has the mutex, the second would get it.
  while (!mutex_exists() && steady_clock::now() - begun < PATIENCE) Sleep(1);
  ASSERT_TRUE(mutex_exists());
  const StartedProgram second = start(system_.id());
  EXPECT_EQ(code_of(second), number(ExitCode::NotAlone));
  EXPECT_EQ(code_of(first), number(ExitCode::NoPeer));
  EXPECT_GE(steady_clock::now() - begun, PIPE_LIMIT);
}

TEST_F(WorkerStagesOfTheSystem, AMutexThatAnotherProgramHasEndsItWith3) {
  ASSERT_EQ(system_.tell("mutex Global\\LunderhazeHostWorker-v1"), "yes");
  EXPECT_EQ(code_of(start(system_.id())), number(ExitCode::NotAlone));
}

TEST_F(WorkerStagesOfTheSystem, WithoutItsEventsPipeItEndsWith4) {
  ASSERT_NE(system_.tell("serve " + channel()), "no");
  EXPECT_EQ(code_of(start(system_.id())), number(ExitCode::NoPeer));
}

TEST_F(WorkerStagesOfTheSystem, PipesOfAnotherProcessOfTheSystemEndItWith4) {
  serve(system_);
  Neighbour another(As::System);
  EXPECT_EQ(code_of(start(another.id())), number(ExitCode::NoPeer));
}

TEST_F(WorkerStagesOfTheSystem, AnOrdinaryUsersPipesEndItWith4ThoughTheNumberIsRight) {
  Neighbour ordinary;
  serve(ordinary);
  EXPECT_EQ(code_of(start(ordinary.id())), number(ExitCode::NoPeer));
}

TEST_F(WorkerStagesOfTheSystem, AnEventsPipeThatIsAnothersEndsItWith4) {
  ASSERT_NE(system_.tell("serve " + channel()), "no");
  Neighbour ordinary;
  ASSERT_NE(ordinary.tell("serve " + channel() + EVENTS_SUFFIX), "no");
  EXPECT_EQ(code_of(start(system_.id())), number(ExitCode::NoPeer));
}

// ---- 5

// Wine can't say whose a directory is, so the store can't be trusted there, as it can't where
// somebody else prepared it.
TEST_F(WorkerStagesOfTheSystem, AStoreThatIsNotTheSystemsOwnEndsItWith5) {
  wchar_t data[MAX_PATH];
  ASSERT_NE(GetEnvironmentVariableW(L"ProgramData", data, MAX_PATH), 0u);
  const std::filesystem::path store = std::filesystem::path(data) / "Lunderhaze" / "Host";
  std::filesystem::create_directories(store);
  serve(system_);
  EXPECT_EQ(code_of(start(system_.id())), number(ExitCode::Failed));
  EXPECT_FALSE(std::filesystem::exists(store / "host.log"));
  EXPECT_FALSE(std::filesystem::exists(store / "identity"));
}

}  // namespace
