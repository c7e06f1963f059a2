// The computer's number in either scope's store, and what damage to the machine's costs.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/sysinfo.h"
#include "tests/support/machine_store.h"
#include "tests/support/temp_directory.h"

namespace {

class HostId : public testing::TestWithParam<keystore::HostStoreScope> {
 protected:
  void SetUp() override {
    if (GetParam() == keystore::Machine) {
      if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
      make_private(directory_.path());
    }
    restart();
  }
  void TearDown() override { keystore::internal::reset_for_test(keystore::User, {}); }

  void restart() const { keystore::internal::reset_for_test(GetParam(), directory_.path()); }
  void put(const std::string& text) const {
    if (GetParam() == keystore::Machine)
      write_private_text(file(), text);
    else
      write_file(file(), text);
  }
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
  put("4711\r\n");
  EXPECT_EQ(load_or_create_host_id(), 4711u);
  EXPECT_EQ(file_content(file()), "4711\r\n");
}

INSTANTIATE_TEST_SUITE_P(Scopes, HostId, testing::Values(keystore::User, keystore::Machine),
                         [](const auto& scope) {
                           return std::string(scope.param == keystore::User ? "User" : "Machine");
                         });

class MachineHostId : public HostId {};

TEST_P(MachineHostId, ThatIsMalformedFailsTheStoreAndStays) {
  for (const char* text : {"12a", "0", "4294967296", "", "12 "}) {
    restart();
    put(text);
    EXPECT_THROW(load_or_create_host_id(), std::runtime_error) << text;
    EXPECT_EQ(store_failure(), "machine host id malformed");
    EXPECT_EQ(file_content(file()), text);
  }
}

INSTANTIATE_TEST_SUITE_P(Scopes, MachineHostId, testing::Values(keystore::Machine));

}  // namespace
