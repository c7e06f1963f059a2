#include "control/sysinfo.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/temp_directory.h"

namespace {

using keystore::internal::reset_for_test;

class StoreScope : public testing::Test {
 protected:
  void SetUp() override { reset_for_test(keystore::User, directory_.path()); }
  void TearDown() override { reset_for_test(keystore::User, {}); }
  TempDirectory directory_;
};

TEST_F(StoreScope, AMalformedHostIdIsReplacedForAUser) {
  for (const char* text : {"12a", "0", "4294967296", ""}) {
    write_file(directory_ / "host_id", text);
    const std::uint32_t id = load_or_create_host_id();
    EXPECT_NE(id, 0u);
    EXPECT_EQ(file_content(directory_ / "host_id"), std::to_string(id));
  }
}

TEST_F(StoreScope, AHostIdTmpLeftByACrashIsNoObstacle) {
  write_file(directory_ / "host_id.tmp", "half");
  EXPECT_EQ(file_content(directory_ / "host_id"), "");
  const std::uint32_t id = load_or_create_host_id();
  EXPECT_EQ(file_content(directory_ / "host_id"), std::to_string(id));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "host_id.tmp"));
}

TEST_F(StoreScope, TheDataDirectoryIsTheStoresAndIsMadeForAUser) {
  reset_for_test(keystore::User, directory_ / "new");
  EXPECT_EQ(app_data_dir(), directory_ / "new");
  EXPECT_TRUE(std::filesystem::is_directory(directory_ / "new"));
  reset_for_test(keystore::Machine, directory_ / "machine");
  EXPECT_EQ(app_data_dir(), directory_ / "machine");
  EXPECT_FALSE(std::filesystem::exists(directory_ / "machine"));
}

TEST(Sysinfo, RandomNumbersDiffer) {
  std::set<std::uint32_t> drawn;
  for (int i = 0; i < 16; ++i) drawn.insert(random_u32());
  EXPECT_GE(drawn.size(), 15u);
}

TEST(Sysinfo, TheComputerHasANameAndTheProgramAPlace) {
  EXPECT_NE(computer_name_utf8(), "");
  EXPECT_TRUE(std::filesystem::is_regular_file(exe_path()));
  EXPECT_TRUE(exe_path().filename().string().starts_with("control_")) << exe_path();
}

TEST(Sysinfo, InterfacesAndTheirTextsAreOfTheSameAdapters) {
  const std::vector<LocalInterface> interfaces = local_ipv4_interfaces();
  EXPECT_EQ(interfaces.size(), lan_ipv4_addresses().size());
  for (const LocalInterface& entry : interfaces) {
    EXPECT_NE(entry.address, 0u);
    EXPECT_NE(entry.mask, 0u);
  }
}

}  // namespace
