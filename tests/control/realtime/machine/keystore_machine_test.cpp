// The machine's store: what it takes to be configured, and that any damage ends it.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/settings.h"
#include "tests/support/machine_store.h"
#include "tests/support/store_values.h"

namespace {

using keystore::Machine;
using keystore::User;
using keystore::internal::write_private;
using keystore::internal::write_protected;

template <typename Call>
std::string thrown(Call call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

class MachineKeystore : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }

  // A directory in the file's place, as private as a file would be.
  void block(const std::string& name) {
    std::filesystem::remove(store_ / name);
    std::filesystem::create_directories(store_ / name / "in the way");
    make_private(store_ / name);
  }

  MachineStore store_;
};

// Configuration

TEST_F(MachineKeystore, AnEmptyFreshlyCreatedDirectoryPassesAndGetsAnIdentityThatLasts) {
  std::filesystem::remove_all(store_.path());
  ASSERT_TRUE(std::filesystem::create_directory(store_.path()));
  make_private(store_.path());
  EXPECT_EQ(store_.configure(), "");
  EXPECT_TRUE(std::filesystem::exists(store_ / "identity"));
  bool created = true;
  const lund_keypair first = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(store_.configure(), "");
  const lund_keypair second = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created);
  EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
}

TEST_F(MachineKeystore, ConfiguringTwiceReturnsTheHealthAndTheUsersScopeIsRefusedThen) {
  std::string error;
  EXPECT_TRUE(keystore::configureHostStore(Machine, &error));
  EXPECT_FALSE(keystore::configureHostStore(User, &error));
  EXPECT_EQ(error, "Host store scope already configured");
  EXPECT_TRUE(keystore::hostStoreHealthy(nullptr));
  keystore::failHostStore("worn out");
  EXPECT_FALSE(keystore::configureHostStore(Machine, &error));
  EXPECT_EQ(error, "worn out");
  EXPECT_EQ(keystore::hostStoreScope(), Machine);
}

TEST_F(MachineKeystore, ARefusedStoreStaysRefusedWhenItIsConfiguredAgain) {
  write_private_text(store_ / "settings", "short");
  EXPECT_EQ(store_.configure(), "machine settings malformed");
  std::filesystem::remove(store_ / "settings");
  std::string error;
  EXPECT_FALSE(keystore::configureHostStore(Machine, &error));
  EXPECT_EQ(error, "machine settings malformed");
}

TEST_F(MachineKeystore, ATemporaryFileThatACrashLeftPassesTheListing) {
  write_private_text(store_ / "relays.tmp-00112233445566778899aabbccddeeff", "ha");
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineKeystore, ANameOfTheUsersScopeForADamagedIdentityIsJustAnotherFile) {
  write_private_text(store_ / "identity.bad", "x");
  EXPECT_EQ(store_.configure(), "");
}

// Whatever is damaged is found before anything serves from it, and stays as it was.
struct Damage {
  const char* what;
  std::function<void(const MachineStore&)> make;
  const char* said;
};

TEST_F(MachineKeystore, EveryDamagedFileIsRefusedAtTheStartAndStaysAsItWas) {
  const auto plain = [](const char* name, const std::string& content) {
    return
        [=](const MachineStore& store) { write_private_text(store / std::string(name), content); };
  };
  const auto sealed = [](const char* name, const std::string& content) {
    return [=](const MachineStore&) { ASSERT_TRUE(write_protected(name, content)); };
  };
  const std::string blob = password_blob();
  const char* const IDENTITY = "machine identity is unreadable or malformed";
  const char* const PASSWORD = "machine pairing password malformed";
  const std::vector<Damage> damages = {
      {"settings", plain("settings", std::string(15, '\0')), "machine settings malformed"},
      {"settings", plain("settings", std::string(16, '\0')), "machine settings malformed"},
      {"settings", plain("settings", std::string(1'048'576, 'x')), "machine file unreadable"},
      {"identity", plain("identity", ""), IDENTITY},
      {"identity", plain("identity", std::string(64, 'a')), IDENTITY},
      {"identity", sealed("identity", std::string(63, 'a')), IDENTITY},
      {"identity", sealed("identity", std::string(64, 'a') + "\n"), IDENTITY},
      {"identity", sealed("identity", std::string(64, 'x')), IDENTITY},
      {"authorized_clients", plain("authorized_clients", ""),
       "machine authorized clients malformed"},
      {"authorized_clients", plain("authorized_clients", "lunderhaze-clients-v1\nnonsense\n"),
       "machine authorized clients malformed"},
      {"authorized_clients", plain("authorized_clients", std::string(1'048'576, 'x')),
       "machine authorized clients unreadable"},
      {"pairing_password", plain("pairing_password", blob), "machine pairing password unreadable"},
      {"pairing_password", sealed("pairing_password", ""), PASSWORD},
      {"pairing_password", sealed("pairing_password", "free text"), PASSWORD},
      {"pairing_password", sealed("pairing_password", blob + " more"), PASSWORD},
      {"pairing_password", sealed("pairing_password", blob.substr(0, 60)), PASSWORD},
      {"pairing_password", sealed("pairing_password", "lunderhaze-pw2" + blob.substr(14)),
       PASSWORD},
      {"relays", plain("relays", "lunderhaze-relays-v1\n"), "machine relays unreadable"},
      {"relays", sealed("relays", "lunderhaze-relays-v1\nhttp://example\n"),
       "machine relays malformed"},
  };
  const std::string whole_identity = file_content(store_ / "identity");
  for (const Damage& damage : damages) {
    damage.make(store_);
    const std::string before = file_content(store_ / damage.what);
    EXPECT_EQ(store_.configure(), damage.said) << damage.what << ": " << before.substr(0, 80);
    EXPECT_EQ(file_content(store_ / damage.what), before) << damage.what;
    EXPECT_FALSE(std::filesystem::exists(store_ / "identity.bad"));
    std::filesystem::remove(store_ / damage.what);
    write_private_text(store_ / "identity", whole_identity);
    ASSERT_EQ(store_.configure(), "") << damage.what;
  }
}

TEST_F(MachineKeystore, ThePasswordsTextIsFiveFieldsWithinTheirBounds) {
  const std::string salt(32, 'a');
  const std::string verifier(64, 'b');
  const auto blob = [](const std::string& salt_field, const std::string& memory,
                       const std::string& iterations, const std::string& verifier_field) {
    return "lunderhaze-pw1 " + salt_field + ' ' + memory + ' ' + iterations + ' ' + verifier_field;
  };
  const std::vector<std::pair<std::string, bool>> cases = {
      {blob(salt, "8", "1", verifier), true},
      {blob(salt, "1048576", "16", verifier) + "\n", true},
      {"\t" + blob(salt, " 65536\t", "3", verifier) + " ", true},
      {blob(salt, "7", "3", verifier), false},
      {blob(salt, "1048577", "3", verifier), false},
      {blob(salt, "65536", "0", verifier), false},
      {blob(salt, "65536", "17", verifier), false},
      {blob(salt, "65536x", "3", verifier), false},
      {blob(salt.substr(1), "65536", "3", verifier), false},
      {blob("g" + salt.substr(1), "65536", "3", verifier), false},
      {blob(salt, "65536", "3", verifier + "b"), false},
      {blob(salt, "65536", "3", "g" + verifier.substr(1)), false},
  };
  for (const auto& [text, good] : cases) {
    store_.restart();
    ASSERT_TRUE(write_protected("pairing_password", text));
    EXPECT_EQ(store_.configure(), good ? "" : "machine pairing password malformed") << text;
  }
}

// Records

TEST_F(MachineKeystore, WithoutFilesThereAreNoClientsNoPasswordAndNoRelays) {
  EXPECT_EQ(keystore::load_clients().count, 0);
  EXPECT_EQ(keystore::load_password_blob(), "");
  EXPECT_EQ(keystore::load_relays().count, 0);
  EXPECT_TRUE(keystore::hostStoreHealthy(nullptr));
}

TEST_F(MachineKeystore, WhatWasSavedIsThereForTheNextProcess) {
  const lund_relay_config relays = one_relay();
  EXPECT_TRUE(keystore::save_clients(clients_named("Living room", LUND_CLIENTS_MAX)));
  EXPECT_TRUE(keystore::save_password_blob(password_blob()));
  EXPECT_TRUE(keystore::save_relays(relays));
  EXPECT_TRUE(host_app::save_settings({.port = 1234}));
  ASSERT_EQ(store_.configure(), "");
  EXPECT_EQ(keystore::load_clients().count, LUND_CLIENTS_MAX);
  EXPECT_EQ(keystore::load_password_blob(), password_blob());
  ASSERT_EQ(keystore::load_relays().count, 1);
  EXPECT_EQ(host_app::load_settings().port, 1234);
  keystore::delete_password_blob();
  ASSERT_EQ(store_.configure(), "");
  EXPECT_EQ(keystore::load_password_blob(), "");
}

TEST_F(MachineKeystore, AnUnreadableFileFailsTheStoreWhenItIsLoaded) {
  const std::vector<Damage> loads = {
      {"settings",
       [](const auto&) {
         std::string bytes;
         keystore::readHostFile("settings", &bytes);
       },
       "machine file unreadable"},
      {"identity", [](const auto&) { keystore::load_or_create_identity(nullptr); },
       "machine identity is unreadable or malformed"},
      {"authorized_clients", [](const auto&) { keystore::load_clients(); },
       "machine authorized clients unreadable"},
      {"pairing_password", [](const auto&) { keystore::load_password_blob(); },
       "machine pairing password unreadable"},
      {"relays", [](const auto&) { keystore::load_relays(); }, "machine relays unreadable"},
  };
  for (const Damage& load : loads) {
    store_.restart();
    block(load.what);
    EXPECT_EQ(thrown([&] { load.make(store_); }), load.said);
    EXPECT_EQ(store_failure(), load.said);
    std::filesystem::remove_all(store_ / load.what);
  }
}

TEST_F(MachineKeystore, ASaveThatFailsFailsTheStore) {
  const std::vector<Damage> saves = {
      {"authorized_clients", [](const auto&) { EXPECT_FALSE(keystore::save_clients({})); },
       "machine persistence failed"},
      {"pairing_password",
       [](const auto&) { EXPECT_FALSE(keystore::save_password_blob(password_blob())); },
       "machine persistence failed"},
      {"relays", [](const auto&) { EXPECT_FALSE(keystore::save_relays({})); },
       "machine persistence failed"},
      {"settings", [](const auto&) { EXPECT_FALSE(host_app::save_settings({})); },
       "machine file write failed"},
  };
  for (const Damage& save : saves) {
    store_.restart();
    block(save.what);
    save.make(store_);
    EXPECT_EQ(store_failure(), save.said) << save.what;
  }
}

TEST_F(MachineKeystore, APasswordThatCannotBeDeletedFailsTheStore) {
  block("pairing_password");
  keystore::delete_password_blob();
  EXPECT_EQ(store_failure(), "machine password deletion failed");
}

TEST_F(MachineKeystore, DeletingAPasswordThatIsNotThereIsNoFailure) {
  keystore::delete_password_blob();
  EXPECT_EQ(store_failure(), "");
}

// Health

TEST_F(MachineKeystore, AFailedStoreKeepsItsFirstReasonAndRefusesEveryChange) {
  ASSERT_TRUE(keystore::save_password_blob(password_blob()));
  const std::size_t entries = entry_count(store_.path());
  const std::string before = file_content(store_ / "pairing_password");
  keystore::failHostStore("first");
  keystore::failHostStore("second");
  EXPECT_FALSE(keystore::hostStoreHealthy(nullptr));
  EXPECT_EQ(store_failure(), "first");
  EXPECT_FALSE(write_private("anything", "x", 1));
  EXPECT_FALSE(write_protected("anything", "x"));
  EXPECT_FALSE(keystore::writeHostFile("anything", "x", 1));
  EXPECT_FALSE(keystore::save_password_blob(password_blob('c')));
  EXPECT_FALSE(keystore::save_clients({}));
  EXPECT_FALSE(keystore::save_relays({}));
  keystore::delete_password_blob();
  EXPECT_EQ(thrown([] { keystore::load_or_create_identity(nullptr); }),
            "machine store already failed");
  EXPECT_EQ(store_failure(), "first");
  EXPECT_EQ(entry_count(store_.path()), entries);
  EXPECT_EQ(file_content(store_ / "pairing_password"), before);
}

TEST_F(MachineKeystore, AHostFileNamedWithADotOrASlashFailsTheStore) {
  for (const char* name : {"a.b", "a\\b", "a/b", "../a", ""}) {
    store_.restart();
    EXPECT_FALSE(keystore::writeHostFile(name, "x", 1)) << name;
    EXPECT_EQ(store_failure(), "machine file write failed") << name;
  }
  store_.restart();
  EXPECT_FALSE(keystore::writeHostFile(nullptr, "x", 1));
  EXPECT_EQ(store_failure(), "machine file write failed");
}

TEST_F(MachineKeystore, AMissingHostFileIsFalseAndNoFailure) {
  std::string bytes;
  EXPECT_FALSE(keystore::readHostFile("settings", &bytes));
  EXPECT_EQ(store_failure(), "");
}

TEST_F(MachineKeystore, AFileOfOneMebibyteCannotBeReadAndOneByteLessCan) {
  std::string bytes;
  write_private_text(store_ / "large", std::string(1'048'575, 'x'));
  EXPECT_TRUE(keystore::readHostFile("large", &bytes));
  EXPECT_EQ(bytes.size(), 1'048'575u);
  write_private_text(store_ / "large", std::string(1'048'576, 'x'));
  EXPECT_EQ(thrown([&] { keystore::readHostFile("large", &bytes); }), "machine file unreadable");
  EXPECT_EQ(bytes, "");
}

}  // namespace
