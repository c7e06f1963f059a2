// What the store and the log ask of Windows: the very calls, their order and arguments, and what
// becomes of the store when one of them fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/log_format.h"
#include "control/switches.h"
#include "control/windows/handles.h"
#include "tests/support/machine_store.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

const std::string MACHINES = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";
// Of a name that nobody foretells.
const std::string RANDOM_NAME = "BCryptGenRandom the system's bytes 16 flags 2";

// A new file for itself (CREATE_NEW), which is no link (FILE_FLAG_OPEN_REPARSE_POINT).
std::string creation(const std::string& name, const std::string& descriptor) {
  return "CreateFileW " + name + " access 40000000 share 0 " + descriptor +
         " disposition 1 flags 200080";
}
// In place of another (MOVEFILE_REPLACE_EXISTING), on the disk when it returns
// (MOVEFILE_WRITE_THROUGH).
std::string replacement(const std::string& name) {
  return "MoveFileExW " + name + ".tmp-* to " + name + " flags 9";
}

class MachineCalls : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(store_.configure(), ""); }
  void TearDown() override { log_close(); }

  static bool save() { return keystore::writeHostFile("settings", "new", 3); }

  MachineStore store_;
};

TEST_F(MachineCalls, AFileIsCreatedForTheSystemAloneWrittenFlushedAndMovedIntoPlace) {
  SystemCalls calls;
  EXPECT_TRUE(save());
  EXPECT_THAT(calls.take(),
              ElementsAre(RANDOM_NAME, creation("settings.tmp-*", MACHINES), "WriteFile 3",
                          "FlushFileBuffers ", replacement("settings")));
}

TEST_F(MachineCalls, AFailureAtAnyStepLeavesTheOldFileAndFailsTheStore) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  const std::size_t entries = entry_count(store_.path());
  const std::pair<const char*, DWORD> failures[] = {
      {"CreateFileW", ERROR_ACCESS_DENIED},  {"BCryptGenRandom", 0xC000'0001},
      {"WriteFile", ERROR_DISK_FULL},        {"WriteFile", ERROR_SUCCESS},
      {"FlushFileBuffers", ERROR_IO_DEVICE}, {"MoveFileExW", ERROR_DISK_FULL}};
  for (const auto& [name, error] : failures) {
    store_.restart();
    SystemCalls calls;
    calls.fail(name, error);
    EXPECT_FALSE(save()) << name;
    EXPECT_EQ(store_failure(), "machine file write failed") << name;
    EXPECT_EQ(file_content(store_ / "settings"), "old") << name;
    EXPECT_EQ(entry_count(store_.path()), entries) << name;
  }
}

TEST_F(MachineCalls, AFailedWriteDeletesTheTemporaryFileAndMovesNothing) {
  SystemCalls calls;
  calls.fail("FlushFileBuffers", ERROR_IO_DEVICE);
  EXPECT_FALSE(save());
  EXPECT_THAT(calls.take(),
              ElementsAre(RANDOM_NAME, creation("settings.tmp-*", MACHINES), "WriteFile 3",
                          "FlushFileBuffers ", "DeleteFileW settings.tmp-*"));
}

TEST_F(MachineCalls, SecretsAreSealedForTheMachineWithoutQuestionsAndOpenedTheSameWay) {
  SystemCalls calls;
  EXPECT_TRUE(keystore::internal::write_protected("secret", "text"));
  EXPECT_EQ(calls.take().at(0), "CryptProtectData Lunderhaze no entropy flags 5");
  std::string text;
  EXPECT_EQ(keystore::internal::read_protected("secret", &text), keystore::internal::Read::Ok);
  EXPECT_THAT(calls.take(), ElementsAre("CreateFileW secret access 80000000 share 1 default "
                                        "disposition 3 flags 80",
                                        "CryptUnprotectData no entropy flags 1"));
}

TEST_F(MachineCalls, ASecretThatCannotBeSealedOrOpenedFailsTheStore) {
  {
    SystemCalls calls;
    calls.fail("CryptProtectData", static_cast<DWORD>(NTE_BAD_KEY_STATE));
    EXPECT_FALSE(keystore::save_password_blob("text"));
    EXPECT_EQ(store_failure(), "machine persistence failed");
  }
  store_.restart();
  SystemCalls calls;
  calls.fail("CryptUnprotectData", ERROR_INVALID_DATA);
  EXPECT_THROW(keystore::load_or_create_identity(nullptr), std::runtime_error);
  EXPECT_EQ(store_failure(), "machine identity is unreadable or malformed");
}

TEST_F(MachineCalls, APasswordThatCannotBeDeletedFailsTheStore) {
  ASSERT_TRUE(keystore::internal::write_protected("pairing_password", "text"));
  SystemCalls calls;
  calls.fail("DeleteFileW", ERROR_SHARING_VIOLATION);
  keystore::delete_password_blob();
  EXPECT_EQ(store_failure(), "machine password deletion failed");
}

TEST_F(MachineCalls, TheLogIsAppendedToByAnybodyWhoMayAndMadeForTheSystemAlone) {
  SystemCalls calls;
  log_open(false, store_.path());
  EXPECT_THAT(calls.take(), ElementsAre("CreateFileW host.log access 4 share 7 " + MACHINES +
                                            " disposition 4 flags 200080",
                                        StartsWith("WriteFile ")));
  hlog("one line");
  EXPECT_THAT(calls.take(), ElementsAre("WriteFile 36"));
}

TEST_F(MachineCalls, TheLogIsSetAsideByOneMove) {
  write_private_text(store_ / "host.log", std::string(LOG_ROTATE_BYTES - 100, 'x'));
  log_open(false, store_.path());
  SystemCalls calls;
  hlog("%s", std::string(200, 'l').c_str());
  EXPECT_THAT(calls.take(),
              ElementsAre("WriteFile 228", "MoveFileExW host.log to host.log.1 flags 1",
                          "CreateFileW host.log access 4 share 7 " + MACHINES +
                              " disposition 4 flags 200080"));
}

TEST_F(MachineCalls, ALogThatCannotBeOpenedFailsTheStore) {
  SystemCalls calls;
  calls.fail("CreateFileW", ERROR_ACCESS_DENIED);
  log_open(false, store_.path());
  EXPECT_EQ(store_failure(), "machine log open failed");
}

// Windows itself makes the file of a profile with what its directory hands down, and a store with
// such a file in it doesn't start again.
TEST_F(MachineCalls, AProfileIsCreatedForTheSystemAloneBeforeWindowsWritesIt) {
  SystemCalls calls;
  EXPECT_TRUE(save_mute_host(store_.path(), false));
  EXPECT_THAT(calls.take(),
              ElementsAre(creation("host.ini", MACHINES), "WriteFile 0", "FlushFileBuffers "));
  EXPECT_FALSE(load_mute_host(store_.path()));
  EXPECT_TRUE(save_mute_host(store_.path(), true));
  EXPECT_THAT(calls.take(), ElementsAre());
  EXPECT_TRUE(load_mute_host(store_.path()));
  EXPECT_EQ(store_.configure(), "");
}

class UserCalls : public testing::Test {
 protected:
  void SetUp() override { keystore::internal::reset_for_test(keystore::User, directory_.path()); }
  void TearDown() override {
    log_close();
    keystore::internal::reset_for_test(keystore::User, {});
  }
  TempDirectory directory_;
};

TEST_F(UserCalls, AFileIsTheUsersAndTheSystemsAlone) {
  SystemCalls calls;
  EXPECT_TRUE(keystore::writeHostFile("settings", "new", 3));
  const std::vector<std::string> lines = calls.take();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_THAT(lines[1], testing::MatchesRegex(
                            "CreateFileW settings.tmp-. access 40000000 share 0 D:P.A;;FA;;;S-1-5-"
                            ".*..A;;FA;;;SY. disposition 1 flags 200080"));
  EXPECT_EQ(lines[4], replacement("settings"));
}

TEST_F(UserCalls, SecretsAreSealedForTheUser) {
  SystemCalls calls;
  EXPECT_TRUE(keystore::internal::write_protected("secret", "text"));
  EXPECT_EQ(calls.take().at(0), "CryptProtectData Lunderhaze no entropy flags 1");
}

TEST_F(UserCalls, TheLogHasWhatItsDirectoryHandsDown) {
  SystemCalls calls;
  log_open(false, directory_.path());
  EXPECT_EQ(calls.take().at(0),
            "CreateFileW host.log access 4 share 7 default disposition 4 flags 200080");
}

TEST_F(UserCalls, AFileThatIsHeldForMomentsIsAskedForAgain) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  SystemCalls calls;
  calls.fail("MoveFileExW", ERROR_SHARING_VIOLATION);
  EXPECT_FALSE(keystore::writeHostFile("settings", "new", 3));
  const std::vector<std::string> lines = calls.take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), replacement("settings")), 100);
}

TEST_F(UserCalls, OneThatIsRefusedForGoodIsNot) {
  std::filesystem::create_directory(directory_ / "settings");
  SystemCalls calls;
  calls.fail("MoveFileExW", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(keystore::writeHostFile("settings", "new", 3));
  const std::vector<std::string> lines = calls.take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), replacement("settings")), 1);
}

}  // namespace
