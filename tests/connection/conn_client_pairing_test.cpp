#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "connection/byte_order.h"
#include "tests/support/client_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/virtual_time.h"

using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;

// Strangers to each other; the host has pairing open, as one without devices has.
struct Strangers : EnginePair {
  explicit Strangers(Options options = {}) : EnginePair(unpaired(std::move(options))) { add_lan(); }
  static Options unpaired(Options options) {
    options.paired = false;
    return options;
  }
  static Options with_password(const char* password) {
    Options options;
    options.password_blob = quick_password_blob(password);
    return options;
  }
};

lund_conn_event failure(EnginePair& pair) {
  const auto events = pair.client_events(LUND_EV_CLIENT_PAIR_FAILED);
  EXPECT_THAT(events, SizeIs(1));
  EXPECT_EQ(pair.client->mode, LUND_CLIENT_IDLE);
  return events.empty() ? lund_conn_event{} : events[0];
}

std::string wrong(std::string pin) {
  pin[0] = pin[0] == '9' ? '0' : static_cast<char>(pin[0] + 1);
  return pin;
}

bool forgotten(const lund_client& client) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&client.pairing);
  return std::all_of(bytes, bytes + sizeof client.pairing, [](auto byte) { return byte == 0; });
}

// A client that asks for pairing, on two paths.
struct AskingRig : ClientRig {
  explicit AskingRig(const char* secret = "123456", std::uint32_t kind = 0,
                     const char* code = nullptr)
      : ClientRig([code](lund_client_config& config) {
          config.has_host_key = 0;
          config.host_code = code;
        }) {
    lund_client_add_candidate(client, &LAN, 0);
    lund_client_add_candidate(client, &WAN, 0);
    EXPECT_EQ(lund_client_pair(client, secret, kind), 0);
    tick();
  }
  std::uint32_t nonce() const { return client->pairing.info_nonce; }

  // The scripted host's side of the exchange.
  void open_host(const char* secret) {
    lund_pair_host_init(&pair, &host_keypair, "the host", secret, 10);
  }
  Bytes answer_pairing(const Bytes& datagram) {
    Bytes plain_flags = datagram;
    plain_flags[3] = 0;
    Bytes answer(LUND_PAIR_MESSAGE_MAX);
    std::size_t size = 0;
    lund_pair_handle(&pair, plain_flags.data(), plain_flags.size(), answer.data(), answer.size(),
                     &size);
    answer.resize(size);
    return answer;
  }
  Bytes pair_fail(std::uint8_t reason) {
    Bytes packet(25);
    lund_pair_encode_fail(packet.data(), packet.size(), client->pairing.pair.sid, reason);
    return packet;
  }
  std::vector<lund_conn_event> failures() {
    auto all = events();
    std::erase_if(all, [](const auto& e) { return e.type != LUND_EV_CLIENT_PAIR_FAILED; });
    return all;
  }

  lund_pair pair;
};

}  // namespace

TEST(ClientPairing, ASecretHasOneTo255Characters) {
  ClientRig rig;
  EXPECT_EQ(lund_client_pair(rig.client, nullptr, 0), -1);
  EXPECT_EQ(lund_client_pair(rig.client, "", 0), -1);
  EXPECT_EQ(lund_client_pair(rig.client, std::string(256, 'x').c_str(), 0), -1);
  EXPECT_EQ(lund_client_pair(rig.client, "123456", 3), -1);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_IDLE);
  EXPECT_EQ(lund_client_pair(rig.client, std::string(255, 'x').c_str(), 0), 0);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_PAIRING);
}

TEST(ClientPairing, AsksOnEveryPathEvery500MsWith64Bytes) {
  AskingRig rig;
  rig.tick_for_ms(1'000);
  const auto requests = rig.take(LUND_PKT_HOST_INFO_REQUEST);
  ASSERT_THAT(requests, SizeIs(6));
  for (const auto& request : requests) {
    EXPECT_THAT(request.bytes, SizeIs(64));
    EXPECT_EQ(load_le<std::uint32_t>(request.bytes.data() + 8), rig.nonce());
    EXPECT_THAT(Bytes(request.bytes.begin() + 12, request.bytes.end()), Each(0));
  }
  const lund_rv_endpoint late = endpoint("192.168.1.12:9876");
  lund_client_add_candidate(rig.client, &late, 0);  // asked at once
  EXPECT_THAT(rig.take(LUND_PKT_HOST_INFO_REQUEST), SizeIs(1));
}

TEST(ClientPairing, ABadHostInfoIsNoAnswer) {
  AskingRig rig;
  const Bytes good = rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN);
  std::vector<Bytes> bad(7, good);
  bad[0][8] ^= 1;       // another nonce
  bad[1].pop_back();    // shorter than its name
  bad[2].push_back(0);  // longer
  bad[3][3] = 1;        // flags
  bad[4][4] = 1;        // session id
  bad[5].resize(69);
  bad[6].resize(70 + 64);  // a name above 63
  bad[6][69] = 64;
  for (const Bytes& info : bad) rig.receive(LAN, info);
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), IsEmpty());
  rig.receive(LAN, good);
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), SizeIs(1));
  EXPECT_EQ(rig.log.back(), "pairing with the PIN");
  rig.receive(WAN, good);  // asked and answered
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), IsEmpty());
}

TEST(ClientPairing, AHostWithAnotherKeyThanTheCodeIsNoAnswer) {
  AskingRig rig("123456", 0, "0000-0000");
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), IsEmpty());
  EXPECT_EQ(rig.client->pairing.stage, LUND_STAGE_INFO);
}

TEST(ClientPairing, InitAndConfirmRepeatByteForByteEvery500Ms) {
  AskingRig rig;
  rig.open_host("123456");
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  rig.tick_for_ms(1'000);
  const auto inits = rig.take(LUND_PKT_PAIR_INIT);
  ASSERT_THAT(inits, SizeIs(3));
  EXPECT_EQ(inits[1].bytes, inits[0].bytes);
  EXPECT_EQ(inits[2].bytes, inits[0].bytes);
  EXPECT_TRUE(lund_rv_endpoint_equal(inits[0].to, LAN));

  rig.receive(LAN, rig.answer_pairing(inits[0].bytes));
  rig.tick_for_ms(1'000);
  const auto confirms = rig.take(LUND_PKT_PAIR_CONFIRM);
  ASSERT_THAT(confirms, SizeIs(3));
  EXPECT_EQ(confirms[1].bytes, confirms[0].bytes);
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), IsEmpty());
}

TEST(ClientPairing, APasswordsInitCarriesItsFlagEachTime) {
  AskingRig rig("hunter22");
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_HAS_PASSWORD, 8, 1));
  rig.tick_for_ms(1'000);
  const auto inits = rig.take(LUND_PKT_PAIR_INIT);
  ASSERT_THAT(inits, SizeIs(3));
  for (const auto& init : inits) EXPECT_EQ(init.bytes[3], 1);
  EXPECT_EQ(rig.log.back(), "pairing with the password");
}

TEST(ClientPairing, OnceAHostHasAnsweredNobodyElseCounts) {
  AskingRig rig;
  rig.open_host("123456");
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  const Bytes response = rig.answer_pairing(rig.take(LUND_PKT_PAIR_INIT)[0].bytes);
  rig.receive(WAN, rig.pair_fail(LUND_PAIR_FAIL_LOCKED));
  rig.receive(WAN, response);
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_CONFIRM), IsEmpty());
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_PAIRING);
  rig.receive(LAN, response);
  EXPECT_THAT(rig.take(LUND_PKT_PAIR_CONFIRM), SizeIs(1));
}

TEST(ClientPairing, TheExchangeHasFifteenSecondsOfItsOwn) {
  AskingRig rig;
  rig.tick_for_ms(14'000);
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  rig.tick_for_ms(14'999);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_PAIRING);
  rig.tick_for_ms(1);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_IDLE);
}

TEST(ClientPairing, AFailOfAnotherExchangeIsNothing) {
  AskingRig rig;
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  Bytes other = rig.pair_fail(LUND_PAIR_FAIL_SECRET);
  other[8] ^= 1;
  rig.receive(LAN, other);
  Bytes longer = rig.pair_fail(LUND_PAIR_FAIL_SECRET);
  longer.push_back(0);
  rig.receive(LAN, longer);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_PAIRING);
}

TEST(ClientPairing, TheHostsReasonsToFailAreTold) {
  struct Case {
    std::uint8_t reason;
    int status;
    const char* line;
  };
  for (const Case& expected :
       {Case{LUND_PAIR_FAIL_SECRET, 1, "pairing failed: wrong PIN or password"},
        Case{LUND_PAIR_FAIL_LOCKED, 2, "pairing failed: too many attempts (locked)"},
        Case{LUND_PAIR_FAIL_UNAVAILABLE, 3, "pairing failed: the host is not pairing"}}) {
    AskingRig rig;
    rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
    rig.receive(LAN, rig.pair_fail(expected.reason));
    const auto failures = rig.failures();
    ASSERT_THAT(failures, SizeIs(1));
    EXPECT_EQ(failures[0].status, expected.status);
    EXPECT_EQ(failures[0].kind, LUND_KIND_PIN);
    EXPECT_EQ(rig.log.back(), expected.line);
    EXPECT_TRUE(forgotten(*rig.client));
  }
}

TEST(ClientPairing, WhatTheHostOffersDecidesAtTheStart) {
  struct Case {
    const char* secret;
    std::uint32_t kind;
    int capabilities;
    std::uint32_t mem_kib, iterations;
    int status;  // 0: the exchange begins
    const char* line;
  };
  for (const Case& expected :
       {Case{"123456", 0, 0, 0, 0, 3, "pairing failed: the host is not in pairing mode"},
        Case{"123456", 1, LUND_HOST_HAS_PASSWORD, 8, 1, 3,
             "pairing failed: the host is not in pairing mode"},
        Case{"123456", 0, LUND_HOST_HAS_PASSWORD, 8, 1, 0, "pairing with the password"},
        Case{"123456", 2, LUND_HOST_HAS_PASSWORD | LUND_HOST_PIN_OPEN, 8, 1, 0,
             "pairing with the password"},
        Case{"hunter22", 0, LUND_HOST_PIN_OPEN, 0, 0, 3,
             "pairing failed: the host has no password"},
        Case{"hunter22", 0, LUND_HOST_HAS_PASSWORD | LUND_HOST_PASSWORD_LOCKED, 8, 1, 2,
             "pairing failed: password pairing is locked on the host"},
        Case{"hunter22", 0, LUND_HOST_HAS_PASSWORD, 262'145, 1, 3,
             "pairing failed: bad password parameters from the host"},
        Case{"hunter22", 0, LUND_HOST_HAS_PASSWORD, 8, 17, 3,
             "pairing failed: bad password parameters from the host"},
        Case{"hunter22", 0, LUND_HOST_HAS_PASSWORD, 7, 1, 3,
             "pairing failed: bad password parameters from the host"}}) {
    AskingRig rig(expected.secret, expected.kind);
    rig.receive(LAN, rig.host_info(rig.nonce(), static_cast<std::uint8_t>(expected.capabilities),
                                   expected.mem_kib, expected.iterations));
    EXPECT_EQ(rig.log.back(), expected.line);
    const auto failures = rig.failures();
    EXPECT_EQ(failures.empty() ? 0 : failures[0].status, expected.status) << expected.line;
    EXPECT_THAT(rig.take(LUND_PKT_PAIR_INIT), SizeIs(expected.status == 0 ? 1 : 0));
  }
}

// Somebody in the middle shows the wanted host's information but pairs with a key of his own.
TEST(ClientPairing, AKeyThatDiffersFromTheCodeFailsAtTheEnd) {
  char code[LUND_KEY_CODE_TEXT];
  lund_keypair wanted, other;
  lund_keypair_generate(&wanted);
  lund_keypair_generate(&other);
  lund_key_code(code, wanted.public_key);
  AskingRig rig("123456", 0, code);
  rig.host_keypair = wanted;
  const Bytes info = rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN);
  rig.host_keypair = other;
  rig.open_host("123456");
  rig.receive(LAN, info);
  rig.receive(LAN, rig.answer_pairing(rig.take(LUND_PKT_PAIR_INIT)[0].bytes));
  rig.receive(LAN, rig.answer_pairing(rig.take(LUND_PKT_PAIR_CONFIRM)[0].bytes));
  const auto failures = rig.failures();
  ASSERT_THAT(failures, SizeIs(1));
  EXPECT_EQ(failures[0].status, 4);
  EXPECT_EQ(rig.log.back(), "pairing failed: the host's key does not match the code");
  EXPECT_EQ(rig.client->has_host_key, 0u);
}

TEST(ClientPairing, TheHostsNameIsCleanedBeforeAnyoneSeesIt) {
  AskingRig rig;
  lund_pair_host_init(&rig.pair, &rig.host_keypair, "bad\nname\x7f", "123456", 10);
  rig.receive(LAN, rig.host_info(rig.nonce(), LUND_HOST_PIN_OPEN));
  rig.receive(LAN, rig.answer_pairing(rig.take(LUND_PKT_PAIR_INIT)[0].bytes));
  rig.receive(LAN, rig.answer_pairing(rig.take(LUND_PKT_PAIR_CONFIRM)[0].bytes));
  const auto events = rig.events();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].type, LUND_EV_CLIENT_PAIRED);
  EXPECT_STREQ(events[0].name, "bad name ");
}

TEST(ClientPairing, ClosingEverythingCallsItOff) {
  AskingRig rig;
  lund_client_session_close(rig.client, 0);
  EXPECT_EQ(rig.client->mode, LUND_CLIENT_IDLE);
  EXPECT_TRUE(forgotten(*rig.client));
  rig.sent.clear();
  rig.tick_for_ms(20'000);
  EXPECT_THAT(rig.sent, IsEmpty());
  EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ClientPairingWithHost, ByPinGoesStraightOnToASession) {
  Strangers pair;
  ASSERT_TRUE(pair.pair(pair.pin().c_str()));
  EXPECT_TRUE(forgotten(*pair.client));
  const auto paired = pair.client_events(LUND_EV_CLIENT_PAIRED);
  ASSERT_THAT(paired, SizeIs(1));
  EXPECT_EQ(paired[0].kind, LUND_KIND_PIN);
  EXPECT_STREQ(paired[0].name, "the host");
  EXPECT_TRUE(lund_rv_endpoint_equal(paired[0].addr, LAN));
  EXPECT_EQ(std::memcmp(paired[0].key, pair.host_keypair.public_key, LUND_KEY_SIZE), 0);
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, pair.host_keypair.public_key);
  EXPECT_EQ(std::memcmp(paired[0].key_id, id, sizeof id), 0);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, pair.host_keypair.public_key);
  EXPECT_TRUE(pair.client_logged("paired with \"the host\" (" + std::string(code) + ")"));
  const auto host_paired = pair.host_events(LUND_EV_PAIRED);
  ASSERT_THAT(host_paired, SizeIs(1));
  EXPECT_EQ(std::memcmp(host_paired[0].key, pair.client_keypair.public_key, LUND_KEY_SIZE), 0);
  EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 500));
}

TEST(ClientPairingWithHost, ByPassword) {
  Strangers pair(Strangers::with_password("correct horse"));
  ASSERT_TRUE(pair.pair("correct horse"));
  EXPECT_EQ(pair.client_events(LUND_EV_CLIENT_PAIRED)[0].kind, LUND_KIND_PASSWORD);
  EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 500));
}

TEST(ClientPairingWithHost, AWrongPinFailsOnBothSides) {
  Strangers pair;
  EXPECT_FALSE(pair.pair(wrong(pair.pin()).c_str()));
  const lund_conn_event failed = failure(pair);
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.kind, LUND_KIND_PIN);
  EXPECT_TRUE(pair.client_logged("pairing failed: wrong PIN or password"));
  EXPECT_TRUE(forgotten(*pair.client));
  pair.net.run_for_ms(11'000);
  EXPECT_THAT(pair.host_events(LUND_EV_PAIR_ATTEMPT_FAILED), SizeIs(1));
  EXPECT_TRUE(pair.pair(pair.pin().c_str()));  // and another try may succeed
}

TEST(ClientPairingWithHost, AWrongPasswordFails) {
  Strangers pair(Strangers::with_password("correct horse"));
  EXPECT_FALSE(pair.pair("battery staple"));
  EXPECT_EQ(failure(pair).status, 1);
}

TEST(ClientPairingWithHost, SixDigitsAgainstAHostWithOnlyAPasswordAreThePassword) {
  Strangers pair(Strangers::with_password("246810"));
  lund_host_pairing_close(pair.host);
  ASSERT_TRUE(pair.pair("246810"));
  EXPECT_EQ(pair.client_events(LUND_EV_CLIENT_PAIRED)[0].kind, LUND_KIND_PASSWORD);
  EXPECT_THAT(pair.host_events(LUND_EV_PAIR_ATTEMPT), SizeIs(1));
}

TEST(ClientPairingWithHost, SixDigitsThatAreNotThePinAreTriedAsThePassword) {
  Strangers pair(Strangers::with_password("246810"));
  ASSERT_NE(pair.pin(), "246810");
  ASSERT_TRUE(pair.pair("246810"));
  EXPECT_EQ(pair.client_events(LUND_EV_CLIENT_PAIRED)[0].kind, LUND_KIND_PASSWORD);
}

TEST(ClientPairingWithHost, SixDigitsThatAreNeitherFailOnce) {
  Strangers pair(Strangers::with_password("246810"));
  EXPECT_FALSE(pair.pair(wrong(pair.pin()).c_str()));
  const lund_conn_event failed = failure(pair);
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.kind, LUND_KIND_PASSWORD);
}

TEST(ClientPairingWithHost, WhatIsSaidToBeAPinIsNotTriedAsThePassword) {
  Strangers pair(Strangers::with_password("246810"));
  EXPECT_FALSE(pair.pair("246810", LUND_KIND_PIN));
  EXPECT_EQ(failure(pair).kind, LUND_KIND_PIN);
}

TEST(ClientPairingWithHost, TooManyAttemptsAreToldAsLocked) {
  Strangers::Options options;
  options.host = [](lund_host_config& config) { config.pin_attempts = 2; };
  Strangers pair(options);
  const std::string pin = wrong(pair.pin());
  EXPECT_FALSE(pair.pair(pin.c_str()));
  EXPECT_FALSE(pair.pair(pin.c_str()));
  EXPECT_FALSE(pair.pair(pin.c_str()));
  const auto failures = pair.client_events(LUND_EV_CLIENT_PAIR_FAILED);
  ASSERT_THAT(failures, SizeIs(3));
  EXPECT_EQ(failures[1].status, 1);
  EXPECT_EQ(failures[2].status, 2);
  EXPECT_TRUE(pair.client_logged("pairing failed: too many attempts (locked)"));
  EXPECT_THAT(pair.host_events(LUND_EV_PIN_CHANGED), SizeIs(1));
}

TEST(ClientPairingWithHost, ALockedPasswordIsToldBeforeAnyAttempt) {
  Strangers::Options options = Strangers::with_password("correct horse");
  options.host = [](lund_host_config& config) { config.password_attempts = 1; };
  Strangers pair(options);
  EXPECT_FALSE(pair.pair("battery staple"));
  pair.net.run_for_ms(1'100);
  EXPECT_FALSE(pair.pair("battery staple"));  // locks
  pair.net.run_for_ms(1'100);
  EXPECT_FALSE(pair.pair("correct horse"));
  EXPECT_TRUE(pair.client_logged("pairing failed: password pairing is locked on the host"));
  EXPECT_EQ(pair.client_events(LUND_EV_CLIENT_PAIR_FAILED)[2].status, 2);
}

TEST(ClientPairingWithHost, ThroughThirtyPercentLossAndDuplication) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    Strangers::Options options;
    options.seed = seed;
    options.lan = {.delay_us = 5'000, .jitter_us = 30'000, .loss = 0.3, .duplicate = 0.3};
    Strangers pair(options);
    EXPECT_TRUE(pair.pair(pair.pin().c_str())) << "seed " << seed;
    EXPECT_TRUE(pair.net.run_until([&pair] { return pair.up(); }, 10'000)) << "seed " << seed;
    EXPECT_THAT(pair.client_events(LUND_EV_CLIENT_PAIRED), SizeIs(1)) << "seed " << seed;
  }
}

TEST(ClientPairingWithHost, WithoutAnAnswerItGivesUpAfterFifteenSeconds) {
  Strangers pair;
  pair.net.link(pair.lan).down = true;
  const std::uint64_t start = lund_now_us();
  EXPECT_FALSE(pair.pair("123456"));
  EXPECT_NEAR(static_cast<double>(lund_now_us() - start), 15e6, 0.06e6);
  EXPECT_EQ(failure(pair).status, 5);
  EXPECT_TRUE(pair.client_logged("pairing failed: no host answered"));
}

TEST(ClientPairingWithHost, AHostThatFallsSilentIsGivenUpToo) {
  Strangers pair;
  ASSERT_EQ(lund_client_pair(pair.client, pair.pin().c_str(), 0), 0);
  ASSERT_TRUE(
      pair.net.run_until([&pair] { return pair.client->pairing.stage == LUND_STAGE_INIT; }, 1'000));
  pair.net.link(pair.lan).down = true;
  pair.net.run_for_ms(16'000);
  EXPECT_EQ(failure(pair).status, 5);
  EXPECT_TRUE(pair.client_logged("pairing failed: the host stopped answering"));
}
