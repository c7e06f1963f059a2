#include "worker/worker_system.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "control/security.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/neighbour.h"

namespace {

using host_app::native_worker_system;
using host_app::WorkerSystem;
using Lock = WorkerSystem::Lock;

constexpr char MUTEX[] = "Global\\LunderhazeHostWorker-v1";

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

TEST(WorkerSystem, ASessionIsTheSystemsOnlyInItsProcess) {
  std::uint32_t session = 0;
  const bool system = host_service::system_process(host_service::Process::current(), &session);
  EXPECT_EQ(native_worker_system()->in_system_session(), system && session != 0);
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
