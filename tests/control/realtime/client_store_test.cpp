#include "control/client_store.h"

#include "control/keystore.h"
#include "control/sysinfo.h"
#include "tests/support/temp_directory.h"
#include "tests/support/temporary_store.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace {

class ClientStoreTest : public testing::Test {
 protected:
  bool add_relay(ClientStore& store, const std::string& link) {
    const auto add = [&](lund_relay_config* relays) {
      return lund_relay_config_add_link(relays, link.c_str()) >= 0;
    };
    return store.change_relays(add, &error_);
  }

  static lund_host_entry host(const char* name, std::uint8_t key, const char* address) {
    lund_host_entry entry;
    std::memset(entry.key, key, sizeof entry.key);
    std::strncpy(entry.name, name, sizeof entry.name - 1);
    lund_addr_parse(&entry.lan_endpoint, address, 9876);
    return entry;
  }

  TempDirectory temporary_;
  std::filesystem::path directory_ = temporary_ / "client";
  std::string error_;
};

TEST_F(ClientStoreTest, TheIdentityStaysTheSame) {
  ClientStore first;
  ASSERT_TRUE(first.open(directory_, &error_)) << error_;
  ClientStore second;
  ASSERT_TRUE(second.open(directory_, &error_)) << error_;
  EXPECT_EQ(std::memcmp(&first.identity(), &second.identity(), sizeof(lund_keypair)), 0);
}

TEST_F(ClientStoreTest, TheSecretIsNotInTheFileInClear) {
  ClientStore store;
  ASSERT_TRUE(store.open(directory_, &error_)) << error_;
  char hex[65];
  lund_hex_encode(hex, store.identity().secret, 32);
  std::ifstream file(directory_ / "identity", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  EXPECT_FALSE(bytes.empty());
  EXPECT_EQ(bytes.find(hex), std::string::npos);
}

TEST_F(ClientStoreTest, ADamagedIdentityIsRefusedAndLeftAlone) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
  }
  std::fstream file(directory_ / "identity", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(20);
  file.put('\x5A');
  file.put('\xA5');
  file.close();
  ClientStore store;
  EXPECT_FALSE(store.open(directory_, &error_));
  EXPECT_NE(error_.find("unreadable"), std::string::npos) << error_;
}

TEST_F(ClientStoreTest, ADamagedHostListIsRefusedAndLeftAlone) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
  }
  std::ofstream(directory_ / "hosts") << "nonsense\n";
  ClientStore store;
  EXPECT_FALSE(store.open(directory_, &error_));
  EXPECT_NE(error_.find("damaged"), std::string::npos) << error_;
}

TEST_F(ClientStoreTest, AHostIsFoundByNameKeyCodeAndAddress) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
    ASSERT_TRUE(store.put(host("desk", 1, "10.0.0.1"), &error_)) << error_;
    ASSERT_TRUE(store.put(host("attic", 2, "10.0.0.2:1234"), &error_)) << error_;
  }
  ClientStore store;
  ASSERT_TRUE(store.open(directory_, &error_)) << error_;
  ASSERT_NE(store.find("desk"), nullptr);
  EXPECT_EQ(store.find("desk")->key[0], 1);
  ASSERT_NE(store.find("10.0.0.2:1234"), nullptr);
  EXPECT_EQ(store.find("10.0.0.2:1234")->key[0], 2);
  EXPECT_EQ(store.find("10.0.0.1:9876"), store.find("10.0.0.1"));
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, store.find("attic")->key);
  EXPECT_EQ(store.find(code), store.find("attic"));
  EXPECT_EQ(store.find("nowhere"), nullptr);
}

TEST_F(ClientStoreTest, AHostIsFoundByTheAddressThatItHadOutsideToo) {
  ClientStore store;
  ASSERT_TRUE(store.open(directory_, &error_));
  lund_host_entry away = host("desk", 1, "10.0.0.1");
  lund_addr_parse(&away.wan_endpoint, "203.0.113.9:4000", 0);
  ASSERT_TRUE(store.put(away, &error_));
  ASSERT_NE(store.find("203.0.113.9:4000"), nullptr);
  EXPECT_EQ(store.find("203.0.113.9"), nullptr);
}

TEST_F(ClientStoreTest, ForgettingTakesOneHostAndLeavesTheOthers) {
  ClientStore store;
  ASSERT_TRUE(store.open(directory_, &error_));
  ASSERT_TRUE(store.put(host("desk", 1, "10.0.0.1"), &error_));
  ASSERT_TRUE(store.put(host("desk", 2, "10.0.0.2"), &error_));
  EXPECT_EQ(store.count("desk"), 2);
  ASSERT_TRUE(store.forget(*store.find("10.0.0.1"), &error_)) << error_;
  EXPECT_EQ(store.count("desk"), 1);
  EXPECT_FALSE(store.forget(host("desk", 1, "10.0.0.1"), &error_));
  ClientStore again;
  ASSERT_TRUE(again.open(directory_, &error_));
  EXPECT_EQ(again.hosts().count, 1);
  EXPECT_EQ(again.find("desk")->key[0], 2);
}

TEST_F(ClientStoreTest, AChangeIsMadeToWhatAnotherProgramHasStoredMeanwhile) {
  ClientStore streaming;
  ASSERT_TRUE(streaming.open(directory_, &error_));
  ASSERT_TRUE(streaming.put(host("desk", 1, "10.0.0.1"), &error_));
  const lund_host_entry desk = *streaming.find("desk");
  ClientStore pairing;
  ASSERT_TRUE(pairing.open(directory_, &error_));
  ASSERT_TRUE(pairing.put(host("attic", 2, "10.0.0.2"), &error_));
  const auto use = [](lund_host_entry& entry) { entry.last_used = 77; };
  ASSERT_TRUE(streaming.update(desk, use, &error_));
  ASSERT_TRUE(pairing.open(directory_, &error_));
  ASSERT_EQ(pairing.hosts().count, 2);
  EXPECT_EQ(pairing.find("desk")->last_used, 77u);

  ASSERT_TRUE(pairing.forget(desk, &error_));
  ASSERT_TRUE(streaming.update(desk, use, &error_));
  EXPECT_EQ(streaming.find("desk"), nullptr) << "what was forgotten has come back";
}

TEST_F(ClientStoreTest, RelayServersAreRememberedWithTheirKeysAndNotInClear) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
    EXPECT_EQ(store.relays().count, 0);
    ASSERT_TRUE(add_relay(store, "lunderhaze-relay://relay.example#first-key"));
    ASSERT_TRUE(add_relay(store, "lunderhaze-relay://10.0.0.9:4000#other-key"));
    ASSERT_TRUE(add_relay(store, "lunderhaze-relay://RELAY.example#second-key"));
  }
  ClientStore store;
  ASSERT_TRUE(store.open(directory_, &error_)) << error_;
  ASSERT_EQ(store.relays().count, 2);
  char link[700];
  lund_relay_link_format(link, sizeof link, &store.relays().servers[0]);
  EXPECT_STREQ(link, "lunderhaze-relay://RELAY.example:9877#second-key");
  const std::string bytes = file_content(directory_ / "relays");
  EXPECT_EQ(bytes.find("second-key"), std::string::npos);
  EXPECT_EQ(bytes.find("example"), std::string::npos);

  const auto remove = [](lund_relay_config* relays) {
    return lund_relay_config_remove(relays, 1) == 0;
  };
  ASSERT_TRUE(store.change_relays(remove, &error_));
  ASSERT_TRUE(store.open(directory_, &error_));
  EXPECT_EQ(store.relays().count, 1);
}

TEST_F(ClientStoreTest, AServerIsAddedToWhatAnotherProgramHasStoredMeanwhile) {
  ClientStore first;
  ClientStore second;
  ASSERT_TRUE(first.open(directory_, &error_));
  ASSERT_TRUE(second.open(directory_, &error_));
  ASSERT_TRUE(add_relay(first, "lunderhaze-relay://one.example#k"));
  ASSERT_TRUE(add_relay(second, "lunderhaze-relay://two.example#k"));
  EXPECT_EQ(second.relays().count, 2);
}

TEST_F(ClientStoreTest, ADamagedRelayListIsRefusedAndLeftAlone) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
    ASSERT_TRUE(add_relay(store, "lunderhaze-relay://relay.example#key"));
  }
  std::string bytes = file_content(directory_ / "relays");
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  write_file(directory_ / "relays", bytes);
  ClientStore store;
  EXPECT_FALSE(store.open(directory_, &error_));
  EXPECT_NE(error_.find("relay servers"), std::string::npos) << error_;
  EXPECT_EQ(file_content(directory_ / "relays"), bytes);
}

TEST_F(ClientStoreTest, AnIdentityIsNotTakenForARelayList) {
  {
    ClientStore store;
    ASSERT_TRUE(store.open(directory_, &error_));
  }
  std::filesystem::copy_file(directory_ / "identity", directory_ / "relays");
  ClientStore store;
  EXPECT_FALSE(store.open(directory_, &error_));
}

TEST_F(ClientStoreTest, TheUsersOwnStoreHasTheIdentityOfTheUsersOwnHost) {
  const TemporaryStore users;
  ClientStore store;
  ASSERT_TRUE(store.open({}, &error_)) << error_;
  EXPECT_TRUE(store.identity_is_hosts());
  bool created = true;
  const lund_keypair host = keystore::load_or_create_identity(&created);
  EXPECT_FALSE(created) << "the client's identity isn't where the host looks";
  EXPECT_EQ(std::memcmp(&store.identity(), &host, sizeof host), 0);
  ClientStore again;
  ASSERT_TRUE(again.open({}, &error_)) << error_;
  EXPECT_EQ(std::memcmp(&again.identity(), &host, sizeof host), 0);
  EXPECT_FALSE(std::filesystem::exists(app_data_dir() / "client" / "identity"));
}

TEST_F(ClientStoreTest, AStoreWithAnIdentityOfItsOwnKeepsIt) {
  const TemporaryStore users;
  lund_keypair own;
  {
    ClientStore store;
    ASSERT_TRUE(store.open(app_data_dir() / "client", &error_)) << error_;
    own = store.identity();
    EXPECT_FALSE(store.identity_is_hosts());
  }
  ClientStore store;
  ASSERT_TRUE(store.open({}, &error_)) << error_;
  EXPECT_FALSE(store.identity_is_hosts());
  EXPECT_EQ(std::memcmp(&store.identity(), &own, sizeof own), 0);
}

TEST_F(ClientStoreTest, ADamagedIdentityOfTheHostIsRefusedAndLeftToTheHost) {
  const TemporaryStore users;
  const std::filesystem::path identity = app_data_dir() / "identity";
  keystore::load_or_create_identity(nullptr);
  std::string bytes = file_content(identity);
  bytes.back() = static_cast<char>(bytes.back() ^ 1);
  write_file(identity, bytes);
  ClientStore store;
  EXPECT_FALSE(store.open({}, &error_));
  EXPECT_NE(error_.find("unreadable"), std::string::npos) << error_;
  EXPECT_EQ(file_content(identity), bytes);
}

TEST_F(ClientStoreTest, AnIdentityThatCannotBeSavedIsNotUsed) {
  TemporaryStore users;
  std::filesystem::create_directories(app_data_dir() / "client");
  users.break_store();
  ClientStore store;
  EXPECT_FALSE(store.open({}, &error_));
  EXPECT_NE(error_, "");
}

TEST_F(ClientStoreTest, AnUnwritablePlaceIsNamed) {
  ClientStore store;
  EXPECT_FALSE(store.open("/proc/no/such/place", &error_));
  EXPECT_NE(error_.find("/proc/no/such/place"), std::string::npos) << error_;
}

}  // namespace
