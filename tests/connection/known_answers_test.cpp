// Published known answers of the primitives, run on the very calls that the secure channel makes:
// RFC 7748, 8439, 7693, 9106, Project Wycheproof, and Elligator 2's direct map. Each test of a file
// says how many of its vectors ran.
#include <gtest/gtest.h>
#include <monocypher-ed25519.h>
#include <monocypher.h>

#include <cstring>

#include "connection/byte_order.h"
#include "connection/cpace.h"
#include "connection/secure.h"
#include "tests/support/vectors.h"

namespace {

using vectors::bytes;
using vectors::from_hex;
using vectors::to_hex;

std::string x25519(const bytes& secret, const bytes& point) {
  std::uint8_t out[32];
  crypto_x25519(out, secret.data(), point.data());
  return to_hex(out);
}
std::string x25519(const std::string& secret, const std::string& point) {
  return x25519(from_hex(secret), from_hex(point));
}

const std::string ZERO_KEY(64, '0');

// --- X25519 -------------------------------------------------------------------------------------

TEST(KnownAnswers, Rfc7748ScalarMultiplication) {
  EXPECT_EQ(x25519("a546e36bf0527c9d3b16154b82465edd62144c0ac1fc5a18506a2244ba449ac4",
                   "e6db6867583030db3594c1a424b15f7c726624ec26b3353b10a903a6d0ab1c4c"),
            "c3da55379de9c6908e94ea4df28d084f32eccf03491c71f754b4075577a28552");
  EXPECT_EQ(x25519("4b66e9d4d1b4673c5ad22691957d6af5c11b6421e0ea01d42ca4169e7918ba0d",
                   "e5210f12786811d3f4b7959d0538ae2c31dbe7106fc03c3efc4cd549c715a493"),
            "95cbde9476e8907d7aade45cb4b873f88b595a68799fa152e6f8f7647aac7957");
}

TEST(KnownAnswers, Rfc7748Iterated1And1000Times) {
  bytes k(32), u(32);
  k[0] = u[0] = 9;
  for (int i = 1; i <= 1000; ++i) {
    const bytes next = from_hex(x25519(k, u));
    u = k;
    k = next;
    if (i == 1) {
      EXPECT_EQ(to_hex(k), "422c8e7a6227d7bca1350b3e2bb7279f7897b87bb6854b783c60e80311ae3079");
    }
  }
  EXPECT_EQ(to_hex(k), "684cf59ba83309552800ef566f2f4d3c1c3887c49360e3875f2eb94d99532c51");
}

TEST(KnownAnswers, Rfc7748KeyPairsAndSharedSecret) {
  const std::string a = "77076d0a7318a57d3c16c17251b26645df4c2f87ebc0992ab177fba51db92c2a";
  const std::string b = "5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb";
  const std::string shared = "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742";
  lund_keypair alice, bob;
  lund_keypair_from_secret(&alice, from_hex(a).data());
  lund_keypair_from_secret(&bob, from_hex(b).data());
  EXPECT_EQ(to_hex(alice.public_key),
            "8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a");
  EXPECT_EQ(to_hex(bob.public_key),
            "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
  EXPECT_EQ(x25519(a, to_hex(bob.public_key)), shared);
  EXPECT_EQ(x25519(b, to_hex(alice.public_key)), shared);
}

TEST(KnownAnswers, WycheproofX25519) {
  std::size_t ran = 0, zero = 0;
  for (const auto& vector : vectors::load_list("wycheproof_x25519.json", "vectors")) {
    EXPECT_EQ(x25519(vector[1].get<std::string>(), vector[0].get<std::string>()),
              vector[2].get<std::string>());
    zero += vector[2] == ZERO_KEY;
    ++ran;
  }
  EXPECT_EQ(ran, 200u);
  EXPECT_EQ(zero, 31u);
}

// Seven of the draft's twelve give zero; the others set bit 255, which X25519 doesn't read.
TEST(KnownAnswers, TheCpaceDraftsPointsOfLowOrderAreWeak) {
  const auto vector = vectors::load("cpace_x25519_sha512.json")["low_order"];
  const bytes scalar = from_hex(vector["s"]);
  std::size_t ran = 0, weak = 0;
  for (; ran < vector["u"].size(); ++ran) {
    const bytes point = from_hex(vector["u"][ran]);
    EXPECT_EQ(x25519(scalar, point), vector["q"][ran].get<std::string>()) << "point " << ran;
    std::uint8_t isk[64];
    const int result = lund_cpace_isk(isk, nullptr, 0, scalar.data(), point.data(), point.data(),
                                      nullptr, 0, point.data(), nullptr, 0);
    EXPECT_EQ(result, vector["q"][ran] == ZERO_KEY ? LUND_ERR_WEAK_KEY : LUND_OK);
    weak += result == LUND_ERR_WEAK_KEY;
  }
  EXPECT_EQ(ran, 12u);
  EXPECT_EQ(weak, 7u);
}

// --- ChaCha20-Poly1305 --------------------------------------------------------------------------

struct aead_vector {
  bool valid;
  bytes key, iv, ad, plain, cipher, mac;

  explicit aead_vector(const nlohmann::json& entry)
      : valid(entry[0]),
        key(from_hex(entry[1])),
        iv(from_hex(entry[2])),
        ad(from_hex(entry[3])),
        plain(from_hex(entry[4])),
        cipher(from_hex(entry[5])),
        mac(from_hex(entry[6])) {}

  // Our nonces have four zero bytes in front of the counter.
  bool has_counter_nonce() const { return load_le<std::uint32_t>(iv.data()) == 0; }
  std::uint64_t counter() const { return load_le<std::uint64_t>(iv.data() + 4); }
};

bool opens_to_plain(const aead_vector& vector) {
  crypto_aead_ctx context;
  crypto_aead_init_ietf(&context, vector.key.data(), vector.iv.data());
  bytes out(vector.cipher.size());
  return crypto_aead_read(&context, out.data(), vector.mac.data(), vector.ad.data(),
                          vector.ad.size(), vector.cipher.data(), vector.cipher.size()) == 0 &&
         out == vector.plain;
}

bool seals_to_cipher(const aead_vector& vector) {
  crypto_aead_ctx context;
  crypto_aead_init_ietf(&context, vector.key.data(), vector.iv.data());
  bytes out(vector.plain.size()), mac(LUND_MAC_SIZE);
  crypto_aead_write(&context, out.data(), mac.data(), vector.ad.data(), vector.ad.size(),
                    vector.plain.data(), vector.plain.size());
  return out == vector.cipher && mac == vector.mac;
}

// Section 2.8.2, "Ladies and Gentlemen of the class of '99 ...": Wycheproof's first entry.
TEST(KnownAnswers, Rfc8439Aead) {
  const aead_vector vector(vectors::load("wycheproof_chacha20_poly1305.json")["vectors"][0]);
  ASSERT_EQ(to_hex(vector.iv), "070000004041424344454647");
  ASSERT_EQ(to_hex(vector.mac), "1ae10b594f09e26a7e902ecbd0600691");
  EXPECT_TRUE(seals_to_cipher(vector));
  EXPECT_TRUE(opens_to_plain(vector));
}

TEST(KnownAnswers, WycheproofChaCha20Poly1305) {
  std::size_t valid = 0, invalid = 0;
  for (const auto& entry : vectors::load_list("wycheproof_chacha20_poly1305.json", "vectors")) {
    const aead_vector vector(entry);
    EXPECT_EQ(opens_to_plain(vector), vector.valid) << entry;
    EXPECT_EQ(seals_to_cipher(vector), vector.valid) << entry;
    ++(vector.valid ? valid : invalid);
  }
  EXPECT_EQ(valid + invalid, 316u);
  EXPECT_EQ(invalid, 60u);
}

TEST(KnownAnswers, WycheproofChaCha20Poly1305UnderCounterNonces) {
  std::size_t ran = 0;
  for (const auto& entry : vectors::load_list("wycheproof_chacha20_poly1305.json", "vectors")) {
    const aead_vector vector(entry);
    if (!vector.has_counter_nonce()) continue;
    bytes cipher(vector.plain.size()), mac(LUND_MAC_SIZE), plain(vector.cipher.size());
    lund_aead_encrypt(vector.key.data(), vector.counter(), vector.ad.data(), vector.ad.size(),
                      vector.plain.data(), vector.plain.size(), cipher.data(), mac.data());
    EXPECT_EQ(cipher == vector.cipher && mac == vector.mac, vector.valid) << entry;
    const int opened = lund_aead_decrypt(vector.key.data(), vector.counter(), vector.ad.data(),
                                         vector.ad.size(), vector.cipher.data(),
                                         vector.cipher.size(), vector.mac.data(), plain.data());
    EXPECT_EQ(opened, vector.valid ? LUND_OK : LUND_ERR_AUTH) << entry;
    ++ran;
  }
  EXPECT_EQ(ran, 10u);  // the other 306 have a nonce that no counter gives
}

// --- hashes and derivations ---------------------------------------------------------------------

TEST(KnownAnswers, Rfc7693Blake2b512OfAbc) {
  std::uint8_t hash[64];
  crypto_blake2b(hash, sizeof hash, reinterpret_cast<const std::uint8_t*>("abc"), 3);
  EXPECT_EQ(to_hex(hash),
            "ba80a53f981c4d0d6a2797b69f12f6e94c212f14685ac4b74b12bb6fdbffa2d1"
            "7d87c5392aab792dc252d5de4533cc9518d38aa8dbf1925ab92386edd4009923");
}

TEST(KnownAnswers, WycheproofHkdfSha512) {
  std::size_t ran = 0;
  for (const auto& vector : vectors::load_list("wycheproof_hkdf_sha512.json", "vectors")) {
    const bytes ikm = from_hex(vector[0]), salt = from_hex(vector[1]), info = from_hex(vector[2]);
    bytes okm(vector[3].get<std::string>().size() / 2);
    crypto_sha512_hkdf(okm.data(), okm.size(), ikm.data(), ikm.size(), salt.data(), salt.size(),
                       info.data(), info.size());
    EXPECT_EQ(to_hex(okm), vector[3].get<std::string>()) << vector;
    ++ran;
  }
  EXPECT_EQ(ran, 72u);
}

// RFC 9106, section 5, and the reference program's own tests of 256 KiB and 64 MiB.
TEST(KnownAnswers, Rfc9106Argon2) {
  std::size_t ran = 0, argon2id = 0;
  for (const auto& vector : vectors::load_list("argon2_rfc9106.json", "vectors")) {
    const bytes password = from_hex(vector["password"]), salt = from_hex(vector["salt"]);
    const bytes key = from_hex(vector["key"]), ad = from_hex(vector["ad"]);
    const auto size_of = [](const bytes& data) { return static_cast<std::uint32_t>(data.size()); };
    const crypto_argon2_config config{vector["type"], vector["mem_kib"], vector["passes"],
                                      vector["lanes"]};
    std::vector<std::uint64_t> work(config.nb_blocks * 1024 / sizeof(std::uint64_t));
    std::uint8_t tag[32];
    crypto_argon2(tag, sizeof tag, work.data(), config,
                  {password.data(), salt.data(), size_of(password), size_of(salt)},
                  {key.data(), ad.data(), size_of(key), size_of(ad)});
    EXPECT_EQ(to_hex(tag), vector["tag"].get<std::string>()) << vector;
    argon2id += config.algorithm == CRYPTO_ARGON2_ID;
    ++ran;
  }
  EXPECT_EQ(ran, 7u);
  EXPECT_EQ(argon2id, 4u);
}

TEST(KnownAnswers, ElligatorDirectMap) {
  std::size_t ran = 0;
  for (const auto& pair : vectors::load_list("elligator_direct.json", "pairs")) {
    std::uint8_t point[32];
    crypto_elligator_map(point, from_hex(pair[0]).data());
    EXPECT_EQ(to_hex(point), pair[1].get<std::string>()) << "representative " << pair[0];
    ++ran;
  }
  EXPECT_EQ(ran, 38u);
}

}  // namespace
