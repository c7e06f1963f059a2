// Looking at a store tells whole, damaged and missing files apart, and leaves everything as it is.
#include "control/keystore_inspect.h"

#include <gtest/gtest.h>

#include <map>

#include "control/keystore_internal.h"
#include "tests/support/temporary_store.h"

namespace {

using State = keystore::StoredFile::State;

class KeystoreInspect : public testing::Test {
 protected:
  static std::filesystem::path file(const std::string& name) {
    return keystore::hostStoreDirectory() / name;
  }
  static State state_of(const std::string& name) {
    for (const keystore::StoredFile& stored : keystore::inspect_store())
      if (stored.name == name) return stored.state;
    ADD_FAILURE() << name << " isn't looked at";
    return State::Missing;
  }
  static void save_everything() {
    keystore::load_or_create_identity(nullptr);
    lund_client_list clients;
    const std::uint8_t key[LUND_KEY_SIZE] = {1};
    lund_client_list_add(&clients, key, "tablet");
    ASSERT_TRUE(keystore::save_clients(clients));
    lund_relay_config relays;
    ASSERT_EQ(lund_relay_config_add_link(&relays, "lunderhaze-relay://relay.example#secret-key"),
              0);
    ASSERT_TRUE(keystore::save_relays(relays));
    ASSERT_TRUE(keystore::save_password_blob(password_blob()));
  }
  static std::string password_blob() {
    lund_password_record record;
    record.mem_kib = 1024;
    record.iterations = 3;
    char text[LUND_PASSWORD_BLOB_MAX];
    EXPECT_NE(lund_password_blob_format(text, sizeof text, &record), 0U);
    return text;
  }
  static std::map<std::string, std::string> everything() {
    std::map<std::string, std::string> files;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(keystore::hostStoreDirectory()))
      files[entry.path().filename().string()] = file_content(entry.path());
    return files;
  }

  TemporaryStore store_;
};

TEST_F(KeystoreInspect, AStoreThatIsNotThereHasNothingAndStaysAway) {
  for (const keystore::StoredFile& stored : keystore::inspect_store())
    EXPECT_EQ(stored.state, State::Missing) << stored.name;
  EXPECT_FALSE(std::filesystem::exists(keystore::hostStoreDirectory()));
}

TEST_F(KeystoreInspect, EveryFileOfAWholeStoreIsWhole) {
  save_everything();
  for (const keystore::StoredFile& stored : keystore::inspect_store())
    EXPECT_EQ(stored.state, State::Whole) << stored.name;
}

TEST_F(KeystoreInspect, AFlippedBitInASecretIsSeenAndNothingIsMoved) {
  save_everything();
  for (const char* name : {"identity", "pairing_password", "relays"}) {
    std::string bytes = file_content(file(name));
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    write_file(file(name), bytes);
    EXPECT_EQ(state_of(name), State::Unreadable) << name;
  }
  const auto before = everything();
  const std::size_t lines = store_.log_lines().size();
  keystore::inspect_store();
  EXPECT_EQ(everything(), before);
  EXPECT_EQ(store_.log_lines().size(), lines);
}

TEST_F(KeystoreInspect, AListThatIsNoneIsMalformed) {
  save_everything();
  write_file(file("authorized_clients"), "nonsense\n");
  EXPECT_EQ(state_of("authorized_clients"), State::Malformed);
}

TEST_F(KeystoreInspect, ASecretThatHoldsSomethingElseIsMalformed) {
  save_everything();
  for (const char* name : {"identity", "pairing_password", "relays"}) {
    ASSERT_TRUE(keystore::internal::write_protected(name, "nonsense"));
    EXPECT_EQ(state_of(name), State::Malformed) << name;
  }
}

TEST_F(KeystoreInspect, ADirectoryInAFilesPlaceIsUnreadable) {
  save_everything();
  std::filesystem::remove(file("relays"));
  std::filesystem::create_directory(file("relays"));
  EXPECT_EQ(state_of("relays"), State::Unreadable);
}

}  // namespace
