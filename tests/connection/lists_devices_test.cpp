#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "connection/lists.h"
#include "tests/support/virtual_time.h"

namespace {

const std::string CLIENTS = "lunderhaze-clients-v1\n";
const std::string HOSTS = "lunderhaze-hosts-v1\n";
constexpr std::uint64_t NOW_SECONDS = virtual_time::START_WALL_US / 1'000'000;

// A device's key: one byte repeated.
struct Key {
  explicit Key(int number) { std::memset(bytes, number, sizeof(bytes)); }
  std::uint8_t bytes[LUND_KEY_SIZE];
};
std::string hex(int number) {
  char text[65];
  lund_hex_encode(text, Key(number).bytes, LUND_KEY_SIZE);
  return text;
}

std::string save(const lund_client_list& list) {
  std::string text(LUND_LIST_TEXT_MAX, 'x');
  text.resize(lund_client_list_save(&list, text.data(), text.size()));
  return text;
}
std::string save(const lund_host_list& list) {
  std::string text(LUND_LIST_TEXT_MAX, 'x');
  text.resize(lund_host_list_save(&list, text.data(), text.size()));
  return text;
}
int load(lund_client_list* list, const std::string& text) {
  return lund_client_list_load(list, text.data(), text.size());
}
int load(lund_host_list* list, const std::string& text) {
  return lund_host_list_load(list, text.data(), text.size());
}
int load_client_line(const std::string& line, lund_client_list* list) {
  return load(list, CLIENTS + line + "\n");
}
int load_client_line(const std::string& line) {
  lund_client_list list;
  return load_client_line(line, &list);
}
int load_host_line(const std::string& line) {
  lund_host_list list;
  return load(&list, HOSTS + line + "\n");
}

lund_host_entry host(int number, const char* name = "host") {
  lund_host_entry entry;
  std::memcpy(entry.key, Key(number).bytes, LUND_KEY_SIZE);
  std::strcpy(entry.name, name);
  return entry;
}

class ListsDevices : public ::testing::Test {
 protected:
  void SetUp() override { virtual_time::reset(); }

  lund_client_list clients(int count) {
    lund_client_list list;
    for (int i = 0; i < count; ++i)
      EXPECT_EQ(lund_client_list_add(&list, Key(i).bytes, ("client " + std::to_string(i)).c_str()),
                i);
    return list;
  }
};

}  // namespace

TEST_F(ListsDevices, ClientIsAddedWithTheTimeAndACleanName) {
  lund_client_list list;
  ASSERT_EQ(lund_client_list_add(&list, Key(7).bytes, "a\nb"), 0);
  EXPECT_EQ(list.count, 1);
  EXPECT_EQ(list.entries[0].added_at, NOW_SECONDS);
  EXPECT_STREQ(list.entries[0].name, "a b");
  EXPECT_EQ(lund_client_list_find(&list, Key(7).bytes), 0);
  EXPECT_EQ(lund_client_list_find(&list, Key(8).bytes), -1);
}

TEST_F(ListsDevices, KnownClientGetsTheNameOnlyAndKeepsItsTime) {
  lund_client_list list = clients(3);
  virtual_time::advance_us(5'000'000);
  EXPECT_EQ(lund_client_list_add(&list, Key(1).bytes, "renamed"), 1);
  EXPECT_EQ(list.count, 3);
  EXPECT_STREQ(list.entries[1].name, "renamed");
  EXPECT_EQ(list.entries[1].added_at, NOW_SECONDS);
}

TEST_F(ListsDevices, ThirtyThirdClientIsRefusedButAKnownOneIsNot) {
  lund_client_list list = clients(32);
  EXPECT_EQ(lund_client_list_add(&list, Key(99).bytes, "x"), -1);
  EXPECT_EQ(list.count, 32);
  EXPECT_EQ(lund_client_list_add(&list, Key(31).bytes, "x"), 31);
}

TEST_F(ListsDevices, RemovingAClientKeepsTheOrder) {
  lund_client_list list = clients(4);
  EXPECT_EQ(lund_client_list_remove(&list, Key(9).bytes), -1);
  ASSERT_EQ(lund_client_list_remove(&list, Key(1).bytes), 0);
  ASSERT_EQ(list.count, 3);
  EXPECT_STREQ(list.entries[0].name, "client 0");
  EXPECT_STREQ(list.entries[1].name, "client 2");
  EXPECT_STREQ(list.entries[2].name, "client 3");
  EXPECT_STREQ(list.entries[3].name, "");
}

TEST_F(ListsDevices, RemovedClientIsGoneEvenIfTheTextRepeatedIt) {
  lund_client_list list;
  ASSERT_EQ(load(&list, CLIENTS + hex(1) + " 5 a\n" + hex(2) + " 5 b\n" + hex(1) + " 5 c\n"), 0);
  ASSERT_EQ(lund_client_list_remove(&list, Key(1).bytes), 0);
  EXPECT_EQ(lund_client_list_find(&list, Key(1).bytes), -1);
  EXPECT_EQ(list.count, 1);
}

TEST_F(ListsDevices, ClientsTextLayout) {
  lund_client_list list = clients(2);
  EXPECT_EQ(save(list),
            CLIENTS + hex(0) + " 1700000000 client 0\n" + hex(1) + " 1700000000 client 1\n");
  EXPECT_EQ(save(lund_client_list{}), CLIENTS);
}

TEST_F(ListsDevices, SavedClientsLoadTheSame) {
  const lund_client_list list = clients(32);
  lund_client_list back;
  ASSERT_EQ(load(&back, save(list)), 0);
  EXPECT_EQ(save(back), save(list));
  EXPECT_EQ(back.count, 32);
}

TEST_F(ListsDevices, ClientWithoutANameSurvives) {
  lund_client_list list, back;
  lund_client_list_add(&list, Key(1).bytes, nullptr);
  ASSERT_EQ(load(&back, save(list)), 0);
  EXPECT_STREQ(back.entries[0].name, "");
  EXPECT_EQ(load_client_line(hex(1) + " 5"), 0);
}

TEST_F(ListsDevices, SaveWantsRoomForTheTerminator) {
  const lund_client_list list = clients(2);
  const std::size_t size = save(list).size();
  std::string text(size + 1, 'x');
  EXPECT_EQ(lund_client_list_save(&list, text.data(), size + 1), size);
  EXPECT_EQ(lund_client_list_save(&list, text.data(), size), 0u);
  EXPECT_EQ(lund_client_list_save(&list, nullptr, 0), 0u);
}

TEST_F(ListsDevices, ClientsListOf33LinesFailsWhole) {
  lund_client_list list = clients(32);
  EXPECT_EQ(load(&list, save(list) + hex(99) + " 5 x\n"), -1);
  EXPECT_EQ(list.count, 0);
}

TEST_F(ListsDevices, FirstLineMustBeExact) {
  lund_client_list list;
  EXPECT_EQ(load(&list, "lunderhaze-clients-v1"), 0);
  EXPECT_EQ(load(&list, "lunderhaze-clients-v1\r\n"), 0);
  for (const char* text : {"", "lunderhaze-clients-v1 \n", " lunderhaze-clients-v1\n",
                           "lunderhaze-clients-v2\n", "\nlunderhaze-clients-v1\n"})
    EXPECT_EQ(load(&list, text), -1) << text;
  EXPECT_EQ(lund_client_list_load(&list, nullptr, 0), -1);
}

TEST_F(ListsDevices, EmptyLinesAreSkippedAndLinesOfBlanksFail) {
  lund_client_list list;
  EXPECT_EQ(load(&list, CLIENTS + "\n\r\n" + hex(1) + " 5 x\n\n"), 0);
  EXPECT_EQ(list.count, 1);
  EXPECT_EQ(load_client_line("  "), -1);
}

TEST_F(ListsDevices, FieldsAreSeparatedByBlanksAndNotByTabs) {
  lund_client_list list;
  ASSERT_EQ(load_client_line(hex(1) + "   5   two  words ", &list), 0);
  EXPECT_EQ(list.entries[0].added_at, 5u);
  EXPECT_STREQ(list.entries[0].name, "two  words ");
  EXPECT_EQ(load_client_line(hex(1) + "\t5 x"), -1);
  EXPECT_EQ(load_client_line(hex(1) + " 5\tx"), -1);
}

TEST_F(ListsDevices, KeyHasExactly64HexadecimalDigits) {
  EXPECT_EQ(load_client_line(hex(1).substr(1) + " 5 x"), -1);
  EXPECT_EQ(load_client_line(hex(1) + "0 5 x"), -1);
  EXPECT_EQ(load_client_line("g" + hex(1).substr(1) + " 5 x"), -1);
  EXPECT_EQ(load_client_line(std::string(64, 'A') + " 5 x"), 0);
}

TEST_F(ListsDevices, AddedAtFollowsStrtoull) {
  lund_client_list list;
  ASSERT_EQ(load_client_line(hex(1) + " +0012 x", &list), 0);
  EXPECT_EQ(list.entries[0].added_at, 12u);
  ASSERT_EQ(load_client_line(hex(1) + " 99999999999999999999999 x", &list), 0);
  EXPECT_EQ(list.entries[0].added_at, UINT64_MAX);
  EXPECT_EQ(load_client_line(hex(1)), -1);
  EXPECT_EQ(load_client_line(hex(1) + " x 5"), -1);
}

TEST_F(ListsDevices, NamesAreCleanedOnLoading) {
  lund_client_list list;
  ASSERT_EQ(load_client_line(hex(1) + " 5 a\x01z" + std::string(80, 'n'), &list), 0);
  EXPECT_EQ(list.entries[0].name, "a z" + std::string(60, 'n'));
}

TEST_F(ListsDevices, LinesAreCutAt511Characters) {
  lund_client_list list;
  EXPECT_EQ(load_client_line(hex(1) + " 5 " + std::string(2000, 'n'), &list), 0);
  EXPECT_EQ(list.count, 1);
  // 511 characters end within this number's digits, and the name is lost with the rest.
  const std::string zeros(511 - 65 - 1, '0');
  ASSERT_EQ(load_client_line(hex(1) + " " + zeros + "12 name", &list), 0);
  EXPECT_EQ(list.entries[0].added_at, 1u);
  EXPECT_STREQ(list.entries[0].name, "");
}

TEST_F(ListsDevices, ZeroByteFailsTheLoad) {
  EXPECT_EQ(load_client_line(hex(1) + " 5 a" + std::string(1, '\0') + "b"), -1);
}

TEST_F(ListsDevices, OneBadLineFailsTheWholeLoad) {
  lund_client_list list = clients(5);
  EXPECT_EQ(load(&list, CLIENTS + hex(1) + " 5 x\nnonsense\n"), -1);
  EXPECT_EQ(list.count, 0);
  EXPECT_STREQ(list.entries[0].name, "");
}

TEST_F(ListsDevices, HostsTextLayout) {
  lund_host_list list;
  lund_host_entry entry = host(1, "den");
  entry.lan_id = 0xAB;
  ASSERT_EQ(lund_addr_parse(&entry.lan_endpoint, "192.168.1.2:9876", 0), 0);
  ASSERT_EQ(lund_addr_parse(&entry.wan_endpoint, "[2001:db8::1]:5", 0), 0);
  entry.added_at = 11;
  entry.last_used = 12;
  ASSERT_EQ(lund_host_list_put(&list, &entry), 0);
  entry = host(2, "other");
  entry.added_at = 13;
  ASSERT_EQ(lund_host_list_put(&list, &entry), 1);
  EXPECT_EQ(save(list), HOSTS + hex(1) + " 000000ab 192.168.1.2:9876 [2001:db8::1]:5 11 12 den\n" +
                            hex(2) + " 00000000 - - 13 0 other\n");
}

TEST_F(ListsDevices, SavedHostsLoadTheSame) {
  lund_host_list list, back;
  for (int i = 0; i < 32; ++i) {
    lund_host_entry entry = host(i, "name with blanks");
    entry.lan_id = static_cast<std::uint32_t>(i) * 0x01010101u;
    ASSERT_EQ(lund_addr_parse(&entry.wan_endpoint, "[1:2:3:4:5:6:7:8]:65535", 0), 0);
    ASSERT_EQ(lund_host_list_put(&list, &entry), i);
  }
  ASSERT_EQ(load(&back, save(list)), 0);
  EXPECT_EQ(save(back), save(list));
  EXPECT_EQ(back.count, 32);
}

TEST_F(ListsDevices, AddressWithoutAPortSurvivesSaving) {
  lund_host_list list, back;
  const std::string text = HOSTS + hex(1) + " 00000001 192.168.1.2 ::1 1 2 x\n";
  ASSERT_EQ(load(&list, text), 0);
  EXPECT_EQ(list.entries[0].lan_endpoint.port, 0);
  ASSERT_EQ(load(&back, save(list)), 0);
  EXPECT_TRUE(lund_rv_endpoint_equal(back.entries[0].lan_endpoint, list.entries[0].lan_endpoint));
  EXPECT_TRUE(lund_rv_endpoint_equal(back.entries[0].wan_endpoint, list.entries[0].wan_endpoint));
}

TEST_F(ListsDevices, HostLinesThatDoNotParseFail) {
  EXPECT_EQ(load_host_line(hex(1) + " 000000ab - - 11 12 den"), 0);
  EXPECT_EQ(load_host_line(hex(1) + " 000000ab - - 11 12"), 0);
  for (const char* rest :
       {"", " 000000ab", " 000000ab -", " 000000ab - -", " 000000ab - - 11", " xyz - - 11 12 den",
        " 1ffffffff - - 11 12 den", " 1 -- - 11 12 den", " 1 1.2.3.4:0 - 11 12 den",
        " 1 - example 11 12 den", " 1 - - x 12 den", " 1 - - 11 x den"})
    EXPECT_EQ(load_host_line(hex(1) + rest), -1) << rest;
}

TEST_F(ListsDevices, ThirtyThirdHostIsRefusedAndFailsALoad) {
  lund_host_list list;
  for (int i = 0; i < 32; ++i) {
    const lund_host_entry entry = host(i);
    ASSERT_EQ(lund_host_list_put(&list, &entry), i);
  }
  const lund_host_entry one_more = host(99), known = host(3);
  EXPECT_EQ(lund_host_list_put(&list, &one_more), -1);
  EXPECT_EQ(lund_host_list_put(&list, &known), 3);
  EXPECT_EQ(load(&list, save(list) + hex(99) + " 00000000 - - 1 1 x\n"), -1);
  EXPECT_EQ(list.count, 0);
}

TEST_F(ListsDevices, PutSetsAZeroTimeAndKeepsAnother) {
  lund_host_list list;
  lund_host_entry entry = host(1, "a\tb");
  ASSERT_EQ(lund_host_list_put(&list, &entry), 0);
  EXPECT_EQ(list.entries[0].added_at, NOW_SECONDS);
  EXPECT_STREQ(list.entries[0].name, "a b");
  entry.added_at = 5;
  entry.lan_id = 6;
  ASSERT_EQ(lund_host_list_put(&list, &entry), 0);
  EXPECT_EQ(list.count, 1);
  EXPECT_EQ(list.entries[0].added_at, 5u);
  EXPECT_EQ(list.entries[0].lan_id, 6u);
}

TEST_F(ListsDevices, PutTakesAnEntryOfTheListItself) {
  lund_host_list list;
  const lund_host_entry entry = host(1, "den");
  ASSERT_EQ(lund_host_list_put(&list, &entry), 0);
  ASSERT_EQ(lund_host_list_put(&list, &list.entries[0]), 0);
  EXPECT_STREQ(list.entries[0].name, "den");
}

TEST_F(ListsDevices, HostsAreFoundByKeyAndByLanIdButNotByZero) {
  lund_host_list list;
  lund_host_entry entry = host(1);
  lund_host_list_put(&list, &entry);
  entry = host(2);
  entry.lan_id = 77;
  lund_host_list_put(&list, &entry);
  EXPECT_EQ(lund_host_list_find(&list, Key(2).bytes), 1);
  EXPECT_EQ(lund_host_list_find(&list, Key(3).bytes), -1);
  EXPECT_EQ(lund_host_list_find_lan_id(&list, 77), 1);
  EXPECT_EQ(lund_host_list_find_lan_id(&list, 78), -1);
  EXPECT_EQ(lund_host_list_find_lan_id(&list, 0), -1);
}

TEST_F(ListsDevices, RemovingAHostKeepsTheOrder) {
  lund_host_list list;
  for (int i = 0; i < 3; ++i) {
    const lund_host_entry entry = host(i);
    lund_host_list_put(&list, &entry);
  }
  ASSERT_EQ(lund_host_list_remove(&list, Key(0).bytes), 0);
  EXPECT_EQ(lund_host_list_remove(&list, Key(0).bytes), -1);
  EXPECT_EQ(list.count, 2);
  EXPECT_EQ(list.entries[0].key[0], 1);
}
