// What held a secret holds nothing of it any more, and neither does what it was made from.
#include "connection/wiped.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "connection/conn_host.h"
#include "connection/lists.h"
#include "tests/support/wiped.h"

namespace {

constexpr char PIN[] = "123456";
constexpr char PIN_BUT_ONE_DIGIT[] = "23456";

std::span<const std::uint8_t> text(const char* of) {
  return {reinterpret_cast<const std::uint8_t*>(of), std::strlen(of)};
}

// A place that is looked into after the object in it has gone.
template <class T>
struct Place {
  alignas(T) std::uint8_t bytes[sizeof(T)] = {};
  T* object = nullptr;

  template <class... Arguments>
  explicit Place(Arguments&&... arguments)
      : object(new (bytes) T(std::forward<Arguments>(arguments)...)) {}
  void end() { object->~T(); }
};

// Memory that stays readable after it was given back.
template <class T>
struct KeptMemory {
  using value_type = T;
  std::vector<std::unique_ptr<T[]>>* all;
  T* allocate(std::size_t size) {
    all->push_back(std::make_unique<T[]>(size));
    return all->back().get();
  }
  void deallocate(T*, std::size_t) {}
};

TEST(Wiped, LeavesNoByteOfAValue) {
  Place<Wiped<std::uint64_t>> place;
  place.object->value = 0x0123456789abcdef;
  place.end();
  EXPECT_TRUE(is_wiped(place.bytes));
}

TEST(Wiped, LeavesNoByteOfAShortTextInItsOwnPlace) {
  Place<Wiped<std::string>> place;
  place.object->value = PIN;
  ASSERT_TRUE(contains(place.bytes, text(PIN)));
  place.end();
  EXPECT_FALSE(contains(place.bytes, text(PIN_BUT_ONE_DIGIT)));
}

TEST(Wiped, LeavesNoByteOfWhatATextOnceWasLongerBy) {
  std::vector<std::unique_ptr<char[]>> memory;
  using Text = std::basic_string<char, std::char_traits<char>, KeptMemory<char>>;
  {
    Wiped<Text> wiped(
        Text("a secret that is longer than a text's own place", KeptMemory<char>{&memory}));
    wiped.value.resize(3);
  }
  ASSERT_EQ(memory.size(), 1u);
  EXPECT_EQ(std::string(memory[0].get(), 47), std::string(47, '\0'));
}

TEST(Wiped, WipesTheShortTextThatItIsMadeFrom) {
  Place<std::string> from(PIN);
  const Wiped<std::string> wiped(std::move(*from.object));
  EXPECT_EQ(wiped.value, PIN);
  EXPECT_FALSE(contains(from.bytes, text(PIN_BUT_ONE_DIGIT)));
  from.end();
}

TEST(Wiped, RecordsOfSecretsLeaveNoByteOfThem) {
  Place<lund_keypair> keys;
  lund_keypair_generate(keys.object);
  keys.end();
  EXPECT_TRUE(is_wiped(keys.object->secret));

  Place<lund_relay_config> relays;
  for (lund_relay_server& server : relays.object->servers)
    lund_relay_server_set(&server, "host", 1, text(PIN).data(), 6);
  ASSERT_TRUE(contains(relays.bytes, text(PIN)));
  relays.end();
  EXPECT_FALSE(contains(relays.bytes, text(PIN_BUT_ONE_DIGIT)));

  Place<lund_pairing_status> status;
  std::memcpy(status.object->pin, PIN, sizeof PIN);
  status.end();
  EXPECT_FALSE(contains(status.bytes, text(PIN_BUT_ONE_DIGIT)));
}

}  // namespace
