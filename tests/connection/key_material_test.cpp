// Identity keys, their ids and codes, hexadecimal text, and the random source of
// connection/secure.h.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "connection/secure.h"
#include "tests/support/vectors.h"
#include "tests/support/wiped.h"

namespace {

using vectors::bytes;
using vectors::from_hex;
using vectors::to_hex;

// RFC 7748, section 6.1: Alice.
const bytes ALICE_SECRET =
    from_hex("77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a");

TEST(Random, FillsEveryPartOfTheBufferWithFreshBytes) {
  std::vector<std::uint8_t> first(1000), second(1000);
  ASSERT_EQ(lund_random_bytes(first.data(), first.size()), LUND_OK);
  ASSERT_EQ(lund_random_bytes(second.data(), second.size()), LUND_OK);
  for (std::size_t at = 0; at + 20 <= first.size(); at += 20)
    EXPECT_NE(std::memcmp(&first[at], &second[at], 20), 0) << "at " << at;
}

TEST(Random, StopsAtTheEndOfTheBuffer) {
  std::uint8_t guarded[48] = {};
  ASSERT_EQ(lund_random_bytes(guarded, 32), LUND_OK);
  EXPECT_EQ(to_hex(std::span(guarded).subspan(32)), std::string(32, '0'));
}

TEST(Random, NothingAskedIsNoFailure) {
  EXPECT_EQ(lund_random_bytes(nullptr, 0), LUND_OK);
}

TEST(Keypair, TwoGeneratedAreNotTheSame) {
  lund_keypair a, b;
  ASSERT_EQ(lund_keypair_generate(&a), LUND_OK);
  ASSERT_EQ(lund_keypair_generate(&b), LUND_OK);
  EXPECT_NE(to_hex(a.secret), to_hex(b.secret));
  EXPECT_NE(to_hex(a.public_key), to_hex(b.public_key));
}

TEST(Keypair, ThePublicKeyFollowsFromTheSecret) {
  lund_keypair generated, derived;
  ASSERT_EQ(lund_keypair_generate(&generated), LUND_OK);
  lund_keypair_from_secret(&derived, generated.secret);
  EXPECT_EQ(to_hex(bytes_in(derived)), to_hex(bytes_in(generated)));
}

TEST(Wipe, LeavesZerosInTheRangeAndNothingElse) {
  std::uint8_t memory[24];
  std::memset(memory, 0xEE, sizeof memory);
  lund_secure_wipe(memory + 4, 16);
  EXPECT_EQ(to_hex(memory), "eeeeeeee" + std::string(32, '0') + "eeeeeeee");
}

// Computed with another BLAKE2b implementation over the label and Alice's public key.
TEST(KeyId, IsTheLabelledHashOfThePublicKey) {
  lund_keypair alice;
  lund_keypair_from_secret(&alice, ALICE_SECRET.data());
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, alice.public_key);
  EXPECT_EQ(to_hex(id), "e938900fe14208f812ad228c5ea5c4f5");
}

TEST(KeyCode, ShowsTheFirst40BitsOfTheId) {
  lund_keypair alice;
  lund_keypair_from_secret(&alice, ALICE_SECRET.data());
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, alice.public_key);
  EXPECT_STREQ(code, "X4W9-03Z1");
}

TEST(KeyCode, ParsedItIsTheFrontOfTheKeyId) {
  for (std::uint8_t i = 0; i < 50; ++i) {
    const bytes public_key(32, i);
    std::uint8_t id[LUND_KEY_ID_SIZE], parsed[5];
    char code[LUND_KEY_CODE_TEXT];
    lund_key_id(id, public_key.data());
    lund_key_code(code, public_key.data());
    ASSERT_EQ(lund_key_code_parse(parsed, code), 0) << code;
    EXPECT_EQ(to_hex(parsed), to_hex(std::span(id).first(5)));
  }
}

std::string parsed(const char* text) {
  std::uint8_t out[5];
  return lund_key_code_parse(out, text) == 0 ? to_hex(out) : "refused";
}

TEST(KeyCode, ParsingIsTolerantOfHowPeopleType) {
  EXPECT_NE(parsed("7K2M-Q9TX"), "refused");
  EXPECT_EQ(parsed("7k2m q9tx"), parsed("7K2M-Q9TX"));
  EXPECT_EQ(parsed(" 7K-2M--Q9 TX "), parsed("7K2M-Q9TX"));
  EXPECT_EQ(parsed("OOOO-oooo"), parsed("0000-0000"));
  EXPECT_EQ(parsed("IiLl-1111"), parsed("1111-1111"));
}

TEST(KeyCode, TheFirstLetterIsTheMostSignificant) {
  EXPECT_EQ(parsed("Z000-0000"), "f800000000");
  EXPECT_EQ(parsed("0000-000Z"), "000000001f");
}

TEST(KeyCode, AnythingButEightLettersOfTheAlphabetIsRefused) {
  for (const char* text : {"", "-- --", "7K2M-Q9T", "7K2M-Q9TX0", "7K2M-Q9TU", "7K2M-Q9Tu",
                           "7K2M_Q9TX", "7K2M-Q9T\xC3", "7K2M\tQ9TX"})
    EXPECT_EQ(parsed(text), "refused") << text;
}

TEST(Hex, EncodesInLowerCaseAndDecodesEither) {
  const bytes data = {0x00, 0x1F, 0xAB, 0xFF};
  EXPECT_EQ(to_hex(data), "001fabff");
  EXPECT_EQ(from_hex("001FabFF"), data);
}

TEST(Hex, ALongerTextIsRefusedAndNotCut) {
  std::uint8_t out[32];
  EXPECT_EQ(lund_hex_decode(out, 32, std::string(64, 'a').c_str()), 0);
  EXPECT_EQ(lund_hex_decode(out, 32, std::string(65, 'a').c_str()), -1);
}

TEST(Hex, AShorterTextOrAnotherCharacterIsRefused) {
  std::uint8_t out[2];
  for (const char* text : {"", "aaa", "aa a", "aag0", "0xaa", "aa-a"})
    EXPECT_EQ(lund_hex_decode(out, 2, text), -1) << text;
}

}  // namespace
