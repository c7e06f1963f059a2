// The machine's log: what happens must be on record and out of others' reach, or the store fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/log_format.h"
#include "tests/support/linux/access_list.h"
#include "tests/support/linux/environment.h"
#include "tests/support/machine_store.h"

namespace {

namespace fs = std::filesystem;

mode_t mode_of(const fs::path& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class MachineLog : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }
  void TearDown() override { log_close(); }

  fs::path file() const { return store_ / "host.log"; }
  void open() const { log_open(false, store_.path()); }
  // Whether a line reaches the file.
  bool keeps_a_record() const {
    hlog("on record");
    return file_content(file()).ends_with("] on record\r\n");
  }

  MachineStore store_;
};

TEST_F(MachineLog, LiesInTheStoreForTheSystemAloneAndPassesItsListing) {
  const mode_t former = umask(0);
  open();
  umask(former);
  EXPECT_EQ(store_failure(), "");
  EXPECT_TRUE(keeps_a_record());
  EXPECT_EQ(mode_of(file()), 0600u);
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineLog, IsContinuedByTheNextProcess) {
  open();
  hlog("before");
  log_close();
  ASSERT_EQ(store_.configure(), "");
  open();
  EXPECT_EQ(store_failure(), "");
  EXPECT_NE(file_content(file()).find("] before\r\n"), std::string::npos);
  EXPECT_TRUE(keeps_a_record());
}

TEST_F(MachineLog, WithAWrongOwnerModeOrListItFailsTheStoreAndOpensNothing) {
  const auto spoil = [this](int way) {
    switch (way) {
      case 0:
        return chown(file().c_str(), ORDINARY_USER, 0) == 0;
      case 1:
        return chmod(file().c_str(), 0640) == 0;
      case 2:
        return chmod(file().c_str(), 0602) == 0;
      default:
        return set_access_list(file(), ACCESS_LIST, 6, 4, 0);
    }
  };
  for (int way = 0; way < 4; ++way) {
    write_private_text(file(), "before\r\n");
    if (!spoil(way)) GTEST_SKIP() << "there are no access lists here";
    store_.restart();
    open();
    EXPECT_EQ(store_failure(), "machine log protection invalid") << way;
    EXPECT_FALSE(keeps_a_record()) << way;
    EXPECT_EQ(file_content(file()), "before\r\n") << way;
    fs::remove(file());
  }
}

TEST_F(MachineLog, ALinkIsNotFollowedAndFailsTheStore) {
  for (const bool leads_somewhere : {true, false}) {
    if (leads_somewhere) write_private_text(store_ / "target", "");
    fs::create_symlink(store_ / "target", file());
    store_.restart();
    open();
    EXPECT_EQ(store_failure(), "machine log protection invalid");
    hlog("astray");
    EXPECT_EQ(file_content(store_ / "target"), "");
    fs::remove(store_ / "target");
    EXPECT_TRUE(fs::is_symlink(file()));
    fs::remove(file());
  }
}

TEST_F(MachineLog, ThatCannotBeOpenedFailsTheStore) {
  ASSERT_TRUE(fs::create_directory(file()));
  fs::permissions(file(), fs::perms::owner_all);
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLog, APipeInItsPlaceFailsTheStoreAndHoldsNobodyUp) {
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLog, WithoutAStoreToLieInFailsTheStore) {
  fs::remove_all(store_.path());
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
  store_.restart();
  log_open(false, fs::path());
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLog, OnAReadOnlyDiskFailsTheStore) {
  const Mount disk = Mount::read_only(store_.path());
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLog, ThatTheDirectoryWouldShareWithOthersFailsTheStore) {
  if (!set_access_list(store_.path(), DEFAULT_ACCESS_LIST, 7, 4, 7))
    GTEST_SKIP() << "there are no access lists here";
  open();
  EXPECT_EQ(store_failure(), "machine log security unavailable");
  EXPECT_EQ(file_content(file()), "");
}

TEST_F(MachineLog, ALineThatAFullDiskDropsDoesNotFailTheStore) {
  const Mount disk = Mount::tmpfs(store_.path(), "size=64k,mode=0700");
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  open();
  write_private_text(store_ / "filler", std::string(1 << 20, 'x'));
  for (int i = 0; i < 20; ++i) hlog("%s", std::string(1000, 'd').c_str());
  EXPECT_EQ(store_failure(), "");
  fs::remove(store_ / "filler");
  EXPECT_TRUE(keeps_a_record());
}

class MachineLogAtItsLimit : public MachineLog {
 protected:
  void SetUp() override {
    MachineLog::SetUp();
    if (IsSkipped()) return;
    write_private_text(file(), std::string(LOG_ROTATE_BYTES - 100, 'x'));
    open();  // the banner takes some of what is left
    ASSERT_EQ(store_failure(), "");
  }
  fs::path old_file() const { return store_ / "host.log.1"; }
  void pass_the_limit() const { hlog("%s", std::string(200, 'l').c_str()); }
};

TEST_F(MachineLogAtItsLimit, BothGenerationsAreTheSystemsAlone) {
  const mode_t former = umask(0);
  pass_the_limit();
  umask(former);
  EXPECT_TRUE(keeps_a_record());
  EXPECT_EQ(mode_of(file()), 0600u);
  EXPECT_EQ(mode_of(old_file()), 0600u);
  EXPECT_EQ(store_failure(), "");
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineLogAtItsLimit, ANewFileThatWouldBeSharedFailsTheStoreWhileItRuns) {
  if (!set_access_list(store_.path(), DEFAULT_ACCESS_LIST, 7, 4, 7))
    GTEST_SKIP() << "there are no access lists here";
  pass_the_limit();
  EXPECT_EQ(store_failure(), "machine log security unavailable");
  EXPECT_FALSE(keeps_a_record());
}

TEST_F(MachineLogAtItsLimit, AFileThatCannotBeSetAsideGoesOn) {
  fs::create_directories(old_file() / "in the way");
  pass_the_limit();
  EXPECT_TRUE(keeps_a_record());
  EXPECT_EQ(store_failure(), "");
}

TEST_F(MachineLog, InTheUsersScopeTheSameCostsNothing) {
  write_private_text(file(), "before\r\n");
  ASSERT_EQ(chmod(file().c_str(), 0644), 0);
  keystore::internal::reset_for_test(keystore::User, store_.path());
  open();
  EXPECT_TRUE(keeps_a_record());
}

}  // namespace
