// The machine's log where its store is private: what happens must be on record, or the store fails.
#include <gtest/gtest.h>

#include "control/keystore.h"
#include "control/log.h"
#include "control/log_format.h"
#include "tests/support/machine_store.h"

namespace {

namespace fs = std::filesystem;

class MachineLog : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(store_.configure(), ""); }
  void TearDown() override { log_close(); }

  fs::path file() const { return store_ / "host.log"; }
  void open() const { log_open(false, store_.path()); }
  bool keeps_a_record() const {
    hlog("on record");
    return file_content(file()).ends_with("] on record\r\n");
  }

  MachineStore store_;
};

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
  open();
  EXPECT_EQ(store_failure(), "machine log open failed");
}

TEST_F(MachineLog, WithoutAStoreToLieInFailsTheStore) {
  fs::remove_all(store_.path());
  open();
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
