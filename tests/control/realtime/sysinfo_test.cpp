#include "control/sysinfo.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/machine_store.h"
#include "tests/support/temp_directory.h"

namespace {

using keystore::internal::reset_for_test;

void use_store(keystore::HostStoreScope scope, const TempDirectory& directory) {
  std::filesystem::permissions(directory.path(), std::filesystem::perms::owner_all);
  reset_for_test(scope, directory.path());
}

class HostId : public testing::TestWithParam<keystore::HostStoreScope> {
 protected:
  void SetUp() override {
    if (GetParam() == keystore::Machine && !MachineStore::possible()) {
      GTEST_SKIP() << MachineStore::WHY_NOT;
    }
    use_store(GetParam(), directory_);
  }
  void TearDown() override { reset_for_test(keystore::User, {}); }
  std::filesystem::path file() const { return directory_ / "host_id"; }
  TempDirectory directory_;
};

TEST_P(HostId, AMissingOneIsDrawnAndKept) {
  const std::uint32_t id = load_or_create_host_id();
  EXPECT_NE(id, 0u);
  EXPECT_EQ(file_content(file()), std::to_string(id));
  EXPECT_EQ(load_or_create_host_id(), id);
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_P(HostId, DigitsFollowedByCrLfAreValid) {
  write_private_text(file(), "4711\r\n");
  EXPECT_EQ(load_or_create_host_id(), 4711u);
  EXPECT_EQ(file_content(file()), "4711\r\n");
}

INSTANTIATE_TEST_SUITE_P(Scopes, HostId, testing::Values(keystore::User, keystore::Machine),
                         [](const auto& scope) {
                           return std::string(scope.param == keystore::User ? "User" : "Machine");
                         });

class StoreScope : public testing::Test {
 protected:
  void use(keystore::HostStoreScope scope) { use_store(scope, directory_); }
  void TearDown() override { reset_for_test(keystore::User, {}); }
  TempDirectory directory_;
};

TEST_F(StoreScope, AMalformedHostIdIsReplacedForAUser) {
  use(keystore::User);
  for (const char* text : {"12a", "0", "4294967296", ""}) {
    write_file(directory_ / "host_id", text);
    const std::uint32_t id = load_or_create_host_id();
    EXPECT_NE(id, 0u);
    EXPECT_EQ(file_content(directory_ / "host_id"), std::to_string(id));
  }
}

TEST_F(StoreScope, AMalformedHostIdFailsTheMachineStoreAndStays) {
  if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
  for (const char* text : {"12a", "0", "4294967296", "", "12 "}) {
    use(keystore::Machine);
    write_private_text(directory_ / "host_id", text);
    EXPECT_THROW(load_or_create_host_id(), std::runtime_error) << text;
    std::string error;
    EXPECT_FALSE(keystore::hostStoreHealthy(&error));
    EXPECT_EQ(error, "machine host id malformed");
    EXPECT_EQ(file_content(directory_ / "host_id"), text);
  }
}

TEST_F(StoreScope, AHostIdTmpLeftByACrashIsNoObstacle) {
  use(keystore::User);
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
  EXPECT_NE(exe_path().filename().string().find("control_realtime_test"), std::string::npos);
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
