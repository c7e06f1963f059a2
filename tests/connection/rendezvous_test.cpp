#include "connection/rendezvous.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "connection/secure.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using ::testing::Each;

Bytes repeat(std::uint8_t byte, std::size_t count) {
  return Bytes(count, byte);
}

Bytes joined(const std::vector<Bytes>& parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

Bytes from_hex(const char* text) {
  Bytes out(std::strlen(text) / 2);
  EXPECT_EQ(lund_hex_decode(out.data(), out.size(), text), 0);
  return out;
}

lund_rv_endpoint endpoint(const char* text) {
  lund_rv_endpoint out;
  EXPECT_EQ(lund_addr_parse(&out, text, 0), 0) << text;
  return out;
}

// The wire form of each field of `sample`.
const Bytes KEY = repeat(0x11, 32), TOKEN = repeat(0x22, 16), PROOF = repeat(0x33, 16),
            PUNCH_TOKEN = repeat(0x44, 16), TARGET = repeat(0x55, 16);
const Bytes NONCE = {4, 3, 2, 1}, ALLOCATION = {8, 7, 6, 5}, LEASE = {0x0A, 0x09};
const Bytes STATUS = {7}, SIDE = {1}, TARGET_SIZE = {16};
const Bytes OBSERVED = joined({{4, 0x94, 0x26, 203, 0, 113, 9}, repeat(0, 12)});
const Bytes PEER = joined({{6, 5, 0, 0x20, 0x01, 0x0D, 0xB8}, repeat(0, 11), {1}});
const Bytes LAN = joined({{1, 4, 7, 0, 192, 168, 1, 2}, repeat(0, 12)});

lund_rv_message sample(std::uint8_t type) {
  lund_rv_message m;
  m.type = type;
  m.status = 7;
  m.side = 1;
  m.target_size = 16;
  m.lease_seconds = 0x090A;
  m.allocation = 0x05060708;
  m.nonce = 0x01020304;
  std::memset(m.key, 0x11, sizeof(m.key));
  std::memset(m.token, 0x22, sizeof(m.token));
  std::memset(m.proof, 0x33, sizeof(m.proof));
  std::memset(m.punch_token, 0x44, sizeof(m.punch_token));
  std::memset(m.target, 0x55, sizeof(m.target));
  m.observed = endpoint("203.0.113.9:9876");
  m.peer = endpoint("[2001:db8::1]:5");
  m.lan_count = 1;
  m.lan[0] = endpoint("192.168.1.2:7");
  return m;
}

Bytes encoded(const lund_rv_message& message, const std::uint8_t* net_key = nullptr) {
  Bytes out(LUND_RV_MESSAGE_MAX);
  out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
  return out;
}
int decode(const Bytes& bytes, const std::uint8_t* net_key = nullptr) {
  lund_rv_message message;
  return lund_rv_decode(bytes.data(), bytes.size(), net_key, &message);
}

struct NetKey {
  NetKey() { lund_rv_net_key(bytes, reinterpret_cast<const std::uint8_t*>("shared key"), 10); }
  std::uint8_t bytes[32];
};

struct Kind {
  std::uint8_t type;
  std::vector<Bytes> fields;
  std::size_t size_without_lan;  // with tag, or without one for the two punch messages
};
const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {LUND_RV_REGISTER, {KEY, TOKEN, PROOF, LAN}, 89},
      {LUND_RV_CHALLENGE, {TOKEN, KEY, OBSERVED}, 91},
      {LUND_RV_REGISTERED, {OBSERVED, LEASE}, 45},
      {LUND_RV_LOOKUP, {NONCE, TARGET_SIZE, TARGET, LAN}, 46},
      {LUND_RV_LOOKUP_RESULT,
       {NONCE, STATUS, KEY, PEER, LAN, OBSERVED, PUNCH_TOKEN, ALLOCATION, TOKEN},
       136},
      {LUND_RV_PUNCH_NOTIFY, {NONCE, PEER, LAN, PUNCH_TOKEN, ALLOCATION, TOKEN}, 84},
      {LUND_RV_PUNCH, {PUNCH_TOKEN, NONCE, SIDE}, 29},
      {LUND_RV_PUNCH_ACK, {PUNCH_TOKEN, NONCE, SIDE}, 29},
      {LUND_RV_BIND, {ALLOCATION, TOKEN, SIDE}, 45},
      {LUND_RV_BOUND, {ALLOCATION, STATUS, OBSERVED}, 48},
      {LUND_RV_ERROR, {NONCE, STATUS}, 29},
  };
  return all;
}
bool has_tag(const Kind& kind) {
  return kind.type != LUND_RV_PUNCH && kind.type != LUND_RV_PUNCH_ACK;
}
bool has_lan(const Kind& kind) {
  return std::find(kind.fields.begin(), kind.fields.end(), LAN) != kind.fields.end();
}

}  // namespace

TEST(Rendezvous, EveryMessageHasItsFieldsInOrder) {
  for (const Kind& kind : kinds()) {
    std::vector<Bytes> parts = kind.fields;
    parts.insert(parts.begin(), Bytes{0x50, 1, kind.type, 0, 0, 0, 0, 0});
    EXPECT_EQ(encoded(sample(kind.type)), joined(parts)) << int{kind.type};
  }
}

TEST(Rendezvous, EveryMessageHasItsSizeForEveryLanCountAndFitsTheBuffer) {
  const NetKey key;
  for (const Kind& kind : kinds()) {
    for (int lan = 0; lan <= LUND_RV_LAN_MAX; ++lan) {
      lund_rv_message message = sample(kind.type);
      message.lan_count = lan;
      const std::size_t extra = has_lan(kind) ? 19u * static_cast<std::size_t>(lan) : 0;
      EXPECT_EQ(encoded(message, has_tag(kind) ? key.bytes : nullptr).size(),
                kind.size_without_lan + extra)
          << int{kind.type};
    }
  }
}

TEST(Rendezvous, EveryMessageComesBackAsItWent) {
  const NetKey key;
  for (const Kind& kind : kinds()) {
    for (const std::uint8_t* net_key : {static_cast<const std::uint8_t*>(nullptr), key.bytes}) {
      const Bytes bytes = encoded(sample(kind.type), net_key);
      lund_rv_message back;
      ASSERT_EQ(lund_rv_decode(bytes.data(), bytes.size(), net_key, &back), LUND_OK);
      EXPECT_EQ(back.type, kind.type);
      EXPECT_EQ(encoded(back, net_key), bytes) << int{kind.type};
    }
  }
}

TEST(Rendezvous, DecodedLookupResultHoldsEveryField) {
  const Bytes bytes = encoded(sample(LUND_RV_LOOKUP_RESULT));
  lund_rv_message m;
  ASSERT_EQ(lund_rv_decode(bytes.data(), bytes.size(), nullptr, &m), LUND_OK);
  EXPECT_EQ(m.nonce, 0x01020304u);
  EXPECT_EQ(m.status, 7);
  EXPECT_THAT(m.key, Each(0x11));
  EXPECT_TRUE(lund_rv_endpoint_equal(m.peer, endpoint("[2001:db8::1]:5")));
  ASSERT_EQ(m.lan_count, 1);
  EXPECT_TRUE(lund_rv_endpoint_equal(m.lan[0], endpoint("192.168.1.2:7")));
  EXPECT_TRUE(lund_rv_endpoint_equal(m.observed, endpoint("203.0.113.9:9876")));
  EXPECT_THAT(m.punch_token, Each(0x44));
  EXPECT_EQ(m.allocation, 0x05060708u);
  EXPECT_THAT(m.token, Each(0x22));
  EXPECT_THAT(m.proof, Each(0));  // not in this message
}

TEST(Rendezvous, EveryTruncationAndEveryExtraByteIsMalformed) {
  for (const Kind& kind : kinds()) {
    Bytes bytes = encoded(sample(kind.type));
    for (std::size_t size = 0; size < bytes.size(); ++size)
      EXPECT_EQ(decode(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size))),
                LUND_ERR_MALFORMED)
          << int{kind.type} << " of " << size;
    bytes.push_back(0);
    EXPECT_EQ(decode(bytes), LUND_ERR_MALFORMED) << int{kind.type};
  }
}

TEST(Rendezvous, EncoderFillsExactRoomAndRefusesOneByteLess) {
  const NetKey key;
  for (const Kind& kind : kinds()) {
    for (const std::uint8_t* net_key : {static_cast<const std::uint8_t*>(nullptr), key.bytes}) {
      const lund_rv_message message = sample(kind.type);
      const std::size_t size = encoded(message, net_key).size();
      Bytes exact(size);
      EXPECT_EQ(lund_rv_encode(exact.data(), size, net_key, &message), size);
      for (std::size_t room = 0; room < size; ++room) {
        Bytes shorter(room);
        EXPECT_EQ(lund_rv_encode(shorter.data(), room, net_key, &message), 0u);
      }
    }
  }
}

TEST(Rendezvous, UnassignedTypesAreRefusedInBothDirections) {
  for (int type = 0; type < 256; ++type) {
    if (type >= LUND_RV_REGISTER && type <= LUND_RV_ERROR) continue;
    EXPECT_TRUE(encoded(sample(static_cast<std::uint8_t>(type))).empty()) << type;
    Bytes bytes = encoded(sample(LUND_RV_ERROR));
    bytes[2] = static_cast<std::uint8_t>(type);
    EXPECT_EQ(decode(bytes), LUND_ERR_MALFORMED) << type;
  }
}

TEST(Rendezvous, HeaderMustBePlainWithoutFlagsAndAnySession) {
  for (const std::size_t place : {0, 1, 3}) {
    Bytes bytes = encoded(sample(LUND_RV_ERROR));
    bytes[place] ^= 3;
    EXPECT_EQ(decode(bytes), LUND_ERR_MALFORMED) << place;
  }
  Bytes bytes = encoded(sample(LUND_RV_ERROR));
  std::fill(bytes.begin() + 4, bytes.begin() + 8, 0xEE);
  EXPECT_EQ(decode(bytes), LUND_OK);
}

TEST(Rendezvous, TargetSizeIsFiveToSixteen) {
  for (const std::uint8_t size : Bytes{0, 4, 5, 16, 17, 255}) {
    lund_rv_message message = sample(LUND_RV_LOOKUP);
    message.target_size = size;
    EXPECT_EQ(decode(encoded(message)), size >= 5 && size <= 16 ? LUND_OK : LUND_ERR_MALFORMED)
        << int{size};
  }
}

TEST(Rendezvous, FlippedByteBeforeTheTagIsABadTag) {
  const NetKey key;
  const Bytes good = encoded(sample(LUND_RV_LOOKUP_RESULT), key.bytes);
  ASSERT_EQ(decode(good, key.bytes), LUND_OK);
  for (std::size_t i = 4; i < good.size(); ++i) {
    Bytes bad = good;
    bad[i] ^= 0x10;
    EXPECT_EQ(decode(bad, key.bytes), LUND_ERR_AUTH) << i;
  }
}

TEST(Rendezvous, FlippedHeaderByteNeverPasses) {
  const NetKey key;
  const Bytes good = encoded(sample(LUND_RV_ERROR), key.bytes);
  for (std::size_t i = 0; i < 4; ++i) {
    Bytes bad = good;
    bad[i] ^= 1;
    EXPECT_LT(decode(bad, key.bytes), 0) << i;
  }
  Bytes other_type = good;
  other_type[2] = LUND_RV_BOUND;
  EXPECT_EQ(decode(other_type, key.bytes), LUND_ERR_AUTH);
}

TEST(Rendezvous, AnotherNetKeyIsABadTag) {
  const NetKey key;
  std::uint8_t other[32];
  lund_rv_net_key(other, reinterpret_cast<const std::uint8_t*>("shared kez"), 10);
  EXPECT_EQ(decode(encoded(sample(LUND_RV_ERROR), key.bytes), other), LUND_ERR_AUTH);
}

TEST(Rendezvous, TagAndNetKeyComeTogetherOrNotAtAll) {
  const NetKey key;
  for (const Kind& kind : kinds()) {
    EXPECT_EQ(decode(encoded(sample(kind.type), key.bytes)), LUND_ERR_MALFORMED);
    EXPECT_LT(decode(encoded(sample(kind.type)), key.bytes), 0);
  }
}

TEST(Rendezvous, PunchOf29BytesFailsWithANetKey) {
  const NetKey key;
  const Bytes bytes = encoded(sample(LUND_RV_PUNCH));
  ASSERT_EQ(bytes.size(), 29u);
  EXPECT_EQ(decode(bytes), LUND_OK);
  EXPECT_EQ(decode(bytes, key.bytes), LUND_ERR_AUTH);
}

TEST(Rendezvous, TooShortForATagIsMalformed) {
  const NetKey key;
  EXPECT_EQ(decode(Bytes{0x50, 1, 106, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5}, key.bytes),
            LUND_ERR_MALFORMED);
}

TEST(Rendezvous, Ipv4TailGarbageComesBackAsZeros) {
  lund_rv_message message = sample(LUND_RV_BOUND);
  message.observed.address.back() = 9;
  Bytes bytes = encoded(message);
  EXPECT_EQ(bytes, encoded(sample(LUND_RV_BOUND)));  // not written either
  std::fill(bytes.end() - 12, bytes.end(), 0xEE);
  lund_rv_message back;
  ASSERT_EQ(lund_rv_decode(bytes.data(), bytes.size(), nullptr, &back), LUND_OK);
  EXPECT_THAT(std::vector<int>(back.observed.address.begin() + 4, back.observed.address.end()),
              Each(0));
  EXPECT_EQ(back.observed.address[3], 9);
}

TEST(Rendezvous, OtherFamiliesAreWrittenAsZerosAndRefusedOnReading) {
  for (const std::uint8_t family : Bytes{0, 1, 5, 7, 255}) {
    lund_rv_message message = sample(LUND_RV_BOUND);
    message.observed.family = family;
    Bytes bytes = encoded(message);
    EXPECT_THAT(Bytes(bytes.end() - 19, bytes.end()), Each(0)) << int{family};
    EXPECT_EQ(decode(bytes), LUND_OK);
    bytes[bytes.size() - 19] = family;
    EXPECT_EQ(decode(bytes), family == 0 ? LUND_OK : LUND_ERR_MALFORMED) << int{family};
  }
}

TEST(Rendezvous, LanCountOfFiveIsRefusedInBothDirections) {
  lund_rv_message message = sample(LUND_RV_LOOKUP);
  message.lan_count = 5;
  EXPECT_TRUE(encoded(message).empty());
  message.lan_count = -1;
  EXPECT_TRUE(encoded(message).empty());
  message.lan_count = 4;
  Bytes bytes = encoded(message);
  ASSERT_EQ(decode(bytes), LUND_OK);
  bytes[8 + 4 + 1 + 16] = 5;
  bytes.resize(bytes.size() + 19);
  EXPECT_EQ(decode(bytes), LUND_ERR_MALFORMED);
}

TEST(Rendezvous, FailedDecodeZeroesTheRecord) {
  const NetKey key;
  Bytes bytes = encoded(sample(LUND_RV_LOOKUP_RESULT), key.bytes);
  bytes.back() ^= 1;
  for (const std::uint8_t* net_key : {static_cast<const std::uint8_t*>(nullptr), key.bytes}) {
    lund_rv_message message = sample(LUND_RV_LOOKUP_RESULT);
    ASSERT_LT(lund_rv_decode(bytes.data(), bytes.size(), net_key, &message), 0);
    EXPECT_EQ(message.type, 0);
    EXPECT_EQ(message.nonce, 0u);
    EXPECT_THAT(message.key, Each(0));
    EXPECT_EQ(message.lan_count, 0);
    EXPECT_EQ(message.lan[0].family, 0);
  }
}

TEST(Rendezvous, NullPointersAreRefused) {
  Bytes out(256);
  lund_rv_message message = sample(LUND_RV_ERROR);
  EXPECT_EQ(lund_rv_encode(nullptr, 256, nullptr, &message), 0u);
  EXPECT_EQ(lund_rv_encode(out.data(), 256, nullptr, nullptr), 0u);
  EXPECT_EQ(lund_rv_decode(nullptr, 256, nullptr, &message), LUND_ERR_MALFORMED);
}

// The expected values of these were computed by an independent BLAKE2b and X25519.
TEST(Rendezvous, NetKeyKnownAnswer) {
  const NetKey key;
  EXPECT_EQ(Bytes(key.bytes, key.bytes + 32),
            from_hex("2a9d278b8655dfe751609f065a7caf7aa62536e605b70c62c4708086b3c867f4"));
}

TEST(Rendezvous, TagKnownAnswer) {
  const NetKey key;
  lund_rv_message message;
  message.type = LUND_RV_ERROR;
  message.nonce = 0x01020304;
  message.status = 2;
  EXPECT_EQ(encoded(message, key.bytes), joined({{0x50, 1, 106, 0, 0, 0, 0, 0, 4, 3, 2, 1, 2},
                                                 from_hex("68a4f3be1cf2dcb96561c75eb49dbdc5")}));
}

namespace {

// The parties of a registration, with two LAN endpoints.
class RegisterProof : public ::testing::Test {
 protected:
  RegisterProof() {
    std::uint8_t secret[32];
    std::iota(std::begin(secret), std::end(secret), std::uint8_t{0});
    lund_keypair_from_secret(&own, secret);
    std::iota(std::begin(secret), std::end(secret), std::uint8_t{64});
    lund_keypair_from_secret(&server, secret);
    std::iota(std::begin(challenge), std::end(challenge), std::uint8_t{0xC0});
  }
  Bytes proof(int lan_count = 2) {
    Bytes out(16);
    EXPECT_EQ(lund_rv_register_proof(out.data(), own.secret, server.public_key, challenge,
                                     own.public_key, lan, lan_count),
              LUND_OK);
    return out;
  }

  lund_keypair own, server;
  std::uint8_t challenge[16];
  lund_rv_endpoint lan[5] = {endpoint("192.168.1.2:9876"), endpoint("[fe80::1]:5")};
};

}  // namespace

TEST_F(RegisterProof, KnownAnswer) {
  EXPECT_EQ(proof(), from_hex("87c7a156e06a19b00f60ec36f17d2d7a"));
}

TEST_F(RegisterProof, ServerComputesTheSameWithItsOwnSecret) {
  Bytes out(16);
  ASSERT_EQ(lund_rv_register_proof(out.data(), server.secret, own.public_key, challenge,
                                   own.public_key, lan, 2),
            LUND_OK);
  EXPECT_EQ(out, proof());
}

TEST_F(RegisterProof, ChangesWithALanEndpointTheirOrderAndTheirCount) {
  const Bytes before = proof();
  std::swap(lan[0], lan[1]);
  EXPECT_NE(proof(), before);
  std::swap(lan[0], lan[1]);
  lan[0].port = 9877;
  EXPECT_NE(proof(), before);
  lan[0].port = 9876;
  lan[1].address[15] = 2;
  EXPECT_NE(proof(), before);
  lan[1].address[15] = 1;
  EXPECT_NE(proof(1), before);
  EXPECT_EQ(proof(), before);
}

TEST_F(RegisterProof, ChangesWithChallengeAndKeys) {
  const Bytes before = proof();
  challenge[15] ^= 1;
  EXPECT_NE(proof(), before);
  challenge[15] ^= 1;
  own.public_key[0] ^= 1;
  EXPECT_NE(proof(), before);
  own.public_key[0] ^= 1;
  std::swap(own.secret, server.secret);
  EXPECT_NE(proof(), before);
}

TEST_F(RegisterProof, LanCountIsClampedToZeroAndFour) {
  EXPECT_EQ(proof(-3), proof(0));
  EXPECT_EQ(proof(5), proof(4));
}

TEST_F(RegisterProof, LowOrderServerKeyIsReportedAndTheProofIsOfTheZeroSecret) {
  const std::uint8_t low_order[32] = {};
  Bytes out(16);
  EXPECT_EQ(lund_rv_register_proof(out.data(), own.secret, low_order, challenge, own.public_key,
                                   nullptr, 0),
            LUND_ERR_WEAK_KEY);
  EXPECT_EQ(out, from_hex("3edc52dd3760c123efa163dd504ec4d3"));
}
