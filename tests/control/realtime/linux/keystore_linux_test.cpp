// The store on Linux: where it lies, who may read it, what its key is bound to, and what is left
// when the disk fails.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "control/keystore.h"
#include "control/keystore_inspect.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/sysinfo.h"
#include "tests/support/linux/environment.h"
#include "tests/support/store_values.h"
#include "tests/support/temp_directory.h"

namespace {

using keystore::User;
using keystore::internal::reset_for_test;

mode_t mode_of(const std::filesystem::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class LinuxStore : public testing::Test {
 protected:
  void SetUp() override {
    reset_for_test(User, {});
    log_open(false, logs_.path());
  }
  void TearDown() override {
    log_close();
    reset_for_test(User, {});
  }
  std::filesystem::path store() const { return directory_ / "lunderhaze"; }
  bool logged(const std::string& text) const {
    return file_content(logs_ / "host.log").find(text) != std::string::npos;
  }

  TempDirectory directory_;
  TempDirectory logs_;
  Variable variable_{"XDG_CONFIG_HOME", directory_.path().c_str()};
};

TEST_F(LinuxStore, LiesInTheConfigurationDirectoryForItsUserAlone) {
  const mode_t former = umask(0);
  keystore::load_or_create_identity(nullptr);
  keystore::save_clients({});
  umask(former);
  EXPECT_EQ(keystore::hostStoreDirectory(), store());
  EXPECT_EQ(mode_of(store()), 0700u);
  for (const char* name : {"identity", "authorized_clients", "store.key"}) {
    EXPECT_EQ(mode_of(store() / name), 0600u) << name;
  }
}

TEST_F(LinuxStore, WithoutTheVariableItLiesBelowTheHomeDirectory) {
  const Variable home("HOME", directory_.path().c_str());
  for (const char* value : {static_cast<const char*>(nullptr), "", "relative/path"}) {
    const Variable config("XDG_CONFIG_HOME", value);
    EXPECT_EQ(keystore::hostStoreDirectory(), directory_.path() / ".config/lunderhaze");
    EXPECT_EQ(app_data_dir(), directory_.path() / ".config/lunderhaze");
    EXPECT_EQ(mode_of(app_data_dir()), 0700u);
  }
}

TEST_F(LinuxStore, EveryFlippedBitOfASecretFileAndEveryByteMoreIsNoticed) {
  keystore::load_or_create_identity(nullptr);
  const std::string whole = file_content(store() / "identity");
  std::string text;
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    std::string damaged = whole;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    write_file(store() / "identity", damaged);
    ASSERT_EQ(keystore::internal::read_protected("identity", &text),
              keystore::internal::Read::Failed)
        << bit;
    ASSERT_EQ(text, "");
  }
  write_file(store() / "identity", whole + '\0');
  EXPECT_EQ(keystore::internal::read_protected("identity", &text),
            keystore::internal::Read::Failed);
  write_file(store() / "identity", whole);
  EXPECT_EQ(keystore::internal::read_protected("identity", &text), keystore::internal::Read::Ok);
}

TEST_F(LinuxStore, OneSecretFileIsNotAcceptedInThePlaceOfAnother) {
  ASSERT_TRUE(keystore::save_password_blob("secret"));
  std::filesystem::copy_file(store() / "pairing_password", store() / "relays");
  std::string text;
  EXPECT_EQ(keystore::internal::read_protected("relays", &text), keystore::internal::Read::Failed);
}

TEST_F(LinuxStore, WritingTheSameSecretTwiceGivesUnrelatedFiles) {
  ASSERT_TRUE(keystore::save_password_blob(password_blob()));
  const std::string first = file_content(store() / "pairing_password");
  ASSERT_TRUE(keystore::save_password_blob(password_blob()));
  const std::string second = file_content(store() / "pairing_password");
  ASSERT_EQ(first.size(), second.size());
  std::size_t equal = 0;
  for (std::size_t i = 0; i < first.size(); ++i) equal += first[i] == second[i] ? 1 : 0;
  EXPECT_LT(equal, first.size() / 4);
}

TEST_F(LinuxStore, SecretsStayShutOnAnotherComputer) {
  keystore::load_or_create_identity(nullptr);
  std::string text;
  ASSERT_EQ(keystore::internal::read_protected("identity", &text), keystore::internal::Read::Ok);
  write_file(directory_ / "other-id", "00112233445566778899aabbccddeeff\n");
  if (!std::filesystem::exists("/etc/machine-id")) GTEST_SKIP() << "this system has no machine id";
  const Mount other = Mount::file_over(directory_ / "other-id", "/etc/machine-id");
  if (!other.ok()) GTEST_SKIP() << "needs the right to mount";
  EXPECT_EQ(keystore::internal::read_protected("identity", &text),
            keystore::internal::Read::Failed);
}

TEST_F(LinuxStore, AComputerWithoutAMachineIdProtectsByTheKeyFileAloneAndGoesOnWhenItGetsOne) {
  if (!std::filesystem::exists("/etc/machine-id")) GTEST_SKIP() << "this system has no machine id";
  write_file(directory_ / "none", "uninitialized\n");
  {
    const Mount none = Mount::file_over(directory_ / "none", "/etc/machine-id");
    // On some systems a second file, on others a link to the first or nothing.
    const Mount older = Mount::file_over(directory_ / "none", "/var/lib/dbus/machine-id");
    if (!none.ok()) GTEST_SKIP() << "needs the right to mount";
    keystore::load_or_create_identity(nullptr);
  }
  EXPECT_EQ(file_content(store() / "store.key").at(16), 0);
  std::string text;
  EXPECT_EQ(keystore::internal::read_protected("identity", &text), keystore::internal::Read::Ok);
}

TEST_F(LinuxStore, AMissingKeyFileShutsTheSecretsAndTheNextWriteMakesANewOne) {
  ASSERT_TRUE(keystore::save_password_blob("old"));
  std::filesystem::remove(store() / "store.key");
  EXPECT_EQ(keystore::load_password_blob(), "");
  EXPECT_FALSE(std::filesystem::exists(store() / "store.key"));
  ASSERT_TRUE(keystore::save_password_blob("new"));
  EXPECT_EQ(keystore::load_password_blob(), "new");
}

TEST_F(LinuxStore, LookingAtAStoreWithoutItsKeyMakesNone) {
  keystore::load_or_create_identity(nullptr);
  ASSERT_TRUE(keystore::save_clients({}));
  std::filesystem::remove(store() / "store.key");
  using State = keystore::StoredFile::State;
  std::map<std::string, State> states;
  for (const keystore::StoredFile& stored : keystore::inspect_store())
    states[stored.name] = stored.state;
  EXPECT_EQ(states["identity"], State::Unreadable);
  EXPECT_EQ(states["authorized_clients"], State::Whole);
  EXPECT_FALSE(std::filesystem::exists(store() / "store.key"));
}

TEST_F(LinuxStore, ADamagedKeyFileIsKeptAside) {
  ASSERT_TRUE(keystore::save_password_blob("old"));
  const std::string damaged = file_content(store() / "store.key").substr(1);
  write_file(store() / "store.key", damaged);
  ASSERT_TRUE(keystore::save_password_blob("new"));
  EXPECT_EQ(keystore::load_password_blob(), "new");
  EXPECT_EQ(file_content(store() / "store.key.bad"), damaged);
}

TEST_F(LinuxStore, AnUnreadableKeyFileIsLeftAlone) {
  std::filesystem::create_directories(store() / "store.key");
  EXPECT_FALSE(keystore::save_password_blob("new"));
  EXPECT_TRUE(logged("could not save the pairing password; it lasts until quit"));
  EXPECT_TRUE(std::filesystem::is_directory(store() / "store.key"));
  EXPECT_FALSE(keystore::verifyHostProtection());
}

TEST_F(LinuxStore, ConcurrentFirstWritersAgreeOnOneKeyFile) {
  for (int round = 0; round < 10; ++round) {
    std::filesystem::remove_all(store());
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([thread] {
        const std::string name = "secret" + std::to_string(thread);
        EXPECT_TRUE(keystore::internal::write_protected(name.c_str(), name));
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (int thread = 0; thread < 4; ++thread) {
      const std::string name = "secret" + std::to_string(thread);
      std::string text;
      EXPECT_EQ(keystore::internal::read_protected(name.c_str(), &text),
                keystore::internal::Read::Ok);
      EXPECT_EQ(text, name);
    }
    EXPECT_EQ(entry_count(store()), 5u);
  }
}

TEST_F(LinuxStore, APipeInAFilesPlaceIsUnreadableAndHoldsNobodyUp) {
  std::filesystem::create_directories(store());
  ASSERT_EQ(mkfifo((store() / "settings").c_str(), 0600), 0);
  std::string bytes;
  EXPECT_FALSE(keystore::readHostFile("settings", &bytes));
}

TEST_F(LinuxStore, AFullDiskKeepsEveryOldFileAndLeavesNothingHalfWritten) {
  std::filesystem::create_directories(store());
  const Mount disk = Mount::tmpfs(store(), "size=64k,mode=0700");
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  const lund_keypair identity = keystore::load_or_create_identity(nullptr);
  ASSERT_TRUE(keystore::save_password_blob("the old one"));
  ASSERT_TRUE(keystore::writeHostFile("settings", "old settings", 12));
  write_file(store() / "filler", std::string(1 << 20, 'x'));
  const std::size_t entries = entry_count(store());

  EXPECT_FALSE(keystore::save_password_blob("the new one"));
  EXPECT_FALSE(keystore::save_clients({}));
  EXPECT_FALSE(keystore::save_relays({}));
  EXPECT_FALSE(keystore::writeHostFile("settings", "new settings", 12));
  EXPECT_NE(load_or_create_host_id(), 0u);
  EXPECT_TRUE(logged("could not save the pairing password; it lasts until quit"));
  EXPECT_TRUE(logged("could not save the paired devices list"));
  EXPECT_TRUE(logged("could not save the relay server list"));
  EXPECT_TRUE(logged("warning: could not persist the host id"));

  EXPECT_EQ(entry_count(store()), entries);
  EXPECT_EQ(keystore::load_password_blob(), "the old one");
  EXPECT_EQ(file_content(store() / "settings"), "old settings");
  bool created = true;
  const lund_keypair again = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(std::memcmp(&identity, &again, sizeof(identity)), 0);
  std::filesystem::remove(store() / "filler");
  EXPECT_TRUE(keystore::save_password_blob("the new one"));
}

TEST_F(LinuxStore, OnAFullDiskANewIdentityLastsUntilQuit) {
  std::filesystem::create_directories(store());
  const Mount disk = Mount::tmpfs(store(), "size=64k,mode=0700");
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  write_file(store() / "filler", std::string(1 << 20, 'x'));
  bool created = true;
  const lund_keypair identity = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_TRUE(logged("identity: could not save " + (store() / "identity").string() +
                     "; this identity lasts until quit"));
  const lund_keypair next = keystore::load_or_create_identity(&created);
  EXPECT_NE(std::memcmp(&identity, &next, sizeof(next)), 0);
  EXPECT_EQ(entry_count(store()), 1u);
}

TEST_F(LinuxStore, AReadOnlyStoreIsReadAndNotChanged) {
  const lund_keypair identity = keystore::load_or_create_identity(nullptr);
  ASSERT_TRUE(keystore::save_password_blob("the old one"));
  const Mount disk = Mount::read_only(store());
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  EXPECT_FALSE(keystore::save_password_blob("the new one"));
  keystore::delete_password_blob();
  EXPECT_EQ(keystore::load_password_blob(), "the old one");
  bool created = true;
  const lund_keypair again = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(std::memcmp(&identity, &again, sizeof(identity)), 0);
}

TEST_F(LinuxStore, ADamagedIdentityOnAReadOnlyStoreStaysWhereItIs) {
  keystore::load_or_create_identity(nullptr);
  write_file(store() / "identity", "damaged");
  const Mount disk = Mount::read_only(store());
  if (!disk.ok()) GTEST_SKIP() << "needs the right to mount";
  bool created = true;
  keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_TRUE(logged("this identity lasts until quit"));
  EXPECT_EQ(file_content(store() / "identity"), "damaged");
}

// A store of another user's: nothing can be read, and nothing is changed.
TEST_F(LinuxStore, AStoreThatMayNotBeEnteredCostsTheFeaturesOnly) {
  keystore::load_or_create_identity(nullptr);
  ASSERT_TRUE(keystore::save_password_blob("the old one"));
  const std::string before = file_content(store() / "identity");
  const uid_t user = geteuid();
  if (user == 0) {
    ASSERT_EQ(chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(65'534), 0);
  } else {
    ASSERT_EQ(chmod(store().c_str(), 0), 0);
  }
  const std::string blob = keystore::load_password_blob();
  const bool saved = keystore::save_password_blob("the new one");
  bool created = true;
  keystore::load_or_create_identity(&created);
  if (user == 0) {
    ASSERT_EQ(seteuid(user), 0);
  } else {
    ASSERT_EQ(chmod(store().c_str(), 0700), 0);
  }
  EXPECT_EQ(blob, "");
  EXPECT_FALSE(saved);
  EXPECT_FALSE(created);
  EXPECT_TRUE(logged("pairing_password is unreadable: password pairing is off"));
  EXPECT_TRUE(logged("this identity lasts until quit"));
  EXPECT_EQ(file_content(store() / "identity"), before);
  EXPECT_EQ(keystore::load_password_blob(), "the old one");
}

// Killed at whatever instant, a writer leaves the old content or the new one.
TEST_F(LinuxStore, AWriterKilledAtAnyInstantLeavesAWholeFile) {
  const std::vector<std::string> contents = {std::string(30'000, 'a'), std::string(50'000, 'b')};
  ASSERT_TRUE(keystore::internal::write_protected("relays", contents[0]));
  for (int round = 0; round < 15; ++round) {
    const pid_t writer = fork();
    if (writer == 0) {
      for (std::size_t i = 0;; ++i) {
        keystore::internal::write_protected("relays", contents[i % contents.size()]);
      }
    }
    usleep(static_cast<useconds_t>(1'000 + 700 * round));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    std::string text;
    ASSERT_EQ(keystore::internal::read_protected("relays", &text), keystore::internal::Read::Ok);
    EXPECT_TRUE(text == contents[0] || text == contents[1]);
  }
}

}  // namespace
