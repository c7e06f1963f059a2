#include "control/client_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>

namespace {

class ClientStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string name =
        (std::filesystem::temp_directory_path() / "lunderhaze-client-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  static lund_host_entry host(const char* name, std::uint8_t key, const char* address) {
    lund_host_entry entry;
    std::memset(entry.key, key, sizeof entry.key);
    std::strncpy(entry.name, name, sizeof entry.name - 1);
    lund_addr_parse(&entry.lan_endpoint, address, 9876);
    return entry;
  }

  std::filesystem::path directory_;
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

TEST_F(ClientStoreTest, AnUnwritablePlaceIsNamed) {
  ClientStore store;
  EXPECT_FALSE(store.open("/proc/no/such/place", &error_));
  EXPECT_NE(error_.find("/proc/no/such/place"), std::string::npos) << error_;
}

}  // namespace
