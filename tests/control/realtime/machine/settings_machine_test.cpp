// The stream settings in the machine's store.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "control/settings.h"
#include "tests/support/machine_store.h"

namespace {

class MachineSettings : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }
  MachineStore store_;
};

TEST_F(MachineSettings, Of15BytesEndTheStartAndFailTheStore) {
  write_private_text(store_ / "settings", std::string(15, 'x'));
  std::string said;
  try {
    host_app::load_settings();
  } catch (const std::runtime_error& error) {
    said = error.what();
  }
  EXPECT_EQ(said, "machine settings malformed");
  EXPECT_EQ(store_failure(), "machine settings malformed");
  EXPECT_EQ(store_.configure(), "machine settings malformed");
}

TEST_F(MachineSettings, AreThereForTheNextProcess) {
  ASSERT_TRUE(host_app::save_settings({.fps = 30}));
  ASSERT_EQ(store_.configure(), "");
  EXPECT_EQ(host_app::load_settings().fps, 30);
}

}  // namespace
