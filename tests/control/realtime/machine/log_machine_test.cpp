// The machine's log: what happens must be on record, or the store fails.
#include "control/log_format.h"
#include "tests/control/realtime/machine_log.h"

namespace {

namespace fs = std::filesystem;

TEST_F(MachineLog, LiesInTheStoreAndIsContinuedByTheNextProcess) {
  open();
  hlog("before");
  log_close();
  ASSERT_EQ(store_.configure(), "");
  open();
  EXPECT_EQ(store_failure(), "");
  EXPECT_NE(file_content(file()).find("] before\r\n"), std::string::npos);
  EXPECT_TRUE(keeps_a_record());
}

TEST_F(MachineLog, ThatCannotBeOpenedFailsTheStore) {
  ASSERT_TRUE(fs::create_directory(file()));
  make_private(file());
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

TEST_F(MachineLog, AtItsLimitGoesOnInANewFileOfTheSameKind) {
  write_private_text(file(), std::string(LOG_ROTATE_BYTES - 100, 'x'));
  open();  // the banner takes some of what is left
  hlog("%s", std::string(200, 'l').c_str());
  EXPECT_TRUE(fs::exists(store_ / "host.log.1"));
  EXPECT_TRUE(keeps_a_record());
  EXPECT_EQ(store_failure(), "");
  EXPECT_EQ(store_.configure(), "");
}

}  // namespace
