// Files of the machine's store that other calls than the store's write.
#include "control/private_file.h"

#include <gtest/gtest.h>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/machine_store.h"

namespace {

class MachinePrivateFile : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }

  MachineStore store_;
};

TEST_F(MachinePrivateFile, AnEmptyOneIsMadeThatTheStoreStartsBeside) {
  EXPECT_TRUE(ensure_private_file(store_ / "host.ini"));
  EXPECT_EQ(file_content(store_ / "host.ini"), "");
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachinePrivateFile, OneThatIsThereStays) {
  write_private_text(store_ / "host.ini", "[settings]\n");
  EXPECT_TRUE(ensure_private_file(store_ / "host.ini"));
  EXPECT_EQ(file_content(store_ / "host.ini"), "[settings]\n");
}

TEST_F(MachinePrivateFile, NoneIsMadeForAStoreThatFailedNorWithoutItsDirectory) {
  EXPECT_FALSE(ensure_private_file(store_ / "none" / "host.ini"));
  keystore::failHostStore("failed by the test");
  EXPECT_FALSE(ensure_private_file(store_ / "host.ini"));
  EXPECT_FALSE(std::filesystem::exists(store_ / "host.ini"));
}

}  // namespace
