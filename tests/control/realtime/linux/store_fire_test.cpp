// The store under fire: a process that saves is killed at every system call it makes. Afterwards
// the store holds the old value or the new one.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "control/keystore.h"
#include "tests/support/linux/scoped_store.h"
#include "tests/support/linux/traced_child.h"
#include "tests/support/store_values.h"
#include "tests/support/stored_value.h"

namespace {

namespace fs = std::filesystem;
using keystore::HostStoreScope;

constexpr const char* NOT_TRACED = "this system does not let a test trace its child";

using Fire = std::tuple<HostStoreScope, std::string>;

class StoreUnderFire : public testing::TestWithParam<Fire> {
 protected:
  static HostStoreScope scope() { return std::get<0>(GetParam()); }
  void SetUp() override {
    if (!ScopedStore::possible(scope())) GTEST_SKIP() << MachineStore::WHY_NOT;
  }
};

TEST_P(StoreUnderFire, ASaveThatIsKilledAtAnySystemCallLeavesTheOldValueOrTheNewOne) {
  const ScopedStore store(scope());
  const StoredValue& value = stored_value(std::get<1>(GetParam()));
  ASSERT_EQ(store.configure(), "");
  keystore::load_or_create_identity(nullptr);  // and its key
  ASSERT_TRUE(value.save(0));
  std::string held = value.text(0);
  int kept = 0;
  int replaced = 0;
  std::size_t left_over = 0;
  TracedEnd end = TracedEnd::Killed;
  for (int stop = 1; end == TracedEnd::Killed; ++stop) {
    end = kill_at(stop, [&] { value.save(stop); });
    if (end == TracedEnd::NotTraced) GTEST_SKIP() << NOT_TRACED;
    ASSERT_EQ(store.configure(), "") << "killed at stop " << stop;
    const std::string loaded = value.load();
    const std::string saved = value.text(stop);
    ASSERT_TRUE(loaded == held || loaded == saved) << "killed at stop " << stop << ": " << loaded;
    ++(loaded == held ? kept : replaced);
    if (end == TracedEnd::Finished) {
      EXPECT_EQ(loaded, saved);
    }
    held = loaded;
    for (const fs::path& temporary : store.temporaries()) {
      ++left_over;
      fs::remove(temporary);
    }
  }
  // It was hit before the change, between writing and renaming, and after it.
  EXPECT_GT(kept, 10);
  EXPECT_GT(left_over, 3u);
  EXPECT_GT(replaced, 2);
  RecordProperty("kills", kept + replaced - 1);
}

INSTANTIATE_TEST_SUITE_P(Values, StoreUnderFire,
                         testing::Combine(testing::Values(keystore::User, keystore::Machine),
                                          testing::Values("authorized_clients", "pairing_password",
                                                          "relays", "settings")),
                         [](const auto& fire) {
                           return scope_name(std::get<0>(fire.param)) +
                                  ("_" + std::get<1>(fire.param));
                         });

class StoreInScope : public testing::TestWithParam<HostStoreScope> {
 protected:
  void SetUp() override {
    if (!ScopedStore::possible(GetParam())) GTEST_SKIP() << MachineStore::WHY_NOT;
  }
};

TEST_P(StoreInScope, AFirstStartThatIsKilledAtAnySystemCallIsFollowedByAWholeOne) {
  const ScopedStore store(GetParam());
  int without_identity = 0;
  int with_identity = 0;
  TracedEnd end = TracedEnd::Killed;
  for (int stop = 1; end == TracedEnd::Killed; ++stop) {
    fs::remove_all(store.path());
    store.restart();
    end = kill_at(stop, [&] {
      keystore::configureHostStore(GetParam(), nullptr);
      keystore::load_or_create_identity(nullptr);
    });
    if (end == TracedEnd::NotTraced) GTEST_SKIP() << NOT_TRACED;
    const std::string made = file_content(store / "identity");
    ++(made.empty() ? without_identity : with_identity);
    ASSERT_EQ(store.configure(), "") << "killed at stop " << stop;
    bool created = made.empty();
    keystore::load_or_create_identity(&created);
    ASSERT_FALSE(created && !made.empty()) << "killed at stop " << stop;
    if (!made.empty()) {
      ASSERT_EQ(file_content(store / "identity"), made) << "killed at stop " << stop;
    }
    ASSERT_FALSE(fs::exists(store / "identity.bad")) << stop;
    ASSERT_FALSE(fs::exists(store / "store.key.bad")) << stop;
    // And it lasts.
    ASSERT_EQ(store.configure(), "");
    keystore::load_or_create_identity(&created);
    ASSERT_FALSE(created);
  }
  EXPECT_GT(without_identity, 10);
  EXPECT_GT(with_identity, 2);
  RecordProperty("kills", without_identity + with_identity - 1);
}

TEST_P(StoreInScope, ADeletionThatIsKilledAtAnySystemCallHasHappenedOrNot) {
  const ScopedStore store(GetParam());
  ASSERT_EQ(store.configure(), "");
  int kept = 0;
  int gone = 0;
  TracedEnd end = TracedEnd::Killed;
  for (int stop = 1; end == TracedEnd::Killed; ++stop) {
    ASSERT_TRUE(keystore::save_password_blob(password_blob()));
    end = kill_at(stop, keystore::delete_password_blob);
    if (end == TracedEnd::NotTraced) GTEST_SKIP() << NOT_TRACED;
    ASSERT_EQ(store.configure(), "") << "killed at stop " << stop;
    const std::string loaded = keystore::load_password_blob();
    ASSERT_TRUE(loaded.empty() || loaded == password_blob()) << "killed at stop " << stop;
    ++(loaded.empty() ? gone : kept);
  }
  EXPECT_GT(kept, 0);
  EXPECT_GT(gone, 0);
}

INSTANTIATE_TEST_SUITE_P(Scopes, StoreInScope, testing::Values(keystore::User, keystore::Machine),
                         [](const auto& scope) { return std::string(scope_name(scope.param)); });

}  // namespace
