#include "connection/cpace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "connection/protocol.h"
#include "tests/support/vectors.h"
#include "tests/support/wiped.h"

namespace {

using vectors::bytes;
using vectors::to_hex;

constexpr std::size_t SID_AT = 8;
constexpr std::size_t POINT_AT = 24;

lund_keypair new_keypair() {
  lund_keypair keypair;
  EXPECT_EQ(lund_keypair_generate(&keypair), LUND_OK);
  return keypair;
}

struct reply {
  int result;
  bytes datagram;
};

// A client and a host that pair by what start() and begin_host() give them.
struct Pairing : testing::Test {
  lund_keypair client_keys = new_keypair();
  lund_keypair host_keys = new_keypair();
  lund_pair client, host;

  bytes start(const std::string& secret = "123456", const std::string& name = "Laptop") {
    bytes out(LUND_PAIR_MESSAGE_MAX);
    std::size_t size = 0;
    EXPECT_EQ(lund_pair_client_start(&client, &client_keys, name.c_str(), secret.c_str(),
                                     out.data(), out.size(), &size),
              LUND_OK);
    out.resize(size);
    return out;
  }
  void begin_host(const std::string& secret = "123456", int max_attempts = 5,
                  const std::string& name = "Tower") {
    lund_pair_host_init(&host, &host_keys, name.c_str(), secret.c_str(), max_attempts);
  }
  reply give(lund_pair& pair, const bytes& datagram, std::size_t capacity = LUND_PAIR_MESSAGE_MAX) {
    reply answer{0, bytes(capacity)};
    std::size_t size = 1;
    answer.result = lund_pair_handle(&pair, datagram.data(), datagram.size(),
                                     answer.datagram.data(), capacity, &size);
    answer.datagram.resize(size);
    return answer;
  }
  bytes answer_of(lund_pair& pair, const bytes& datagram) {
    const reply answer = give(pair, datagram);
    EXPECT_EQ(answer.result, 0);
    EXPECT_FALSE(answer.datagram.empty());
    return answer.datagram;
  }
  // A datagram of `pair`'s exchange whose one clear byte run is sealed as the other side would.
  bytes forge(lund_packet_type type, const bytes& head, const std::uint8_t* key,
              std::uint64_t nonce, const bytes& clear) {
    bytes out = head;
    out[2] = type;
    out.resize(head.size() + clear.size() + LUND_MAC_SIZE);
    lund_aead_encrypt(key, nonce, out.data(), head.size(), clear.data(), clear.size(),
                      out.data() + head.size(), out.data() + head.size() + clear.size());
    return out;
  }
};

bytes with_new_sid(bytes datagram) {
  EXPECT_EQ(lund_random_bytes(&datagram[SID_AT], LUND_PAIR_SID_SIZE), LUND_OK);
  return datagram;
}

// --- the exchange -------------------------------------------------------------------------------

TEST_F(Pairing, TheSameSecretGivesEachSideTheOthersKeyAndName) {
  begin_host();
  const bytes resp = answer_of(host, start());
  const bytes confirm = answer_of(client, resp);
  const reply ok = give(host, confirm);
  EXPECT_EQ(ok.result, 1);
  EXPECT_EQ(give(client, ok.datagram).result, 1);
  EXPECT_EQ(client.state, LUND_PAIR_DONE);
  EXPECT_EQ(host.state, LUND_PAIR_DONE);
  EXPECT_EQ(to_hex(client.peer_key), to_hex(host_keys.public_key));
  EXPECT_EQ(to_hex(host.peer_key), to_hex(client_keys.public_key));
  EXPECT_STREQ(client.peer_name, "Tower");
  EXPECT_STREQ(host.peer_name, "Laptop");
}

TEST_F(Pairing, TheMessagesHaveTheirSizes) {
  begin_host();
  const bytes init = start();
  const bytes resp = answer_of(host, init);
  const bytes confirm = answer_of(client, resp);
  EXPECT_EQ(init.size(), 56u);
  EXPECT_EQ(resp.size(), 105u + 5);
  EXPECT_EQ(confirm.size(), 73u + 6);
  EXPECT_EQ(give(host, confirm).datagram.size(), 41u);
}

TEST_F(Pairing, DifferentSecretsFailAtTheClientWhileTheHostWaits) {
  begin_host("123456");
  const bytes resp = answer_of(host, start("123457"));
  const reply failed = give(client, resp);
  EXPECT_EQ(failed.result, LUND_ERR_AUTH);
  EXPECT_TRUE(failed.datagram.empty());
  EXPECT_EQ(client.state, LUND_PAIR_FAILED);
  EXPECT_EQ(host.state, LUND_PAIR_RESP_SENT);
}

TEST_F(Pairing, NoIdentityIsOnTheWireInClear) {
  begin_host();
  const bytes resp = answer_of(host, start());
  const bytes confirm = answer_of(client, resp);
  const bytes host_name = {'T', 'o', 'w', 'e', 'r'}, client_name = {'L', 'a', 'p', 't', 'o', 'p'};
  EXPECT_FALSE(contains(resp, host_keys.public_key) || contains(resp, host_name));
  EXPECT_FALSE(contains(confirm, client_keys.public_key) || contains(confirm, client_name));
}

TEST_F(Pairing, AWrongConfirmationIsAnsweredWithReason1AndEndsTheExchange) {
  begin_host();
  const bytes resp = answer_of(host, start());
  bytes confirm = answer_of(client, resp);
  confirm.back() ^= 1;
  const reply failed = give(host, confirm);
  EXPECT_EQ(failed.result, LUND_ERR_AUTH);
  ASSERT_EQ(failed.datagram.size(), 25u);
  EXPECT_EQ(failed.datagram[24], LUND_PAIR_FAIL_SECRET);
  EXPECT_EQ(host.state, LUND_PAIR_IDLE);
  EXPECT_EQ(give(client, failed.datagram).result, LUND_ERR_AUTH);
  EXPECT_EQ(client.state, LUND_PAIR_FAILED);
}

TEST_F(Pairing, AnyFlippedByteOfAnIdentityIsRefused) {
  begin_host();
  const bytes init = start();
  const bytes resp = answer_of(host, init);
  const lund_pair fresh = client;
  for (std::size_t at = SID_AT; at < resp.size(); ++at) {
    bytes forged = resp;
    forged[at] ^= 1;
    client = fresh;
    EXPECT_LT(give(client, forged).result, 0) << "byte " << at;
    EXPECT_NE(client.state, LUND_PAIR_CONFIRM_SENT) << "byte " << at;
  }
}

TEST_F(Pairing, ASuccessLeavesTheAttemptsToTheCaller) {
  begin_host();
  give(host, answer_of(client, answer_of(host, start())));
  EXPECT_EQ(host.state, LUND_PAIR_DONE);
  EXPECT_EQ(host.attempts, 1);
}

TEST_F(Pairing, ANewExchangeMayFollowADoneOne) {
  begin_host();
  give(host, answer_of(client, answer_of(host, start())));
  ASSERT_EQ(host.state, LUND_PAIR_DONE);
  EXPECT_EQ(give(host, answer_of(client, answer_of(host, start()))).result, 1);
  EXPECT_EQ(host.attempts, 2);
}

// --- secrets and names --------------------------------------------------------------------------

TEST_F(Pairing, ALongSecretIsCutTo64BytesOnBothSides) {
  const std::string longest(200, 's');
  begin_host(longest);
  EXPECT_EQ(give(host, answer_of(client, answer_of(host, start(longest)))).result, 1);
  begin_host(longest.substr(0, 64));
  EXPECT_EQ(give(host, answer_of(client, answer_of(host, start(longest)))).result, 1);
  begin_host(longest.substr(0, 63));
  EXPECT_EQ(give(client, answer_of(host, start(longest))).result, LUND_ERR_AUTH);
}

TEST_F(Pairing, NamesAreCutTo63BytesAndMayBeEmpty) {
  begin_host("123456", 5, std::string(100, 'n'));
  give(host, answer_of(client, answer_of(host, start("123456", ""))));
  EXPECT_EQ(host.state, LUND_PAIR_DONE);
  EXPECT_EQ(std::string(client.peer_name), std::string(63, 'n'));
  EXPECT_STREQ(host.peer_name, "");
}

// --- attempts -----------------------------------------------------------------------------------

TEST_F(Pairing, ARepeatedInitGetsTheSameAnswerAndCostsNoAttempt) {
  begin_host();
  const bytes init = start();
  const bytes first = answer_of(host, init);
  EXPECT_EQ(answer_of(host, init), first);
  EXPECT_EQ(host.attempts, 1);
  EXPECT_NE(answer_of(host, with_new_sid(init)), first);
  EXPECT_EQ(host.attempts, 2);
}

TEST_F(Pairing, AfterTheLastAttemptANewInitIsAnsweredWithReason2) {
  begin_host("123456", 3);
  const bytes init = start();
  for (int i = 0; i < 3; ++i) answer_of(host, with_new_sid(init));
  const bytes fourth = with_new_sid(init);
  const reply locked = give(host, fourth);
  EXPECT_EQ(locked.result, LUND_ERR_LOCKED);
  ASSERT_EQ(locked.datagram.size(), 25u);
  EXPECT_EQ(locked.datagram[24], LUND_PAIR_FAIL_LOCKED);
  EXPECT_TRUE(std::equal(&fourth[SID_AT], &fourth[POINT_AT], &locked.datagram[SID_AT]));
  EXPECT_EQ(host.attempts, 3);
}

TEST_F(Pairing, TheLastAttemptsExchangeMayFinishThoughOthersAreRefused) {
  begin_host("123456", 1);
  const bytes init = start();
  const bytes confirm = answer_of(client, answer_of(host, init));
  EXPECT_EQ(give(host, with_new_sid(init)).result, LUND_ERR_LOCKED);
  EXPECT_EQ(give(host, confirm).result, 1);
}

TEST_F(Pairing, AttemptLimitsOutOfRangeMeanTen) {
  for (const int limit : {0, -1, 255, 1000}) {
    begin_host("123456", limit);
    EXPECT_EQ(host.max_attempts, 10) << limit;
  }
  for (const int limit : {1, 254}) {
    begin_host("123456", limit);
    EXPECT_EQ(host.max_attempts, limit);
  }
}

TEST_F(Pairing, ALowOrderPointInTheInitIsWeakAndCounts) {
  begin_host();
  bytes init = start();
  std::fill(init.begin() + POINT_AT, init.end(), std::uint8_t{0});
  const reply weak = give(host, init);
  EXPECT_EQ(weak.result, LUND_ERR_WEAK_KEY);
  EXPECT_TRUE(weak.datagram.empty());
  EXPECT_EQ(host.attempts, 1);
  EXPECT_EQ(host.state, LUND_PAIR_IDLE);
  std::size_t size = 1;
  EXPECT_EQ(lund_pair_last_message(&host, &size), nullptr);
}

TEST_F(Pairing, ALowOrderPointInTheAnswerIsWeakAndTheTrueAnswerStillTaken) {
  begin_host();
  const bytes resp = answer_of(host, start());
  bytes forged = resp;
  std::fill_n(forged.begin() + POINT_AT, 32, std::uint8_t{0});
  EXPECT_EQ(give(client, forged).result, LUND_ERR_WEAK_KEY);
  EXPECT_EQ(give(client, resp).result, 0);
}

// --- lost and repeated datagrams ----------------------------------------------------------------

TEST_F(Pairing, EveryRetransmissionIsAnsweredByteForByte) {
  begin_host();
  const bytes init = start();
  const bytes resp = answer_of(host, init);
  const bytes confirm = answer_of(client, resp);
  EXPECT_EQ(answer_of(client, resp), confirm);
  const reply ok = give(host, confirm);
  EXPECT_EQ(answer_of(host, confirm), ok.datagram);
  EXPECT_EQ(answer_of(host, init), ok.datagram);
  EXPECT_EQ(give(client, ok.datagram).result, 1);
  const reply again = give(client, ok.datagram);
  EXPECT_EQ(again.result, 0);
  EXPECT_TRUE(again.datagram.empty());
}

TEST_F(Pairing, TheLastMessageIsWhatWasSent) {
  std::size_t size = 1;
  EXPECT_EQ(lund_pair_last_message(&host, &size), nullptr);
  EXPECT_EQ(size, 0u);
  const bytes init = start();
  const std::uint8_t* message = lund_pair_last_message(&client, &size);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(bytes(message, message + size), init);
}

TEST_F(Pairing, AMessageThatDoesNotFitStaysStored) {
  begin_host();
  std::uint8_t out[55];
  std::size_t size = 1;
  EXPECT_EQ(lund_pair_client_start(&client, &client_keys, "Laptop", "123456", out, 55, &size),
            LUND_ERR_BUFFER);
  EXPECT_EQ(size, 0u);
  const std::uint8_t* message = lund_pair_last_message(&client, &size);
  ASSERT_EQ(size, 56u);
  const bytes init(message, message + size);
  EXPECT_EQ(give(host, init, 100).result, LUND_ERR_BUFFER);
  EXPECT_EQ(host.state, LUND_PAIR_RESP_SENT);
  EXPECT_EQ(give(client, answer_of(host, init)).result, 0);
}

TEST_F(Pairing, MessagesOutOfTurnAreStateErrors) {
  begin_host();
  const bytes init = start();
  bytes confirm(73);
  std::memcpy(confirm.data(), init.data(), POINT_AT);
  confirm[2] = LUND_PKT_PAIR_CONFIRM;
  std::memcpy(host.sid, &init[SID_AT], LUND_PAIR_SID_SIZE);
  EXPECT_EQ(give(host, confirm).result, LUND_ERR_STATE);
  bytes ok(41);
  std::memcpy(ok.data(), init.data(), POINT_AT);
  ok[2] = LUND_PKT_PAIR_OK;
  EXPECT_EQ(give(client, ok).result, LUND_ERR_STATE);
}

// --- PAIR_OK and PAIR_FAIL ----------------------------------------------------------------------

TEST_F(Pairing, AnOkWithAnotherClearByteIsRefusedAndTheTrueOneStillTaken) {
  begin_host();
  const bytes confirm = answer_of(client, answer_of(host, start()));
  const bytes head(confirm.begin(), confirm.begin() + POINT_AT);
  const reply ok = give(host, confirm);
  EXPECT_EQ(give(client, forge(LUND_PKT_PAIR_OK, head, client.recv_key, 1, {1})).result,
            LUND_ERR_AUTH);
  EXPECT_EQ(give(client, forge(LUND_PKT_PAIR_OK, head, client.recv_key, 0, {0})).result,
            LUND_ERR_AUTH);
  EXPECT_EQ(give(client, ok.datagram).result, 1);
}

TEST_F(Pairing, AFailEndsTheClientsExchangeWithItsReason) {
  for (const auto& [reason, expected] :
       {std::pair{1, LUND_ERR_AUTH}, {2, LUND_ERR_LOCKED}, {3, LUND_ERR_AUTH}}) {
    start();
    bytes fail(25);
    EXPECT_EQ(lund_pair_encode_fail(fail.data(), fail.size(), client.sid,
                                    static_cast<std::uint8_t>(reason)),
              25u);
    EXPECT_EQ(give(client, fail).result, expected) << "reason " << reason;
    EXPECT_EQ(client.state, LUND_PAIR_FAILED);
    EXPECT_EQ(give(client, fail).result, LUND_ERR_STATE);
  }
}

TEST_F(Pairing, AFailOfAnotherExchangeIsMalformed) {
  start();
  bytes fail(25);
  lund_pair_encode_fail(fail.data(), fail.size(), client.sid, 1);
  EXPECT_EQ(give(client, with_new_sid(fail)).result, LUND_ERR_MALFORMED);
  EXPECT_EQ(client.state, LUND_PAIR_INIT_SENT);
}

TEST(PairFail, NeedsRoomFor25Bytes) {
  const std::uint8_t sid[LUND_PAIR_SID_SIZE] = {1, 2, 3};
  std::uint8_t out[25];
  EXPECT_EQ(lund_pair_encode_fail(out, 24, sid, 3), 0u);
  ASSERT_EQ(lund_pair_encode_fail(out, 25, sid, 3), 25u);
  EXPECT_EQ(to_hex(out),
            "500154000000000001020300000000000000000000000000"
            "03");
}

// --- malformed datagrams ------------------------------------------------------------------------

TEST_F(Pairing, AnyOtherHeaderIsMalformedAndCostsNothing) {
  begin_host();
  const bytes init = start();
  for (std::size_t at = 0; at < 8; ++at) {
    bytes forged = init;
    forged[at] ^= 0x80;
    EXPECT_EQ(give(host, forged).result, LUND_ERR_MALFORMED) << "byte " << at;
  }
  EXPECT_EQ(give(host, bytes(init.begin(), init.begin() + 7)).result, LUND_ERR_MALFORMED);
  EXPECT_EQ(host.attempts, 0);
}

TEST_F(Pairing, LengthsAreExact) {
  begin_host();
  const auto resized = [](bytes datagram, std::size_t size) {
    datagram.resize(size);
    return datagram;
  };
  const bytes init = start();
  for (const std::size_t size : {55u, 57u})
    EXPECT_EQ(give(host, resized(init, size)).result, LUND_ERR_MALFORMED) << size;
  const bytes resp = answer_of(host, init);
  for (const std::size_t size : {104u, 169u})
    EXPECT_EQ(give(client, resized(resp, size)).result, LUND_ERR_MALFORMED) << size;
  const bytes confirm = answer_of(client, resp);
  for (const std::size_t size : {72u, 137u})
    EXPECT_EQ(give(host, resized(confirm, size)).result, LUND_ERR_MALFORMED) << size;
  const bytes ok = give(host, confirm).datagram;
  for (const std::size_t size : {40u, 42u})
    EXPECT_EQ(give(client, resized(ok, size)).result, LUND_ERR_MALFORMED) << size;
  EXPECT_EQ(give(client, ok).result, 1);
}

TEST_F(Pairing, AnotherExchangesDatagramsAreMalformed) {
  begin_host();
  const bytes resp = answer_of(host, start());
  EXPECT_EQ(give(client, with_new_sid(resp)).result, LUND_ERR_MALFORMED);
  const bytes confirm = answer_of(client, resp);
  EXPECT_EQ(give(host, with_new_sid(confirm)).result, LUND_ERR_MALFORMED);
  EXPECT_EQ(give(client, with_new_sid(give(host, confirm).datagram)).result, LUND_ERR_MALFORMED);
}

TEST_F(Pairing, TheOtherRolesTypesAreMalformed) {
  begin_host();
  const bytes init = start();
  const bytes resp = answer_of(host, init);
  EXPECT_EQ(give(client, init).result, LUND_ERR_MALFORMED);
  EXPECT_EQ(give(host, resp).result, LUND_ERR_MALFORMED);
  const bytes confirm = answer_of(client, resp);
  EXPECT_EQ(give(client, confirm).result, LUND_ERR_MALFORMED);
  EXPECT_EQ(give(host, give(host, confirm).datagram).result, LUND_ERR_MALFORMED);
}

TEST_F(Pairing, ASealedIdentityWhoseNameLengthIsWrongIsMalformed) {
  for (const int claimed : {0, 2, 64, 255}) {
    begin_host();
    const bytes init = start();
    const bytes resp = answer_of(host, init);
    bytes identity(34, 'k');
    identity[32] = static_cast<std::uint8_t>(claimed);

    const lund_pair fresh = client;
    answer_of(client, resp);  // for the keys of the exchange
    const bytes to_host(init.begin(), init.begin() + POINT_AT);
    EXPECT_EQ(
        give(host, forge(LUND_PKT_PAIR_CONFIRM, to_host, client.send_key, 0, identity)).result,
        LUND_ERR_MALFORMED);
    EXPECT_NE(host.state, LUND_PAIR_DONE);

    const bytes to_client(resp.begin(), resp.begin() + 56);
    const bytes forged = forge(LUND_PKT_PAIR_RESP, to_client, host.send_key, 0, identity);
    client = fresh;
    EXPECT_EQ(give(client, forged).result, LUND_ERR_MALFORMED);
    EXPECT_EQ(client.state, LUND_PAIR_FAILED);
  }
}

// --- secrets in memory --------------------------------------------------------------------------

TEST_F(Pairing, AFailedClientHoldsNoKeysAndNoScalar) {
  begin_host("123456");
  give(client, answer_of(host, start("654321")));
  ASSERT_EQ(client.state, LUND_PAIR_FAILED);
  EXPECT_TRUE(is_wiped(client.send_key) && is_wiped(client.recv_key) && is_wiped(client.scalar));
}

TEST_F(Pairing, AHostRefusingAConfirmationHoldsNoKeys) {
  begin_host();
  bytes confirm = answer_of(client, answer_of(host, start()));
  confirm.back() ^= 1;
  give(host, confirm);
  EXPECT_TRUE(is_wiped(host.send_key) && is_wiped(host.recv_key));
}

TEST_F(Pairing, AWeakPointLeavesTheHostNoKeysOfTheExchangeBefore) {
  begin_host();
  bytes init = start();
  answer_of(host, init);
  ASSERT_FALSE(is_wiped(host.send_key));
  std::fill(init.begin() + POINT_AT, init.end(), std::uint8_t{0});
  give(host, with_new_sid(init));
  EXPECT_TRUE(is_wiped(host.send_key) && is_wiped(host.recv_key) && is_wiped(host.scalar));
}

TEST_F(Pairing, TheScalarIsWipedOnceTheKeysStand) {
  begin_host();
  const bytes resp = answer_of(host, start());
  EXPECT_TRUE(is_wiped(host.scalar));
  EXPECT_FALSE(is_wiped(client.scalar));
  answer_of(client, resp);
  EXPECT_TRUE(is_wiped(client.scalar));
}

TEST_F(Pairing, ADonePairHoldsNoKeysOfTheExchange) {
  begin_host();
  const reply ok = give(host, answer_of(client, answer_of(host, start())));
  give(client, ok.datagram);
  EXPECT_TRUE(is_wiped(host.send_key) && is_wiped(host.recv_key));
  EXPECT_TRUE(is_wiped(client.send_key) && is_wiped(client.recv_key));
}

TEST_F(Pairing, WipingLeavesNoByteOfTheRecord) {
  begin_host();
  answer_of(client, answer_of(host, start()));
  lund_pair_wipe(&client);
  lund_pair_wipe(&host);
  EXPECT_TRUE(is_wiped(client));
  EXPECT_TRUE(is_wiped(host));
}

TEST_F(Pairing, EachStartDrawsAFreshExchange) {
  const bytes first = start(), second = start();
  EXPECT_NE(bytes(first.begin() + SID_AT, first.begin() + POINT_AT),
            bytes(second.begin() + SID_AT, second.begin() + POINT_AT));
  EXPECT_NE(bytes(first.begin() + POINT_AT, first.end()),
            bytes(second.begin() + POINT_AT, second.end()));
}

}  // namespace
