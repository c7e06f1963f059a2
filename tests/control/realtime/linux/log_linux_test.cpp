#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "control/log.h"
#include "tests/support/linux/environment.h"
#include "tests/support/temp_directory.h"

namespace {

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class LinuxLog : public testing::Test {
 protected:
  void TearDown() override { log_close(); }
  TempDirectory directory_;
};

TEST_F(LinuxLog, TheUsersLogLiesInTheStateDirectoryForThemAlone) {
  const std::filesystem::path state = directory_ / "state";
  const Variable variable("XDG_STATE_HOME", state.c_str());
  log_open(false);
  EXPECT_EQ(log_file_path(), state / "lunderhaze" / "host.log");
  EXPECT_EQ(mode_of(state / "lunderhaze"), 0700u);
  EXPECT_EQ(mode_of(log_file_path()), 0600u);
}

TEST_F(LinuxLog, WithoutTheVariableItLiesBelowTheHomeDirectory) {
  const Variable home("HOME", directory_.path().c_str());
  for (const char* value : {static_cast<const char*>(nullptr), "", "relative/path"}) {
    const Variable variable("XDG_STATE_HOME", value);
    log_open(false);
    EXPECT_EQ(log_file_path(), directory_.path() / ".local/state/lunderhaze/host.log");
  }
}

TEST_F(LinuxLog, NeitherALinkNorAPipeIsWrittenTo) {
  write_file(directory_ / "target", "");
  std::filesystem::create_symlink(directory_ / "target", directory_ / "host.log");
  log_open(false, directory_.path());
  hlog("astray");
  EXPECT_EQ(file_content(directory_ / "target"), "");
  std::filesystem::remove(directory_ / "host.log");
  ASSERT_EQ(mkfifo((directory_ / "host.log").c_str(), 0600), 0);
  const int reader = open((directory_ / "host.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  log_open(false, directory_.path());
  hlog("astray");
  char byte = 0;
  EXPECT_LE(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(LinuxLog, LinesForAFullDiskAreDroppedAndLaterOnesArriveAgain) {
  const Mount disk = Mount::tmpfs(directory_.path(), "size=64k");
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  log_open(false, directory_.path());
  write_file(directory_ / "filler", std::string(1 << 20, 'x'));
  ASSERT_LT(std::filesystem::file_size(directory_ / "filler"), std::uintmax_t{1 << 20});
  for (int i = 0; i < 200; ++i) hlog("%s", std::string(1000, 'd').c_str());
  EXPECT_LE(std::filesystem::file_size(directory_ / "host.log"), 4096u);
  std::filesystem::remove(directory_ / "filler");
  hlog("space again");
  EXPECT_TRUE(file_content(directory_ / "host.log").ends_with("] space again\r\n"));
}

TEST_F(LinuxLog, AReadOnlyDiskCostsTheLogOnly) {
  const Mount disk = Mount::read_only(directory_.path());
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  log_open(false, directory_.path());
  hlog("dropped");
  EXPECT_EQ(entry_count(directory_.path()), 0u);
}

}  // namespace
