// The log's file among others that have to do with it: who reads, renames or deletes it while it is
// open, and the machine's that anybody could change.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/log_platform.h"
#include "control/windows/handles.h"
#include "tests/support/machine_store.h"
#include "tests/support/temp_directory.h"

namespace {

namespace fs = std::filesystem;
using keystore::internal::reset_for_test;

class WindowsLog : public testing::Test {
 protected:
  void SetUp() override { reset_for_test(keystore::User, {}); }
  void TearDown() override {
    log_close();
    reset_for_test(keystore::User, {});
  }
  fs::path file() const { return directory_ / "host.log"; }

  TempDirectory directory_;
};

TEST_F(WindowsLog, OfAUserLiesInTheLocalProfile) {
  log_open(false);
  const wchar_t* const local = _wgetenv(L"LOCALAPPDATA");
  ASSERT_NE(local, nullptr);
  EXPECT_EQ(log_file_path(), fs::path(local) / "Lunderhaze" / "host.log");
  EXPECT_TRUE(fs::is_regular_file(log_file_path()));
}

TEST_F(WindowsLog, NamesThePlatformInItsBanner) {
  log_open(false, directory_.path());
  EXPECT_NE(file_content(file()).find("] ---- Lunderhaze (Windows) started (pid " +
                                      std::to_string(GetCurrentProcessId()) + ", tray) ----\r\n"),
            std::string::npos);
}

TEST_F(WindowsLog, IsReadWhileItIsOpen) {
  log_open(false, directory_.path());
  hlog("seen");
  const Handle reader = owned_file(CreateFileW(
      file().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(reader);
  EXPECT_TRUE(file_content(file()).ends_with("] seen\r\n"));
}

TEST_F(WindowsLog, RenamedWhileItIsOpenItGoesOnUnderTheNewName) {
  log_open(false, directory_.path());
  fs::rename(file(), directory_ / "renamed");
  hlog("after");
  EXPECT_TRUE(file_content(directory_ / "renamed").ends_with("] after\r\n"));
  EXPECT_FALSE(fs::exists(file()));
}

TEST_F(WindowsLog, DeletedWhileItIsOpenItHoldsNobodyUp) {
  log_open(false, directory_.path());
  EXPECT_TRUE(DeleteFileW(file().c_str()));
  hlog("into nothing");
  log_open(false, directory_.path());
  hlog("again");
  EXPECT_TRUE(file_content(file()).ends_with("] again\r\n"));
}

TEST_F(WindowsLog, EachLineLandsAtTheEndWhoeverWroteLast) {
  log_open(false, directory_.path());
  const std::string before = file_content(file());
  const std::string other = "another's line\r\n";
  const Handle writer = owned_file(CreateFileW(
      file().c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_TRUE(writer);
  DWORD written = 0;
  ASSERT_TRUE(
      WriteFile(writer.get(), other.data(), static_cast<DWORD>(other.size()), &written, nullptr));
  hlog("ours");
  const std::string content = file_content(file());
  EXPECT_TRUE(content.starts_with(before + other)) << content;
  EXPECT_TRUE(content.ends_with("] ours\r\n")) << content;
}

unsigned long long time_of(const SYSTEMTIME& time) {
  FILETIME ticks;
  SystemTimeToFileTime(&time, &ticks);
  return static_cast<unsigned long long>(ticks.dwHighDateTime) << 32 | ticks.dwLowDateTime;
}

TEST_F(WindowsLog, TheTimeIsTheComputersLocalTime) {
  SYSTEMTIME before, after;
  GetLocalTime(&before);
  const log_platform::LocalTime now = log_platform::local_time();
  GetLocalTime(&after);
  const auto word = [](unsigned value) { return static_cast<WORD>(value); };
  const SYSTEMTIME between{word(now.year),   word(now.month),      0,
                           word(now.day),    word(now.hour),       word(now.minute),
                           word(now.second), word(now.millisecond)};
  EXPECT_LE(time_of(before), time_of(between));
  EXPECT_LE(time_of(between), time_of(after));
}

// A file that anybody could have made, in a directory that anybody can write to.
TEST_F(WindowsLog, OfTheMachineIsNotContinuedInAFileThatIsNotPrivate) {
  write_file(file(), "before\r\n");
  reset_for_test(keystore::Machine, directory_.path());
  log_open(false, directory_.path());
  EXPECT_EQ(store_failure(), "machine log protection invalid");
  hlog("astray");
  EXPECT_EQ(file_content(file()), "before\r\n");
}

}  // namespace
