// The file that the machine's key lies in: damage to it ends the store, as damage to a secret does.
#include <gtest/gtest.h>

#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/machine_store.h"

namespace {

using keystore::internal::write_protected;

class MachineKeyFile : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }
  MachineStore store_;
};

TEST_F(MachineKeyFile, ADamagedOneIsRefusedAtTheStartAndStaysAsItWas) {
  for (const std::string& damaged : {std::string(), std::string(49, 'k')}) {
    write_private_text(store_ / "store.key", damaged);
    EXPECT_EQ(store_.configure(), "machine identity is unreadable or malformed");
    EXPECT_EQ(file_content(store_ / "store.key"), damaged);
    EXPECT_FALSE(std::filesystem::exists(store_ / "store.key.bad"));
  }
}

TEST_F(MachineKeyFile, ADamagedKeyFileIsNoticedEvenBeforeThereIsASecret) {
  for (const std::string& damaged : {std::string(), std::string(49, 'k'), std::string(5000, 'k')}) {
    std::filesystem::remove(store_ / "identity");
    write_private_text(store_ / "store.key", damaged);
    EXPECT_EQ(store_.configure(), "machine identity persistence failed");
    EXPECT_EQ(file_content(store_ / "store.key"), damaged);
    EXPECT_FALSE(std::filesystem::exists(store_ / "identity"));
  }
}

TEST_F(MachineKeyFile, AnUnreadableKeyFileIsNoticedEvenBeforeThereIsASecret) {
  std::filesystem::remove(store_ / "identity");
  std::filesystem::remove(store_ / "store.key");
  std::filesystem::create_directories(store_ / "store.key" / "in the way");
  make_private(store_ / "store.key");
  EXPECT_EQ(store_.configure(), "machine identity persistence failed");
  EXPECT_TRUE(std::filesystem::is_directory(store_ / "store.key"));
}

TEST_F(MachineKeyFile, AMissingKeyFileShutsTheSecretsAndIsNotReplacedUnderThem) {
  std::filesystem::remove(store_ / "store.key");
  EXPECT_EQ(store_.configure(), "machine identity is unreadable or malformed");
  EXPECT_FALSE(std::filesystem::exists(store_ / "store.key"));
}

TEST_F(MachineKeyFile, AFailedStoreMakesNoKeyFile) {
  std::filesystem::remove(store_ / "store.key");
  keystore::failHostStore("first");
  EXPECT_FALSE(write_protected("anything", "x"));
  EXPECT_FALSE(std::filesystem::exists(store_ / "store.key"));
}

}  // namespace
