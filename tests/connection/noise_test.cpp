#include "connection/noise.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/session_pair.h"
#include "tests/support/vectors.h"
#include "tests/support/wiped.h"

namespace {

using vectors::bytes;
using vectors::to_hex;

constexpr std::uint64_t TIMESTAMP = 1'700'000'000'123'456;
constexpr std::uint32_t SESSION_ID = 0xC0FFEE01;
constexpr std::uint8_t ZERO_POINT[LUND_KEY_SIZE] = {};

lund_keypair new_keypair() {
  lund_keypair keypair;
  EXPECT_EQ(lund_keypair_generate(&keypair), LUND_OK);
  return keypair;
}

// A client and a host, and the two datagrams between them.
struct Handshake : testing::Test {
  lund_keypair client_keys = new_keypair();
  lund_keypair host_keys = new_keypair();
  lund_noise_ik client, host;
  lund_session client_session, host_session;
  std::uint8_t client_public[LUND_KEY_SIZE] = {};
  std::uint64_t timestamp = 0;

  bytes start(lund_noise_ik& state, const std::uint8_t* host_public, int expected = LUND_OK) {
    bytes datagram(LUND_HS_INIT_SIZE);
    std::size_t size = 1;
    EXPECT_EQ(lund_hs_client_start(&state, &client_keys, host_public, TIMESTAMP, datagram.data(),
                                   datagram.size(), &size),
              expected);
    datagram.resize(size);
    return datagram;
  }
  bytes start() { return start(client, host_keys.public_key); }

  int read(const bytes& datagram) {
    return lund_hs_host_read(&host, &host_keys, datagram.data(), datagram.size(), client_public,
                             &timestamp);
  }

  bytes respond(std::uint32_t session_id = SESSION_ID) {
    bytes datagram(LUND_HS_RESP_SIZE);
    std::size_t size = 0;
    EXPECT_EQ(lund_hs_host_respond(&host, session_id, datagram.data(), datagram.size(), &size,
                                   &host_session),
              LUND_OK);
    EXPECT_EQ(size, datagram.size());
    return datagram;
  }
  bytes answer_to(const bytes& init) {
    EXPECT_EQ(read(init), LUND_OK);
    return respond();
  }

  int finish(lund_noise_ik& state, const bytes& datagram) {
    return lund_hs_client_finish(&state, datagram.data(), datagram.size(), &client_session);
  }
  int finish(const bytes& datagram) { return finish(client, datagram); }
};

// --- the handshake in datagrams -----------------------------------------------------------------

TEST_F(Handshake, BothSidesEndWithTheSameHashAndCrossedKeys) {
  ASSERT_EQ(finish(answer_to(start())), LUND_OK);
  EXPECT_EQ(to_hex(client_session.handshake_hash), to_hex(host_session.handshake_hash));
  EXPECT_EQ(to_hex(client_session.send_key), to_hex(host_session.recv_key));
  EXPECT_EQ(to_hex(client_session.recv_key), to_hex(host_session.send_key));
  EXPECT_NE(to_hex(client_session.send_key), to_hex(client_session.recv_key));
}

TEST_F(Handshake, EachSideKnowsTheOtherAndItsRole) {
  ASSERT_EQ(finish(answer_to(start())), LUND_OK);
  EXPECT_EQ(to_hex(client_session.peer_key), to_hex(host_keys.public_key));
  EXPECT_EQ(to_hex(host_session.peer_key), to_hex(client_keys.public_key));
  EXPECT_EQ(to_hex(client_public), to_hex(client_keys.public_key));
  EXPECT_EQ(client_session.initiator, 1);
  EXPECT_EQ(host_session.initiator, 0);
  EXPECT_EQ(timestamp, TIMESTAMP);
}

TEST_F(Handshake, TheSessionCarriesRecordsBothWaysFromCounterZero) {
  ASSERT_EQ(finish(answer_to(start())), LUND_OK);
  EXPECT_EQ(client_session.send_counter, 0u);
  EXPECT_EQ(host_session.recv_next, 0u);
  EXPECT_EQ(open(host_session, seal(client_session, plain_packet(41))).result, LUND_OK);
  EXPECT_EQ(open(client_session, seal(host_session, plain_packet(22))).result, LUND_OK);
}

TEST_F(Handshake, TheDatagramsHaveTheirHeadersAndSizes) {
  const bytes init = start();
  EXPECT_EQ(init.size(), 112u);
  EXPECT_EQ(to_hex(std::span(init).first(8)), "5001580000000000");
  const bytes resp = answer_to(init);
  EXPECT_EQ(resp.size(), 60u);
  EXPECT_EQ(to_hex(std::span(resp).first(8)), "5001590001eeffc0");
}

TEST_F(Handshake, TheGivenSessionIdIsUsedAndZeroDrawsOne) {
  ASSERT_EQ(finish(answer_to(start())), LUND_OK);
  EXPECT_EQ(client_session.session_id, SESSION_ID);
  EXPECT_EQ(host_session.session_id, SESSION_ID);
  ASSERT_EQ(read(start()), LUND_OK);
  ASSERT_EQ(finish(respond(0)), LUND_OK);
  EXPECT_NE(client_session.session_id, 0u);
  EXPECT_EQ(client_session.session_id, host_session.session_id);
}

TEST_F(Handshake, NeitherIdentityNorTimestampIsOnTheWireInClear) {
  const bytes init = start();
  EXPECT_FALSE(contains(init, client_keys.public_key));
  EXPECT_FALSE(contains(init, host_keys.public_key));
  EXPECT_FALSE(contains(init, bytes_in(TIMESTAMP)));
}

TEST_F(Handshake, EachStartUsesAFreshEphemeralKey) {
  lund_noise_ik other;
  const bytes first = start(), second = start(other, host_keys.public_key);
  EXPECT_NE(to_hex(std::span(first).subspan(8, 32)), to_hex(std::span(second).subspan(8, 32)));
}

TEST_F(Handshake, TheStatesAreWipedOnceTheSessionsStand) {
  ASSERT_EQ(finish(answer_to(start())), LUND_OK);
  EXPECT_TRUE(is_wiped(client));
  EXPECT_TRUE(is_wiped(host));
}

TEST_F(Handshake, AnUsedStateTakesNoSecondAnswer) {
  const bytes resp = answer_to(start());
  ASSERT_EQ(finish(resp), LUND_OK);
  EXPECT_EQ(finish(resp), LUND_ERR_STATE);
}

// --- bad first messages -------------------------------------------------------------------------

TEST_F(Handshake, AnInitOfAnotherLengthIsMalformed) {
  bytes init = start();
  init.push_back(0);
  EXPECT_EQ(read(init), LUND_ERR_MALFORMED);
  init.resize(111);
  EXPECT_EQ(read(init), LUND_ERR_MALFORMED);
  EXPECT_EQ(read({}), LUND_ERR_MALFORMED);
}

TEST_F(Handshake, AnInitWithAnyOtherHeaderIsMalformed) {
  const bytes init = start();
  for (std::size_t at = 0; at < 8; ++at) {
    bytes forged = init;
    forged[at] ^= 1;
    EXPECT_EQ(read(forged), LUND_ERR_MALFORMED) << "byte " << at;
  }
}

TEST_F(Handshake, EveryFlippedByteOfTheFirstMessageIsRefused) {
  const bytes init = start();
  for (std::size_t at = 8; at < init.size(); ++at) {
    bytes forged = init;
    forged[at] ^= 1;
    EXPECT_EQ(read(forged), LUND_ERR_AUTH) << "byte " << at;
  }
  EXPECT_EQ(read(init), LUND_OK);
}

TEST_F(Handshake, ADeadStateHoldsNoSecretAndAnswersNothing) {
  bytes init = start();
  init.back() ^= 1;
  ASSERT_EQ(read(init), LUND_ERR_AUTH);
  EXPECT_FALSE(contains(bytes_in(host), host_keys.secret));
  std::uint8_t out[LUND_HS_RESP_SIZE];
  std::size_t size = 1;
  EXPECT_EQ(lund_hs_host_respond(&host, SESSION_ID, out, sizeof out, &size, &host_session),
            LUND_ERR_STATE);
  EXPECT_EQ(size, 0u);
}

TEST_F(Handshake, AnInitForAnotherHostIsNotReadable) {
  const lund_keypair other_host = new_keypair();
  EXPECT_EQ(read(start(client, other_host.public_key)), LUND_ERR_AUTH);
}

TEST_F(Handshake, AClientWithoutTheSecretOfItsPublicKeyIsRefused) {
  const lund_keypair victim = new_keypair();
  std::copy(std::begin(victim.public_key), std::end(victim.public_key), client_keys.public_key);
  EXPECT_EQ(read(start()), LUND_ERR_AUTH);
}

// --- bad answers --------------------------------------------------------------------------------

TEST_F(Handshake, AnotherSessionIdInTheHeaderIsRefusedAndTheTrueReplyStillTaken) {
  const bytes resp = answer_to(start());
  for (const int flip : {0x01, 0x80}) {
    bytes forged = resp;
    forged[4] = static_cast<std::uint8_t>(forged[4] ^ flip);
    EXPECT_EQ(finish(forged), LUND_ERR_AUTH);
  }
  EXPECT_EQ(finish(resp), LUND_OK);
}

TEST_F(Handshake, EveryForgedReplyLeavesTheStateAbleToTakeTheTrueOne) {
  const bytes resp = answer_to(start());
  const std::string before = to_hex(bytes_in(client));
  for (std::size_t at = 0; at < resp.size(); ++at) {
    bytes forged = resp;
    forged[at] ^= 1;
    EXPECT_EQ(finish(forged), at < 4 ? LUND_ERR_MALFORMED : LUND_ERR_AUTH) << "byte " << at;
  }
  EXPECT_EQ(to_hex(bytes_in(client)), before);
  EXPECT_EQ(finish(resp), LUND_OK);
}

TEST_F(Handshake, AReplyOfAnotherLengthIsMalformed) {
  bytes resp = answer_to(start());
  resp.push_back(0);
  EXPECT_EQ(finish(resp), LUND_ERR_MALFORMED);
  resp.resize(59);
  EXPECT_EQ(finish(resp), LUND_ERR_MALFORMED);
}

TEST_F(Handshake, AReplyFitsOneOfSeveralOutstandingStatesAndCostsTheOthersNothing) {
  lund_noise_ik second;
  const bytes first_init = start();
  const bytes second_init = start(second, host_keys.public_key);
  const bytes to_second = answer_to(second_init);
  EXPECT_EQ(finish(client, to_second), LUND_ERR_AUTH);
  EXPECT_EQ(finish(second, to_second), LUND_OK);
  EXPECT_EQ(finish(client, answer_to(first_init)), LUND_OK);
}

TEST_F(Handshake, AHostThatHasNotTheExpectedKeyCannotAnswer) {
  const bytes init = start();
  ASSERT_EQ(read(init), LUND_OK);
  host.s = new_keypair();
  host.e = new_keypair();
  std::fill(std::begin(host.ck), std::end(host.ck), std::uint8_t{0});
  EXPECT_EQ(finish(respond()), LUND_ERR_AUTH);
}

// A host that seals 0 under a good tag, with 0 in the header too.
TEST_F(Handshake, ASealedSessionIdOfZeroIsRefused) {
  ASSERT_EQ(read(start()), LUND_OK);
  bytes resp = {0x50, 1, 0x59, 0, 0, 0, 0, 0};
  resp.resize(LUND_HS_RESP_SIZE);
  const std::uint8_t zero_id[4] = {};
  std::size_t size = 0;
  ASSERT_EQ(lund_noise_ik_write2(&host, nullptr, zero_id, 4, resp.data() + 8, 52, &size), LUND_OK);
  EXPECT_EQ(finish(resp), LUND_ERR_AUTH);
}

// --- weak keys ----------------------------------------------------------------------------------

TEST_F(Handshake, ALowOrderHostKeyIsWeakAndLeavesNothingToSend) {
  EXPECT_TRUE(start(client, ZERO_POINT, LUND_ERR_WEAK_KEY).empty());
  EXPECT_EQ(client.stage, 4);
  EXPECT_FALSE(contains(bytes_in(client), client_keys.secret));
}

TEST_F(Handshake, ALowOrderEphemeralKeyIsWeakToTheHost) {
  bytes init = start();
  std::fill_n(init.begin() + 8, LUND_KEY_SIZE, std::uint8_t{0});
  EXPECT_EQ(read(init), LUND_ERR_WEAK_KEY);
}

TEST_F(Handshake, ALowOrderStaticKeyIsWeakToTheHost) {
  std::fill(std::begin(client_keys.public_key), std::end(client_keys.public_key), std::uint8_t{0});
  EXPECT_EQ(read(start()), LUND_ERR_WEAK_KEY);
}

TEST_F(Handshake, ALowOrderReplyIsWeakAndTheTrueOneStillTaken) {
  const bytes resp = answer_to(start());
  bytes forged = resp;
  std::fill_n(forged.begin() + 8, LUND_KEY_SIZE, std::uint8_t{0});
  EXPECT_EQ(finish(forged), LUND_ERR_WEAK_KEY);
  EXPECT_EQ(finish(resp), LUND_OK);
}

// --- buffers ------------------------------------------------------------------------------------

TEST_F(Handshake, ShortBuffersAreReported) {
  std::uint8_t out[LUND_HS_INIT_SIZE];
  std::size_t size = 1;
  EXPECT_EQ(
      lund_hs_client_start(&client, &client_keys, host_keys.public_key, TIMESTAMP, out, 111, &size),
      LUND_ERR_BUFFER);
  EXPECT_EQ(size, 0u);
  const bytes init = start();
  ASSERT_EQ(read(init), LUND_OK);
  EXPECT_EQ(lund_hs_host_respond(&host, SESSION_ID, out, 59, &size, &host_session),
            LUND_ERR_BUFFER);
  EXPECT_EQ(finish(respond()), LUND_OK);
}

// --- rejections ---------------------------------------------------------------------------------

TEST(Reject, CarriesItsReason) {
  std::uint8_t out[LUND_HS_REJECT_SIZE];
  ASSERT_EQ(lund_hs_encode_reject(out, sizeof out, LUND_REJECT_BUSY), 9u);
  EXPECT_EQ(to_hex(out), "50015a000000000002");
  std::uint8_t reason = 0;
  EXPECT_EQ(lund_hs_decode_reject(out, sizeof out, &reason), 0);
  EXPECT_EQ(reason, LUND_REJECT_BUSY);
}

TEST(Reject, IsTakenOnlyAsItIsWritten) {
  std::uint8_t out[LUND_HS_REJECT_SIZE + 1] = {};
  std::uint8_t reason = 0;
  EXPECT_EQ(lund_hs_encode_reject(out, 8, LUND_REJECT_BUSY), 0u);
  ASSERT_EQ(lund_hs_encode_reject(out, 9, LUND_REJECT_UNKNOWN_DEVICE), 9u);
  EXPECT_EQ(lund_hs_decode_reject(out, 8, &reason), -1);
  EXPECT_EQ(lund_hs_decode_reject(out, 10, &reason), -1);
  for (std::size_t at = 0; at < 8; ++at) {
    out[at] ^= 1;
    EXPECT_EQ(lund_hs_decode_reject(out, 9, &reason), -1) << "byte " << at;
    out[at] ^= 1;
  }
}

// --- the message functions themselves -----------------------------------------------------------

struct NoiseMessages : testing::Test {
  lund_keypair client_keys = new_keypair();
  lund_keypair host_keys = new_keypair();
  lund_noise_ik client, host;
  std::uint8_t message[256] = {};
  std::size_t size = 0;
  std::uint8_t payload[64] = {};
  std::size_t payload_size = 0;

  void SetUp() override {
    lund_noise_ik_init(&client, true, nullptr, 0, &client_keys, host_keys.public_key);
    lund_noise_ik_init(&host, false, nullptr, 0, &host_keys, nullptr);
  }
  int write1(std::size_t capacity = 256) {
    return lund_noise_ik_write1(&client, nullptr, payload, 10, message, capacity, &size);
  }
  int read1(std::size_t capacity = 64) {
    return lund_noise_ik_read1(&host, message, size, payload, capacity, &payload_size);
  }
  int write2(std::size_t capacity = 256) {
    return lund_noise_ik_write2(&host, nullptr, payload, 10, message, capacity, &size);
  }
  int read2(std::size_t capacity = 64) {
    return lund_noise_ik_read2(&client, message, size, payload, capacity, &payload_size);
  }
};

TEST_F(NoiseMessages, AFirstMessageIsWrittenOnce) {
  EXPECT_EQ(write1(), LUND_OK);
  EXPECT_EQ(write1(), LUND_ERR_STATE);
}

TEST_F(NoiseMessages, OutOfTurnIsAStateError) {
  size = 106;
  EXPECT_EQ(write2(), LUND_ERR_STATE);
  EXPECT_EQ(read2(), LUND_ERR_STATE);
  ASSERT_EQ(write1(), LUND_OK);
  ASSERT_EQ(read1(), LUND_OK);
  EXPECT_EQ(read1(), LUND_ERR_STATE);
  ASSERT_EQ(write2(), LUND_OK);
  ASSERT_EQ(read2(), LUND_OK);
  EXPECT_EQ(write2(), LUND_ERR_STATE);
  EXPECT_EQ(read2(), LUND_ERR_STATE);
}

TEST_F(NoiseMessages, TheOtherRolesFunctionsAreStateErrors) {
  std::swap(client, host);
  size = 106;
  EXPECT_EQ(write1(), LUND_ERR_STATE);
  EXPECT_EQ(read1(), LUND_ERR_STATE);
}

TEST_F(NoiseMessages, SizesAreExact) {
  EXPECT_EQ(write1(105), LUND_ERR_BUFFER);
  ASSERT_EQ(write1(106), LUND_OK);
  EXPECT_EQ(size, 106u);
  EXPECT_EQ(read1(9), LUND_ERR_BUFFER);
  ASSERT_EQ(read1(10), LUND_OK);
  EXPECT_EQ(payload_size, 10u);
  EXPECT_EQ(write2(57), LUND_ERR_BUFFER);
  ASSERT_EQ(write2(58), LUND_OK);
  EXPECT_EQ(size, 58u);
  EXPECT_EQ(read2(9), LUND_ERR_BUFFER);
  EXPECT_EQ(read2(10), LUND_OK);
}

TEST_F(NoiseMessages, AMessageWithoutRoomForItsKeysIsMalformed) {
  size = 95;
  EXPECT_EQ(read1(), LUND_ERR_MALFORMED);
  ASSERT_EQ(write1(), LUND_OK);
  size = 47;
  EXPECT_EQ(read2(), LUND_ERR_MALFORMED);
}

TEST_F(NoiseMessages, AFailedReadKillsTheResponder) {
  ASSERT_EQ(write1(), LUND_OK);
  message[size - 1] ^= 1;
  EXPECT_EQ(read1(), LUND_ERR_AUTH);
  EXPECT_EQ(host.stage, 4);
  message[size - 1] ^= 1;
  EXPECT_EQ(read1(), LUND_ERR_STATE);
}

TEST_F(NoiseMessages, AnotherPrologueIsNotUnderstood) {
  const std::uint8_t prologue[] = {1};
  lund_noise_ik_init(&host, false, prologue, 1, &host_keys, nullptr);
  ASSERT_EQ(write1(), LUND_OK);
  EXPECT_EQ(read1(), LUND_ERR_AUTH);
}

TEST_F(NoiseMessages, APayloadMayBeEmpty) {
  ASSERT_EQ(lund_noise_ik_write1(&client, nullptr, nullptr, 0, message, 96, &size), LUND_OK);
  EXPECT_EQ(size, 96u);
  EXPECT_EQ(read1(0), LUND_OK);
  EXPECT_EQ(payload_size, 0u);
}

}  // namespace
