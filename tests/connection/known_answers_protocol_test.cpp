// Published known answers of the two key exchanges: the Noise vector of our protocol name, and the
// CPace draft's for X25519 with SHA-512.
#include <gtest/gtest.h>

#include "connection/cpace.h"
#include "connection/noise.h"
#include "tests/support/vectors.h"

namespace {

using vectors::bytes;
using vectors::from_hex;
using vectors::to_hex;

lund_keypair keypair_of(const std::string& secret_hex) {
  lund_keypair keypair;
  lund_keypair_from_secret(&keypair, from_hex(secret_hex).data());
  return keypair;
}

struct noise_vector : testing::Test {
  nlohmann::json vector = vectors::load("noise_ik_25519_chachapoly_blake2b.json")["vector"];
  lund_noise_ik initiator;
  lund_noise_ik responder;

  bytes field(const char* name) const { return from_hex(vector[name]); }
  bytes payload(std::size_t i) const { return from_hex(vector["messages"][i]["payload"]); }
  bytes ciphertext(std::size_t i) const { return from_hex(vector["messages"][i]["ciphertext"]); }

  void SetUp() override {
    const lund_keypair client = keypair_of(vector["init_static"]);
    const lund_keypair host = keypair_of(vector["resp_static"]);
    const bytes prologue = field("init_prologue");
    ASSERT_EQ(to_hex(host.public_key), vector["init_remote_static"].get<std::string>());
    lund_noise_ik_init(&initiator, true, prologue.data(), prologue.size(), &client,
                       host.public_key);
    lund_noise_ik_init(&responder, false, prologue.data(), prologue.size(), &host, nullptr);
  }

  bytes write(std::size_t i) {
    const bytes plain = payload(i);
    const bytes secret = field(i == 0 ? "init_ephemeral" : "resp_ephemeral");
    bytes out(512);
    std::size_t size = 0;
    const int result = i == 0 ? lund_noise_ik_write1(&initiator, secret.data(), plain.data(),
                                                     plain.size(), out.data(), out.size(), &size)
                              : lund_noise_ik_write2(&responder, secret.data(), plain.data(),
                                                     plain.size(), out.data(), out.size(), &size);
    EXPECT_EQ(result, LUND_OK);
    out.resize(size);
    return out;
  }

  bytes read(std::size_t i) {
    const bytes message = ciphertext(i);
    bytes out(512);
    std::size_t size = 0;
    const int result = i == 0 ? lund_noise_ik_read1(&responder, message.data(), message.size(),
                                                    out.data(), out.size(), &size)
                              : lund_noise_ik_read2(&initiator, message.data(), message.size(),
                                                    out.data(), out.size(), &size);
    EXPECT_EQ(result, LUND_OK);
    out.resize(size);
    return out;
  }

  void handshake() {
    for (const std::size_t i : {0, 1}) {
      write(i);
      read(i);
    }
  }
};

TEST_F(noise_vector, BothMessagesAreTheVectorsByteForByte) {
  EXPECT_EQ(to_hex(write(0)), to_hex(ciphertext(0)));
  EXPECT_EQ(to_hex(read(0)), to_hex(payload(0)));
  EXPECT_EQ(to_hex(write(1)), to_hex(ciphertext(1)));
  EXPECT_EQ(to_hex(read(1)), to_hex(payload(1)));
}

TEST_F(noise_vector, BothSidesEndWithTheVectorsHandshakeHash) {
  handshake();
  EXPECT_EQ(to_hex(initiator.h), vector["handshake_hash"].get<std::string>());
  EXPECT_EQ(to_hex(responder.h), vector["handshake_hash"].get<std::string>());
}

// Messages 3 to 6 are transport messages, the initiator's first, each direction counting from 0.
TEST_F(noise_vector, TheSplitKeysSealTheVectorsTransportMessages) {
  handshake();
  std::uint8_t keys[2][LUND_KEY_SIZE];
  lund_noise_split(&responder, keys[0], keys[1]);
  std::size_t ran = 0;
  for (std::size_t i = 2; i < vector["messages"].size(); ++i, ++ran) {
    const bytes plain = payload(i);
    bytes sealed(plain.size() + LUND_MAC_SIZE);
    lund_aead_encrypt(keys[i % 2], (i - 2) / 2, nullptr, 0, plain.data(), plain.size(),
                      sealed.data(), sealed.data() + plain.size());
    EXPECT_EQ(to_hex(sealed), to_hex(ciphertext(i))) << "message " << i;
  }
  EXPECT_EQ(ran, 4u);
}

struct cpace_draft : testing::TestWithParam<const char*> {
  nlohmann::json vector = vectors::load("cpace_x25519_sha512.json")[GetParam()];
  bytes field(const char* name) const { return from_hex(vector[name]); }

  std::string isk(const char* own_scalar, const char* peer_point) const {
    const bytes sid = field("sid"), ad_a = field("ADa"), ad_b = field("ADb");
    std::uint8_t out[64] = {};
    EXPECT_EQ(lund_cpace_isk(out, sid.data(), sid.size(), field(own_scalar).data(),
                             field(peer_point).data(), field("Ya").data(), ad_a.data(), ad_a.size(),
                             field("Yb").data(), ad_b.data(), ad_b.size()),
              LUND_OK);
    return to_hex(out);
  }
};

TEST_P(cpace_draft, TheGeneratorIsTheDrafts) {
  const bytes secret = field("PRS"), ci = field("CI"), sid = field("sid");
  std::uint8_t point[32];
  lund_cpace_generator(point, secret.data(), secret.size(), ci.data(), ci.size(), sid.data(),
                       sid.size());
  EXPECT_EQ(to_hex(point), vector["g"].get<std::string>());
}

TEST_P(cpace_draft, BothSidesGetTheDraftsInitiatorResponderKey) {
  EXPECT_EQ(isk("ya", "Yb"), vector["ISK_IR"].get<std::string>());
  EXPECT_EQ(isk("yb", "Ya"), vector["ISK_IR"].get<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Versions, cpace_draft, testing::Values("draft-09", "latest"),
                         [](const auto& tested) {
                           return std::string(tested.param) == "latest" ? "Latest" : "Draft09";
                         });

}  // namespace
