#include "connection/lists.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>

namespace {

std::string cleaned(const char* text) {
  char out[64];
  std::memset(out, 'x', sizeof(out));
  conn_clean_name(out, text);
  return out;
}

std::string repeated(const char* text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

lund_password_record sample_record() {
  lund_password_record record = {.mem_kib = 65'536, .iterations = 3};
  std::iota(std::begin(record.salt), std::end(record.salt), std::uint8_t{0});
  std::iota(std::begin(record.verifier), std::end(record.verifier), std::uint8_t{0xE0});
  return record;
}
const std::string SALT = "000102030405060708090a0b0c0d0e0f";
const std::string VERIFIER = "e0e1e2e3e4e5e6e7e8e9eaebecedeeeff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";

int parse_blob(const std::string& text) {
  lund_password_record record;
  return lund_password_blob_parse(&record, text.c_str());
}
std::string blob(const std::string& salt, const std::string& mem, const std::string& iterations,
                 const std::string& verifier) {
  return "lunderhaze-pw1 " + salt + " " + mem + " " + iterations + " " + verifier;
}

}  // namespace

TEST(CleanName, ControlCharactersBecomeBlanks) {
  EXPECT_EQ(cleaned("a\tb\nc\x7F\x01z"), "a b c  z");
  EXPECT_EQ(cleaned(" ~\xC3\xBC"), " ~\xC3\xBC");
}

TEST(CleanName, NullGivesAnEmptyName) {
  EXPECT_EQ(cleaned(nullptr), "");
}

TEST(CleanName, SixtyThreeBytesStayAndMoreAreCut) {
  EXPECT_EQ(cleaned(std::string(63, 'n').c_str()), std::string(63, 'n'));
  EXPECT_EQ(cleaned(std::string(64, 'n').c_str()), std::string(63, 'n'));
}

TEST(CleanName, SeventyTwoByteCharactersEndOnAWholeOne) {
  EXPECT_EQ(cleaned(repeated("\xC3\xA4", 70).c_str()), repeated("\xC3\xA4", 31));
}

TEST(CleanName, CutWithinLongerSequencesWalksBackToTheirStart) {
  const std::string euro = "\xE2\x82\xAC", face = "\xF0\x9F\x98\x80";
  EXPECT_EQ(cleaned((std::string(61, 'n') + euro).c_str()), std::string(61, 'n'));
  EXPECT_EQ(cleaned((std::string(62, 'n') + euro).c_str()), std::string(62, 'n'));
  EXPECT_EQ(cleaned((std::string(60, 'n') + euro + "z").c_str()), std::string(60, 'n') + euro);
  EXPECT_EQ(cleaned((std::string(60, 'n') + face).c_str()), std::string(60, 'n'));
}

TEST(CleanName, IsItsOwnFixedPoint) {
  const std::string once = cleaned(("a\n" + repeated("\xE2\x82\xAC", 40)).c_str());
  EXPECT_EQ(cleaned(once.c_str()), once);
}

TEST(SecretKind, SixDigitsAreAPinAndAllElseAPassword) {
  EXPECT_EQ(lund_secret_guess_kind("123456"), 1);
  for (const char* text : {"12345", "1234567", "12a456", "", " 12345", "12345\xB2", "123 56"})
    EXPECT_EQ(lund_secret_guess_kind(text), 2) << text;
  EXPECT_EQ(lund_secret_guess_kind(nullptr), 2);
}

TEST(PasswordDerive, ParametersOutOfRangeAndANullPasswordAreRefused) {
  std::uint8_t out[32];
  const std::uint8_t salt[16] = {};
  EXPECT_EQ(lund_password_derive(out, "p", salt, 7, 1), -1);
  EXPECT_EQ(lund_password_derive(out, "p", salt, 0x100001, 1), -1);
  EXPECT_EQ(lund_password_derive(out, "p", salt, 8, 0), -1);
  EXPECT_EQ(lund_password_derive(out, "p", salt, 8, 17), -1);
  EXPECT_EQ(lund_password_derive(out, nullptr, salt, 8, 1), -1);
  EXPECT_EQ(lund_password_derive(out, "p", salt, 8, 16), 0);
}

TEST(PasswordDerive, MatchesAnotherImplementationOfArgon2id) {
  // Computed by libsodium's crypto_pwhash_argon2id, 3 passes over 64 KiB.
  std::uint8_t out[32];
  ASSERT_EQ(lund_password_derive(out, "password",
                                 reinterpret_cast<const std::uint8_t*>("somesaltsomesalt"), 64, 3),
            0);
  char hex[65];
  lund_hex_encode(hex, out, sizeof(out));
  EXPECT_STREQ(hex, "6164c739a04e17de34a80bee65c6a58f4b8a240cbf5652f4a79e35ae02b7c616");
}

TEST(PasswordBlob, LayoutAndRoundTrip) {
  const lund_password_record record = sample_record();
  char text[LUND_PASSWORD_BLOB_MAX];
  const std::size_t size = lund_password_blob_format(text, sizeof(text), &record);
  EXPECT_EQ(std::string(text, size), "lunderhaze-pw1 " + SALT + " 65536 3 " + VERIFIER);
  lund_password_record got;
  ASSERT_EQ(lund_password_blob_parse(&got, text), 0);
  EXPECT_THAT(got.salt, ::testing::ElementsAreArray(record.salt));
  EXPECT_EQ(got.mem_kib, 65'536u);
  EXPECT_EQ(got.iterations, 3u);
  EXPECT_THAT(got.verifier, ::testing::ElementsAreArray(record.verifier));
}

TEST(PasswordBlob, LargestRecordFitsTheStatedRoom) {
  lund_password_record record = sample_record();
  record.mem_kib = record.iterations = UINT32_MAX;
  char text[LUND_PASSWORD_BLOB_MAX];
  EXPECT_GT(lund_password_blob_format(text, sizeof(text), &record), 0u);
}

TEST(PasswordBlob, ShortBufferGivesZeroAndKeepsNothing) {
  const lund_password_record record = sample_record();
  char text[LUND_PASSWORD_BLOB_MAX];
  const std::size_t size = lund_password_blob_format(text, sizeof(text), &record);
  EXPECT_EQ(lund_password_blob_format(text, size + 1, &record), size);
  EXPECT_EQ(lund_password_blob_format(text, size, &record), 0u);
  EXPECT_THAT(std::string(text, size), ::testing::Each('\0'));
  EXPECT_EQ(lund_password_blob_format(nullptr, 0, &record), 0u);
}

TEST(PasswordBlob, LimitsOfTheParameters) {
  EXPECT_EQ(parse_blob(blob(SALT, "8", "1", VERIFIER)), 0);
  EXPECT_EQ(parse_blob(blob(SALT, "1048576", "16", VERIFIER)), 0);
  EXPECT_EQ(parse_blob(blob(SALT, "7", "1", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "1048577", "1", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "8", "0", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "8", "17", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "4294967304", "1", VERIFIER)), -1);  // 2^32 + 8
}

TEST(PasswordBlob, FieldsOfAnotherLengthAreRefused) {
  EXPECT_EQ(parse_blob(blob(SALT.substr(2), "8", "1", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT + "00", "8", "1", VERIFIER)), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "8", "1", VERIFIER.substr(2))), -1);
  EXPECT_EQ(parse_blob(blob(SALT, "8", "1", VERIFIER + "00")), -1);
  EXPECT_EQ(parse_blob(blob("zz" + SALT.substr(2), "8", "1", VERIFIER)), -1);
}

TEST(PasswordBlob, MissingFieldsAnotherTagAndNullAreRefused) {
  EXPECT_EQ(parse_blob(""), -1);
  EXPECT_EQ(parse_blob("lunderhaze-pw1 " + SALT + " 8 1"), -1);
  EXPECT_EQ(parse_blob("lunderhaze-pw2 " + SALT + " 8 1 " + VERIFIER), -1);
  lund_password_record record;
  EXPECT_EQ(lund_password_blob_parse(&record, nullptr), -1);
}

TEST(PasswordBlob, AnyWhiteSpaceSeparatesAndALineEndIsFine) {
  EXPECT_EQ(parse_blob("lunderhaze-pw1\t" + SALT + "  8 1 " + VERIFIER + "\r\n"), 0);
}

TEST(PasswordBlob, FailedParseLeavesTheRecordAlone) {
  lund_password_record record = sample_record();
  EXPECT_EQ(lund_password_blob_parse(&record, blob(SALT, "8", "99", VERIFIER).c_str()), -1);
  EXPECT_EQ(record.mem_kib, 65'536u);
}

TEST(Identity, GeneratedTextLoadsTheSameKeypair) {
  lund_keypair made, loaded;
  char text[65];
  ASSERT_EQ(lund_identity_generate(&made, text), 0);
  EXPECT_EQ(std::strlen(text), 64u);
  ASSERT_EQ(lund_identity_load(&loaded, text), 0);
  EXPECT_EQ(std::memcmp(&made, &loaded, sizeof(made)), 0);
}

TEST(Identity, TakesTheFirst64CharactersAndNeedsThemAll) {
  const std::string secret = std::string(62, '0') + "7F";
  lund_keypair a, b;
  ASSERT_EQ(lund_identity_load(&a, secret.c_str()), 0);
  EXPECT_EQ(a.secret[31], 0x7F);
  ASSERT_EQ(lund_identity_load(&b, (secret + "\r\nbehind").c_str()), 0);
  EXPECT_EQ(std::memcmp(&a, &b, sizeof(a)), 0);
  EXPECT_EQ(lund_identity_load(&b, secret.substr(1).c_str()), -1);
  EXPECT_EQ(lund_identity_load(&b, (" " + secret).c_str()), -1);
  EXPECT_EQ(lund_identity_load(&b, nullptr), -1);
}
