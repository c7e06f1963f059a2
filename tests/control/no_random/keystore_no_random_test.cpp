// What becomes of the store when the system's random source fails: this program has one that always
// does.
#include <gtest/gtest.h>

#include "connection/secure.h"
#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/system_random.h"
#include "tests/support/machine_store.h"
#include "tests/support/wiped.h"

int lund_random_bytes(void*, std::size_t) {
  return LUND_ERR_RANDOM;
}
bool system_random(void*, std::size_t) {
  return false;
}

namespace {

TEST(NoRandomStore, AMachineWithoutAnIdentityIsRefused) {
  if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
  const MachineStore store;
  EXPECT_EQ(store.configure(), "machine identity generation failed");
  EXPECT_EQ(entry_count(store.path()), 0u);
}

class NoRandomUserStore : public testing::Test {
 protected:
  void SetUp() override {
    keystore::internal::reset_for_test(keystore::User, directory_ / "store");
    log_open(false, directory_.path());
  }
  void TearDown() override {
    log_close();
    keystore::internal::reset_for_test(keystore::User, {});
  }
  TempDirectory directory_;
};

TEST_F(NoRandomUserStore, HasNoIdentityAndSaysSo) {
  bool created = true;
  const lund_keypair identity = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_TRUE(is_wiped(identity));
  EXPECT_NE(file_content(directory_ / "host.log").find("] identity: key generation failed\r\n"),
            std::string::npos);
}

TEST_F(NoRandomUserStore, SavesNothingUnderANameOrAKeyThatCouldBeForetold) {
  EXPECT_FALSE(keystore::save_password_blob("text"));
  EXPECT_FALSE(keystore::writeHostFile("settings", "x", 1));
  EXPECT_EQ(entry_count(directory_ / "store"), 0u);
}

}  // namespace
