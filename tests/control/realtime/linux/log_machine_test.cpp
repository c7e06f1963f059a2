// The machine's log: out of others' reach, or the store fails.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "control/keystore_internal.h"
#include "control/log_format.h"
#include "tests/control/realtime/machine_log.h"
#include "tests/support/linux/access_list.h"
#include "tests/support/linux/environment.h"

namespace {

namespace fs = std::filesystem;

mode_t mode_of(const fs::path& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

using MachineLogOnLinux = MachineLog;

TEST_F(MachineLogOnLinux, LiesInTheStoreForTheSystemAloneAndPassesItsListing) {
  const mode_t former = umask(0);
  open();
  umask(former);
  EXPECT_EQ(store_failure(), "");
  EXPECT_TRUE(keeps_a_record());
  EXPECT_EQ(mode_of(file()), 0600u);
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineLogOnLinux, WithAWrongOwnerModeOrListItFailsTheStoreAndOpensNothing) {
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

TEST_F(MachineLogOnLinux, ALinkIsNotFollowedAndFailsTheStore) {
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

TEST_F(MachineLogOnLinux, APipeInItsPlaceFailsTheStoreAndHoldsNobodyUp) {
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLogOnLinux, OnAReadOnlyDiskFailsTheStore) {
  const Mount disk = Mount::read_only(store_.path());
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLogOnLinux, ThatTheDirectoryWouldShareWithOthersFailsTheStore) {
  if (!set_access_list(store_.path(), DEFAULT_ACCESS_LIST, 7, 4, 7))
    GTEST_SKIP() << "there are no access lists here";
  open();
  EXPECT_EQ(store_failure(), "machine log security unavailable");
  EXPECT_EQ(file_content(file()), "");
}

TEST_F(MachineLogOnLinux, ALineThatAFullDiskDropsDoesNotFailTheStore) {
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

TEST_F(MachineLogOnLinux, InTheUsersScopeTheSameCostsNothing) {
  write_private_text(file(), "before\r\n");
  ASSERT_EQ(chmod(file().c_str(), 0644), 0);
  keystore::internal::reset_for_test(keystore::User, store_.path());
  open();
  EXPECT_TRUE(keeps_a_record());
}

}  // namespace
