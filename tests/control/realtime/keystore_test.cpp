#include "control/keystore.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "control/keystore_internal.h"
#include "control/log.h"
#include "tests/support/store_values.h"
#include "tests/support/temp_directory.h"

namespace {

using keystore::Machine;
using keystore::User;
using keystore::internal::read_protected;
using keystore::internal::reset_for_test;
using keystore::internal::write_protected;

const std::string BLOB = password_blob();

class Store : public testing::Test {
 protected:
  void SetUp() override {
    reset_for_test(User, directory_.path());
    log_open(false, logs_.path());
  }
  void TearDown() override {
    log_close();
    reset_for_test(User, {});
  }

  std::filesystem::path file(const std::string& name) const { return directory_ / name; }
  bool logged(const std::string& line) const {
    return file_content(logs_ / "host.log").find("] " + line + "\r\n") != std::string::npos;
  }
  // A directory in the file's place can be neither read nor replaced.
  void block(const std::string& name) {
    std::filesystem::remove(file(name));
    std::filesystem::create_directories(file(name) / "in the way");
  }

  TempDirectory directory_;
  TempDirectory logs_;
};

// Configuration and health

TEST_F(Store, ConfiguringForAUserAlwaysSucceedsAndCanBeRepeated) {
  EXPECT_TRUE(keystore::configureHostStore(User, nullptr));
  EXPECT_TRUE(keystore::configureHostStore(User, nullptr));
  EXPECT_EQ(keystore::hostStoreScope(), User);
}

TEST_F(Store, AnotherScopeAfterTheFirstIsRefused) {
  std::string error;
  ASSERT_TRUE(keystore::configureHostStore(User, nullptr));
  EXPECT_FALSE(keystore::configureHostStore(Machine, &error));
  EXPECT_EQ(error, "Host store scope already configured");
  EXPECT_FALSE(keystore::configureHostStore(Machine, nullptr));
  EXPECT_EQ(keystore::hostStoreScope(), User);
}

TEST_F(Store, FailingAUsersStoreDoesNothing) {
  keystore::failHostStore("whatever");
  EXPECT_TRUE(keystore::hostStoreHealthy(nullptr));
}

TEST_F(Store, ProtectionWorksHere) {
  EXPECT_TRUE(keystore::verifyHostProtection());
}

// Host files

TEST_F(Store, AHostFileIsReadBackAsWritten) {
  const std::string bytes("a\0b\r\n\xFF", 6);
  EXPECT_TRUE(keystore::writeHostFile("settings", bytes.data(), bytes.size()));
  std::string read;
  EXPECT_TRUE(keystore::readHostFile("settings", &read));
  EXPECT_EQ(read, bytes);
  EXPECT_TRUE(keystore::writeHostFile("settings", "", 0));
  EXPECT_TRUE(keystore::readHostFile("settings", &read));
  EXPECT_EQ(read, "");
}

TEST_F(Store, AMissingHostFileIsFalseAndNoFailure) {
  std::string bytes;
  EXPECT_FALSE(keystore::readHostFile("settings", &bytes));
  EXPECT_TRUE(keystore::hostStoreHealthy(nullptr));
}

TEST_F(Store, AHostFileCanOnlyBeAPlainNameInsideTheStore) {
  for (const char* name : {"a.b", "a\\b", "a/b", "../a", "..", ".", "/etc/x", ""}) {
    EXPECT_FALSE(keystore::writeHostFile(name, "x", 1)) << name;
  }
  EXPECT_FALSE(keystore::writeHostFile(nullptr, "x", 1));
  EXPECT_EQ(entry_count(directory_.path()), 0u);
}

TEST_F(Store, AnUnreadableHostFileIsAsGoodAsMissing) {
  block("settings");
  std::string bytes;
  EXPECT_FALSE(keystore::readHostFile("settings", &bytes));
  EXPECT_TRUE(keystore::hostStoreHealthy(nullptr));
}

TEST_F(Store, AFileOfOneMebibyteCannotBeReadAndOneByteLessCan) {
  std::string bytes;
  write_file(file("large"), std::string(1'048'576, 'x'));
  EXPECT_FALSE(keystore::readHostFile("large", &bytes));
  write_file(file("large"), std::string(1'048'575, 'x'));
  EXPECT_TRUE(keystore::readHostFile("large", &bytes));
  EXPECT_EQ(bytes.size(), 1'048'575u);
}

TEST_F(Store, AFailedReplacementLeavesNoTemporaryFileBehind) {
  block("settings");
  EXPECT_FALSE(keystore::writeHostFile("settings", "x", 1));
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(Store, ATemporaryFileThatACrashLeftIsNoObstacle) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  write_file(file("settings.tmp-00112233445566778899aabbccddeeff"), "ne");
  std::string bytes;
  EXPECT_TRUE(keystore::readHostFile("settings", &bytes));
  EXPECT_EQ(bytes, "old");
  EXPECT_TRUE(keystore::writeHostFile("settings", "new", 3));
  EXPECT_TRUE(keystore::readHostFile("settings", &bytes));
  EXPECT_EQ(bytes, "new");
}

TEST_F(Store, OfConcurrentWritersOneWinsAndReadersNeverSeeAMixture) {
  constexpr int WRITERS = 4;
  constexpr int ROUNDS = 25;
  const auto content = [](int writer) { return std::string(20'000 + writer, char('a' + writer)); };
  ASSERT_TRUE(keystore::writeHostFile("shared", content(0).data(), content(0).size()));
  std::vector<std::thread> threads;
  threads.reserve(WRITERS);
  for (int writer = 0; writer < WRITERS; ++writer) {
    threads.emplace_back([&content, writer] {
      const std::string own = content(writer);
      for (int round = 0; round < ROUNDS; ++round) {
        EXPECT_TRUE(keystore::writeHostFile("shared", own.data(), own.size()));
        std::string seen;
        EXPECT_TRUE(keystore::readHostFile("shared", &seen));
        EXPECT_EQ(seen, content(seen.empty() ? 0 : seen[0] - 'a'));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

// Identity

TEST_F(Store, AnEmptyStoreGetsAnIdentityThatLasts) {
  bool created = false;
  const lund_keypair first = keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, first.public_key);
  EXPECT_TRUE(logged("identity: created a new key for this PC (" + std::string(code) + ")"));
  reset_for_test(User, directory_.path());
  const lund_keypair second = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(std::memcmp(&first, &second, sizeof(first)), 0);
}

TEST_F(Store, TheSecretKeyIsNotInAnyFile) {
  const lund_keypair identity = keystore::load_or_create_identity(nullptr);
  char hex[2 * LUND_KEY_SIZE + 1];
  lund_hex_encode(hex, identity.secret, sizeof(identity.secret));
  const std::string raw(reinterpret_cast<const char*>(identity.secret), sizeof(identity.secret));
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
    const std::string content = file_content(entry.path());
    EXPECT_EQ(content.find(hex), std::string::npos) << entry.path();
    EXPECT_EQ(content.find(raw), std::string::npos) << entry.path();
  }
}

TEST_F(Store, EveryShorterSecretFileIsNoticed) {
  keystore::load_or_create_identity(nullptr);
  const std::string whole = file_content(file("identity"));
  std::string text;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    write_file(file("identity"), whole.substr(0, size));
    ASSERT_EQ(read_protected("identity", &text), keystore::internal::Read::Failed) << size;
  }
}

TEST_F(Store, ADamagedIdentityOfAUserIsKeptAsideAndReplaced) {
  const lund_keypair first = keystore::load_or_create_identity(nullptr);
  std::string damaged = file_content(file("identity"));
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  write_file(file("identity"), damaged);
  write_file(file("identity.bad"), "an older one");
  bool created = false;
  const lund_keypair second = keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
  EXPECT_NE(std::memcmp(&first, &second, sizeof(first)), 0);
  EXPECT_EQ(file_content(file("identity.bad")), damaged);
  EXPECT_TRUE(logged("identity: " + file("identity").string() +
                     " is unreadable (another user's or damaged; kept as identity.bad): NEW "
                     "identity, paired devices must pair again"));
  const lund_keypair third = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(std::memcmp(&second, &third, sizeof(third)), 0);
}

TEST_F(Store, AnIdentityThatCannotBeReadIsKeptAsideToo) {
  block("identity");
  bool created = false;
  keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
  EXPECT_TRUE(std::filesystem::is_directory(file("identity.bad")));
  EXPECT_TRUE(std::filesystem::is_regular_file(file("identity")));
}

TEST_F(Store, AnIdentityOf63CharactersIsDamaged) {
  ASSERT_TRUE(write_protected("identity", std::string(63, 'a')));
  bool created = false;
  keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
}

TEST_F(Store, AnIdentityOf65CharactersIsLoaded) {
  const std::string digits(64, '7');
  ASSERT_TRUE(write_protected("identity", digits + "\n"));
  bool created = true;
  keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
}

TEST_F(Store, LookingAtAnIdentityMakesAndReplacesNothing) {
  lund_keypair seen;
  EXPECT_FALSE(keystore::peek_identity(&seen));
  EXPECT_FALSE(std::filesystem::exists(file("identity")));
  const lund_keypair made = keystore::load_or_create_identity(nullptr);
  ASSERT_TRUE(keystore::peek_identity(&seen));
  EXPECT_EQ(std::memcmp(seen.public_key, made.public_key, sizeof seen.public_key), 0);
  write_file(file("identity"), "damaged");
  EXPECT_FALSE(keystore::peek_identity(&seen));
  EXPECT_EQ(file_content(file("identity")), "damaged");
}

TEST_F(Store, AnIdentityThatCannotBeSavedLastsUntilQuit) {
  TempDirectory elsewhere;
  write_file(elsewhere / "file", "");
  reset_for_test(User, elsewhere / "file");  // no directory can be made there
  bool created = true;
  const lund_keypair identity = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_NE(identity.public_key[0] | identity.public_key[1] | identity.public_key[2], 0);
  EXPECT_TRUE(logged("identity: could not save " + (elsewhere / "file" / "identity").string() +
                     "; this identity lasts until quit"));
}

// Clients

TEST_F(Store, ClientsAreReadBackAsSaved) {
  const lund_client_list saved = clients_named("Living room", LUND_CLIENTS_MAX);
  EXPECT_TRUE(keystore::save_clients(saved));
  const lund_client_list loaded = keystore::load_clients();
  ASSERT_EQ(loaded.count, LUND_CLIENTS_MAX);
  EXPECT_STREQ(loaded.entries[31].name, "Living room");
  EXPECT_EQ(std::memcmp(loaded.entries[31].key, saved.entries[31].key, LUND_KEY_SIZE), 0);
  EXPECT_TRUE(file_content(file("authorized_clients")).starts_with("lunderhaze-clients-v1\n"));
}

TEST_F(Store, WithoutAClientsFileTheListIsEmpty) {
  EXPECT_EQ(keystore::load_clients().count, 0);
}

TEST_F(Store, AMalformedClientsFileLoadsNobodyAndStays) {
  write_file(file("authorized_clients"), "lunderhaze-clients-v1\nnonsense\n");
  EXPECT_EQ(keystore::load_clients().count, 0);
  EXPECT_TRUE(logged("authorized_clients is malformed: no paired devices loaded"));
  EXPECT_EQ(file_content(file("authorized_clients")), "lunderhaze-clients-v1\nnonsense\n");
}

TEST_F(Store, ALineEndThatIsDamagedDoesNotHideADevice) {
  ASSERT_TRUE(keystore::save_clients(clients_named(std::string(63, 'n'), 2)));
  EXPECT_EQ(keystore::load_clients().count, 2);
  std::string text = file_content(file("authorized_clients"));
  text[text.find('\n', text.find('\n') + 1)] = '*';
  write_file(file("authorized_clients"), text);
  EXPECT_EQ(keystore::load_clients().count, 0);
  EXPECT_TRUE(logged("authorized_clients is malformed: no paired devices loaded"));
}

TEST_F(Store, AnUnreadableClientsFileLoadsNobody) {
  block("authorized_clients");
  EXPECT_EQ(keystore::load_clients().count, 0);
}

TEST_F(Store, ClientsThatCannotBeSavedAreReported) {
  block("authorized_clients");
  EXPECT_FALSE(keystore::save_clients(clients_named("x", 1)));
  EXPECT_TRUE(logged("could not save the paired devices list"));
}

// Pairing password

TEST_F(Store, ThePasswordBlobIsReadBackAndGoneAfterItsDeletion) {
  EXPECT_EQ(keystore::load_password_blob(), "");
  EXPECT_TRUE(keystore::save_password_blob(BLOB));
  EXPECT_EQ(keystore::load_password_blob(), BLOB);
  EXPECT_EQ(file_content(file("pairing_password")).find("lunderhaze-pw1"), std::string::npos);
  keystore::delete_password_blob();
  EXPECT_EQ(keystore::load_password_blob(), "");
  EXPECT_FALSE(std::filesystem::exists(file("pairing_password")));
  keystore::delete_password_blob();
}

TEST_F(Store, AnUnreadablePasswordTurnsPasswordPairingOff) {
  write_file(file("pairing_password"), "not sealed");
  EXPECT_EQ(keystore::load_password_blob(), "");
  EXPECT_TRUE(logged("pairing_password is unreadable: password pairing is off"));
}

TEST_F(Store, ThePasswordsTextIsNotJudgedHere) {
  ASSERT_TRUE(keystore::save_password_blob("free text"));
  EXPECT_EQ(keystore::load_password_blob(), "free text");
}

TEST_F(Store, APasswordThatCannotBeSavedIsReported) {
  block("pairing_password");
  EXPECT_FALSE(keystore::save_password_blob(BLOB));
  EXPECT_TRUE(logged("could not save the pairing password; it lasts until quit"));
}

// Relays

TEST_F(Store, RelaysAreReadBackAndTheirKeysAreSealed) {
  EXPECT_EQ(keystore::load_relays().count, 0);
  EXPECT_TRUE(keystore::save_relays(one_relay()));
  const lund_relay_config loaded = keystore::load_relays();
  ASSERT_EQ(loaded.count, 1);
  EXPECT_STREQ(loaded.servers[0].host, "relay.example");
  EXPECT_EQ(loaded.servers[0].port, 1234);
  EXPECT_EQ(loaded.servers[0].key_size, 10u);
  EXPECT_EQ(file_content(file("relays")).find("secret-key"), std::string::npos);
  EXPECT_TRUE(keystore::save_relays({}));
  EXPECT_EQ(keystore::load_relays().count, 0);
}

TEST_F(Store, UnreadableRelaysGiveNone) {
  write_file(file("relays"), "lunderhaze-relays-v1\n");  // plain where sealed is expected
  EXPECT_EQ(keystore::load_relays().count, 0);
  EXPECT_TRUE(logged("relays is unreadable (another user's or damaged): no relay servers"));
}

TEST_F(Store, MalformedRelaysGiveNone) {
  ASSERT_TRUE(write_protected("relays", "lunderhaze-relays-v1\nhttp://example\n"));
  EXPECT_EQ(keystore::load_relays().count, 0);
  EXPECT_TRUE(logged("relays is malformed: no relay servers"));
}

TEST_F(Store, RelaysThatCannotBeSavedAreReported) {
  block("relays");
  EXPECT_FALSE(keystore::save_relays(one_relay()));
  EXPECT_TRUE(logged("could not save the relay server list"));
}

}  // namespace
