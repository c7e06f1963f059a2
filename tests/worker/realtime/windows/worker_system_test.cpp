#include "worker/worker_system.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "control/security.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/machine/system_calls.h"
#include "tests/support/windows/neighbour.h"

namespace {

using host_app::native_worker_system;
using host_app::WorkerSystem;
using testing::ElementsAre;
using Lock = WorkerSystem::Lock;

constexpr char MUTEX[] = "Global\\LunderhazeHostWorker-v1";

// The handler that was set last is a test's to call, as the console's thread does.
PHANDLER_ROUTINE g_handler = nullptr;
BOOL WINAPI set_handler(PHANDLER_ROUTINE handler, BOOL) {
  g_handler = handler;
  return TRUE;
}

TEST(WorkerSystem, OneWorkerHasTheLockAndGivesItBack) {
  const auto first = native_worker_system(), second = native_worker_system();
  EXPECT_EQ(first->take_lock(), Lock::Held);
  EXPECT_EQ(second->take_lock(), Lock::NotHeld);
  first->release_lock();
  EXPECT_EQ(second->take_lock(), Lock::Held);
  second->release_lock();
}

TEST(WorkerSystem, TheLockIsTheWholeMachinesAndGoesWithItsHolder) {
  Neighbour holder;
  ASSERT_EQ(holder.tell(std::string("mutex ") + MUTEX), "yes");
  const auto system = native_worker_system();
  EXPECT_EQ(system->take_lock(), Lock::NotHeld);
  holder.end();
  EXPECT_EQ(system->take_lock(), Lock::Held);
  Neighbour late;
  EXPECT_EQ(late.tell(std::string("mutex ") + MUTEX), "no");
  system->release_lock();
}

TEST(WorkerSystem, TheLockIsTheSystemsAloneAndReleasedBeforeItGoes) {
  SystemCalls calls({SystemCalls::Of::Process});
  const auto system = native_worker_system();
  EXPECT_EQ(system->take_lock(), Lock::Held);
  EXPECT_THAT(calls.take(), ElementsAre(std::string("CreateMutexW ") + MUTEX +
                                        " owned 1 O:SYG:SYD:P(A;;GA;;;SY)"));
  system->release_lock();
  EXPECT_THAT(calls.take(), ElementsAre("ReleaseMutex "));
  calls.fail("CreateMutexW", ERROR_ACCESS_DENIED);
  EXPECT_EQ(system->take_lock(), Lock::NotHeld);
}

TEST(WorkerSystem, WhatAsksForTheEndSetsTheEventUntilItIsLetGo) {
  const auto system = native_worker_system();
  WakeEvent stop(WakeEvent::Reset::Auto);
  system->stop_on_signals(&stop);
  ASSERT_NE(g_handler, nullptr);
  for (const DWORD request : {CTRL_C_EVENT, CTRL_BREAK_EVENT}) {
    EXPECT_TRUE(g_handler(request));
    EXPECT_TRUE(stop.wait(0)) << request;
  }
  system->stop_on_signals(nullptr);
  EXPECT_TRUE(g_handler(CTRL_C_EVENT));
  EXPECT_FALSE(stop.wait(0));
}

TEST(WorkerSystem, ASessionIsTheSystemsOnlyInItsProcess) {
  std::uint32_t session = 0;
  const bool system = host_service::system_process(host_service::Process::current(), &session);
  EXPECT_EQ(native_worker_system()->in_system_session(), system && session != 0);

  const std::string asked = "GetTokenInformation 12";  // TokenSessionId
  SystemCalls calls({SystemCalls::Of::Trust});
  calls.answer(asked, 7);
  EXPECT_EQ(native_worker_system()->in_system_session(), system);
  calls.answer(asked, 0);  // the services'
  EXPECT_FALSE(native_worker_system()->in_system_session());
  calls.fail(asked, ERROR_ACCESS_DENIED);
  EXPECT_FALSE(native_worker_system()->in_system_session());
}

TEST(WorkerSystem, LibrariesAreTheProgramsAndTheSystemsAlone) {
  SystemCalls calls({SystemCalls::Of::Process});
  calls.fail("SetDefaultDllDirectories", ERROR_INVALID_PARAMETER);  // other tests load theirs
  native_worker_system()->restrict_library_directories();
  EXPECT_THAT(calls.take(), ElementsAre("SetDefaultDllDirectories a00"));
}

TEST(WorkerSystem, APlantedLibraryIsNotLoadedAnyMore) {
  const TempDirectory planted;
  const std::filesystem::path library = planted / "lund-planted.dll";
  wchar_t system[MAX_PATH];
  ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
  std::filesystem::copy_file(std::filesystem::path(system) / "version.dll", library);
  wchar_t path[32'767];
  ASSERT_NE(GetEnvironmentVariableW(L"PATH", path, 32'767), 0u);
  ASSERT_TRUE(SetEnvironmentVariableW(L"PATH", (planted.path().native() + L";" + path).c_str()));
  {
    const Library found(LoadLibraryW(L"lund-planted.dll"));
    EXPECT_TRUE(found) << GetLastError();
  }
  native_worker_system()->restrict_library_directories();
  const Library found(LoadLibraryW(L"lund-planted.dll"));
  EXPECT_FALSE(found);
  const Library systems(LoadLibraryW(L"winmm.dll"));
  EXPECT_TRUE(systems);
  SetEnvironmentVariableW(L"PATH", path);
}

}  // namespace

extern "C" {
decltype(&set_handler) __imp_SetConsoleCtrlHandler = set_handler;
}
