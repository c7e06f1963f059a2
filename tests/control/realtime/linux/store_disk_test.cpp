// The store on a disk that is full, or has turned read-only: a save fails in words, and what was
// there before is there afterwards.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/sysinfo.h"
#include "tests/support/linux/environment.h"
#include "tests/support/linux/scoped_store.h"
#include "tests/support/stored_value.h"

namespace {

namespace fs = std::filesystem;
using keystore::HostStoreScope;
using keystore::Machine;

constexpr std::size_t PAGE_BYTES = 4'096;

class StoreDisk : public testing::TestWithParam<HostStoreScope> {
 protected:
  void SetUp() override {
    if (!ScopedStore::possible(GetParam())) GTEST_SKIP() << MachineStore::WHY_NOT;
    store_ = std::make_unique<ScopedStore>(GetParam());
    fs::create_directory(store_->path());
    disk_.reset(new Mount(Mount::tmpfs(store_->path(), "size=64k,mode=0700")));
    if (!disk_->ok()) GTEST_SKIP() << "needs the right to mount";
    log_open(false, logs_.path());
  }
  void TearDown() override { log_close(); }

  fs::path filler() const { return *store_ / "filler"; }
  void fill(std::size_t left_bytes = 0) const {
    write_private_text(filler(), std::string(1 << 20, 'x'));
    const std::uintmax_t size = fs::file_size(filler());
    ASSERT_LT(size, std::uintmax_t{1 << 20});
    fs::resize_file(filler(), size - left_bytes);
  }

  void save_all(int value) const {
    ASSERT_EQ(store_->configure(), "");
    keystore::load_or_create_identity(nullptr);
    for (const StoredValue& stored : stored_values()) ASSERT_TRUE(stored.save(value));
  }

  bool logged(const std::string& line) const {
    return file_content(logs_ / "host.log").find("] " + line + "\r\n") != std::string::npos;
  }

  // Each save fails, in the words of its scope, and leaves everything as it was.
  void expect_nothing_is_saved(int held) const {
    const std::size_t entries = entry_count(store_->path());
    for (const StoredValue& stored : stored_values()) {
      EXPECT_FALSE(stored.save(held + 1)) << stored.name;
      EXPECT_EQ(store_failure(), GetParam() == Machine ? stored.machine_words : "");
      if (GetParam() != Machine && !stored.user_words.empty()) {
        EXPECT_TRUE(logged(stored.user_words)) << stored.user_words;
      }
      ASSERT_EQ(store_->configure(), "") << stored.name;
      EXPECT_EQ(stored.load(), stored.text(held)) << stored.name;
    }
    EXPECT_EQ(entry_count(store_->path()), entries);
  }

  std::unique_ptr<ScopedStore> store_;
  std::unique_ptr<Mount> disk_;
  TempDirectory logs_;
};

TEST_P(StoreDisk, AFullOneFailsEverySaveAndKeepsEveryOldValue) {
  save_all(7);
  fill();
  expect_nothing_is_saved(7);
  fs::remove(filler());
  save_all(8);
  for (const StoredValue& stored : stored_values()) EXPECT_EQ(stored.load(), stored.text(8));
}

TEST_P(StoreDisk, OneThatFillsUpInTheMiddleOfASaveKeepsTheOldValue) {
  save_all(7);
  fill(PAGE_BYTES);
  const std::size_t entries = entry_count(store_->path());
  const std::string large(2 * PAGE_BYTES, 'x');
  EXPECT_FALSE(keystore::writeHostFile("settings", large.data(), large.size()));
  EXPECT_EQ(store_failure(), GetParam() == Machine ? "machine file write failed" : "");
  EXPECT_EQ(entry_count(store_->path()), entries);
  ASSERT_EQ(store_->configure(), "");
  EXPECT_EQ(stored_value("settings").load(), stored_value("settings").text(7));
}

TEST_P(StoreDisk, OneThatTurnsReadOnlyFailsEverySaveAndIsReadAllTheSame) {
  save_all(7);
  const Mount read_only = Mount::read_only(store_->path());
  ASSERT_TRUE(read_only.ok());
  expect_nothing_is_saved(7);
}

TEST_P(StoreDisk, OnAReadOnlyOneAPasswordIsNotDeleted) {
  save_all(7);
  const Mount read_only = Mount::read_only(store_->path());
  ASSERT_TRUE(read_only.ok());
  keystore::delete_password_blob();
  EXPECT_EQ(store_failure(), GetParam() == Machine ? "machine password deletion failed" : "");
  EXPECT_EQ(stored_value("pairing_password").load(), stored_value("pairing_password").text(7));
}

TEST_P(StoreDisk, OnAFullOneNoIdentityIsMade) {
  fill();
  EXPECT_EQ(store_->configure(),
            GetParam() == Machine ? "machine identity persistence failed" : "");
  EXPECT_EQ(entry_count(store_->path()), 1u);
}

TEST_P(StoreDisk, OnAFullOneAMachineHasNoIdAndAUserOneForThisRun) {
  save_all(7);
  fill();
  if (GetParam() == Machine) {
    EXPECT_THROW(load_or_create_host_id(), std::runtime_error);
    EXPECT_EQ(store_failure(), "machine file write failed");
  } else {
    EXPECT_NE(load_or_create_host_id(), 0u);
    EXPECT_TRUE(logged("warning: could not persist the host id"));
  }
  EXPECT_FALSE(fs::exists(*store_ / "host_id"));
}

INSTANTIATE_TEST_SUITE_P(Scopes, StoreDisk, testing::Values(keystore::User, Machine),
                         [](const auto& scope) { return std::string(scope_name(scope.param)); });

}  // namespace
