// Pairing by PIN and by password, their limits and locks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

const lund_rv_endpoint HOME = peer::at("192.168.1.20:5000");
const lund_rv_endpoint AWAY = peer::at("203.0.113.7:6000");

// A stored password. The exchange's secret is its verifier, so that no test here has to derive one.
const std::string SALT = "000102030405060708090a0b0c0d0e0f";
const std::string VERIFIER(64, 'a');
const std::string BLOB = "lunderhaze-pw1 " + SALT + " 1024 2 " + VERIFIER;

constexpr std::uint32_t PIN = LUND_KIND_PIN;
constexpr std::uint32_t PASSWORD = LUND_KIND_PASSWORD;

class HostPairing : public ::testing::Test {
 protected:
  HostPairing() { virtual_time::reset(); }
};

// The client by reference: its id is known only once the answer has been got.
::testing::AssertionResult refused(const peer::bytes& answer, const engine_peer& client,
                                   std::uint8_t reason) {
  peer::bytes wanted = peer::packet(LUND_PKT_PAIR_FAIL, 0, peer::bytes(17));
  std::memcpy(wanted.data() + 8, client.pair.sid, LUND_PAIR_SID_SIZE);
  wanted[24] = reason;
  if (answer == wanted) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << ::testing::PrintToString(answer);
}

std::string wrong_pin(const host_rig& rig) {
  std::string pin = rig.pairing().pin;
  pin[0] = pin[0] == '9' ? '0' : static_cast<char>(pin[0] + 1);
  return pin;
}

// A whole exchange; whether the client ended it with success.
bool pair(host_rig& rig, engine_peer& client, const char* secret, std::uint32_t kind,
          const char* name = "Laptop") {
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(secret, kind, name), HOME));
  if (confirm.empty()) return false;
  client.pair_take(rig.answer(confirm, HOME));
  return client.pair_result == 1;
}

// The first half of an exchange under a fresh id; the host's answer.
peer::bytes guess(host_rig& rig, engine_peer& client, std::uint32_t kind) {
  return rig.answer(client.pair_init("not the secret", kind), AWAY);
}

std::uint8_t type_of(const peer::bytes& packet) {
  return packet.empty() ? 0 : packet[2];
}

std::vector<std::uint32_t> types(host_rig& rig) {
  std::vector<std::uint32_t> list;
  for (const lund_conn_event& event : rig.events()) list.push_back(event.type);
  return list;
}

std::uint8_t capabilities(host_rig& rig) {
  return rig.answer(peer::info_request(5), HOME)[12];
}

int listed(const host_rig& rig) {
  lund_client_list list;
  lund_host_export_clients(rig.host, &list);
  return list.count;
}

}  // namespace

TEST_F(HostPairing, HostWithoutClientsStartsOpenWithAPinAndNoDeadline) {
  const host_rig rig;
  const lund_pairing_status status = rig.pairing();
  EXPECT_EQ(status.open, 1U);
  EXPECT_EQ(std::strlen(status.pin), 6U);
  EXPECT_EQ(lund_secret_guess_kind(status.pin), 1);
  EXPECT_EQ(status.seconds_left, 0U);
  EXPECT_EQ(status.has_password, 0U);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, rig.key());
  EXPECT_STREQ(status.key_code, code);
}

TEST_F(HostPairing, HostWithClientsStartsClosedWithTheWayShut) {
  host_rig rig(clients_of({2}));
  EXPECT_EQ(rig.pairing().open, 0U);
  EXPECT_STREQ(rig.pairing().pin, "");
  EXPECT_EQ(rig.host->pairing.pin[0], 0);
  engine_peer client = rig.client(3);
  EXPECT_TRUE(refused(guess(rig, client, PIN), client, LUND_PAIR_FAIL_UNAVAILABLE));
}

TEST_F(HostPairing, OpeningWithZeroSecondsMeansTwoMinutesAndEachOpeningMakesAnotherPin) {
  host_rig rig(clients_of({2}));
  std::set<std::string> pins;
  for (int i = 0; i < 4; ++i) {
    lund_host_pairing_open(rig.host, 0);
    EXPECT_EQ(rig.pairing().seconds_left, 120U);
    pins.insert(rig.pairing().pin);
  }
  EXPECT_GT(pins.size(), 1U);
  virtual_time::advance_us(1);
  EXPECT_EQ(rig.pairing().seconds_left, 120U) << "rounded up";
  virtual_time::advance_us(SECOND_US);
  EXPECT_EQ(rig.pairing().seconds_left, 119U);
}

TEST_F(HostPairing, ReopeningEndsTheExchangeOnTheOldPin) {
  host_rig rig;
  engine_peer client = rig.client(2);
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(rig.pairing().pin, PIN), HOME));
  ASSERT_EQ(type_of(confirm), LUND_PKT_PAIR_CONFIRM);
  lund_host_pairing_open(rig.host, 60);
  EXPECT_TRUE(rig.answer(confirm, HOME).empty());
  EXPECT_EQ(listed(rig), 0);
}

TEST_F(HostPairing, PinPairsOneDeviceAndClosesTheWindow) {
  host_rig rig;
  engine_peer client = rig.client(2);
  ASSERT_TRUE(pair(rig, client, rig.pairing().pin, PIN));
  EXPECT_EQ(std::memcmp(client.pair.peer_key, rig.key(), LUND_KEY_SIZE), 0);
  EXPECT_STREQ(client.pair.peer_name, "Desk");
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0].type, LUND_EV_PAIR_ATTEMPT);
  EXPECT_EQ(events[0].status, 1);
  EXPECT_EQ(events[0].kind, LUND_KIND_PIN);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, HOME));
  EXPECT_EQ(events[1].type, LUND_EV_PAIRED);
  EXPECT_EQ(events[1].kind, LUND_KIND_PIN);
  EXPECT_EQ(std::memcmp(events[1].key, client.key(), LUND_KEY_SIZE), 0);
  EXPECT_STREQ(events[1].name, "Laptop");
  EXPECT_EQ(events[2].type, LUND_EV_PAIRING_CLOSED);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, client.key());
  EXPECT_EQ(rig.lines,
            (std::vector<std::string>{"pairing attempt 1/10 (PIN) from 192.168.1.20:5000",
                                      "paired with \"Laptop\" (" + std::string(code) +
                                          ") from 192.168.1.20:5000 using the PIN",
                                      "pairing closed (paired)"}));
  EXPECT_EQ(rig.pairing().open, 0U);
  EXPECT_TRUE(rig.connect(client, HOME));
  engine_peer next = rig.client(3);
  EXPECT_TRUE(refused(guess(rig, next, PIN), next, LUND_PAIR_FAIL_UNAVAILABLE));
}

TEST_F(HostPairing, PairedNameIsCleanedWhereverItIsShown) {
  host_rig rig;
  engine_peer client = rig.client(2);
  ASSERT_TRUE(pair(rig, client, rig.pairing().pin, PIN, "Lap\ntop"));
  EXPECT_TRUE(rig.logged("paired with \"Lap top\""));
  EXPECT_STREQ(rig.events()[1].name, "Lap top");
  EXPECT_STREQ(rig.host->clients[0].name, "Lap top");
}

TEST_F(HostPairing, PairingAgainOnlyRenames) {
  host_rig rig(clients_of({2, 3}));
  virtual_time::advance_us(1000 * SECOND_US);
  lund_host_pairing_open(rig.host, 0);
  engine_peer client = rig.client(3);
  ASSERT_TRUE(pair(rig, client, rig.pairing().pin, PIN, "renamed"));
  lund_client_list list;
  lund_host_export_clients(rig.host, &list);
  ASSERT_EQ(list.count, 2);
  EXPECT_STREQ(list.entries[1].name, "renamed");
  EXPECT_EQ(list.entries[1].added_at, virtual_time::START_WALL_US / SECOND_US);
}

TEST_F(HostPairing, RetransmittedRequestsAreAnsweredByteForByteAndCostNoAttempt) {
  host_rig rig;
  engine_peer client = rig.client(2);
  const peer::bytes init = client.pair_init(rig.pairing().pin, PIN);
  const peer::bytes answer = rig.answer(init, HOME);
  EXPECT_EQ(rig.answer(init, HOME), answer);
  EXPECT_EQ(rig.host->pairing.pin_pair.attempts, 1);
  const peer::bytes confirm = client.pair_take(answer);
  const peer::bytes ok = rig.answer(confirm, HOME);
  ASSERT_EQ(type_of(ok), LUND_PKT_PAIR_OK);
  EXPECT_EQ(rig.answer(confirm, HOME), ok);
  EXPECT_EQ(types(rig), (std::vector<std::uint32_t>{LUND_EV_PAIR_ATTEMPT, LUND_EV_PAIRED,
                                                    LUND_EV_PAIRING_CLOSED}));
}

TEST_F(HostPairing, WrongPinShowsAsSilenceAndFailsAfterTenSeconds) {
  host_rig rig;
  engine_peer client = rig.client(2);
  EXPECT_FALSE(pair(rig, client, wrong_pin(rig).c_str(), PIN));
  EXPECT_EQ(client.pair_result, LUND_ERR_AUTH);
  rig.events();
  rig.wait_us(10 * SECOND_US);
  EXPECT_TRUE(rig.events().empty());
  rig.wait_us(1);
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].type, LUND_EV_PAIR_ATTEMPT_FAILED);
  EXPECT_EQ(events[0].status, 1);
  EXPECT_EQ(events[0].kind, LUND_KIND_PIN);
  EXPECT_TRUE(lund_rv_endpoint_equal(events[0].addr, HOME));
  EXPECT_EQ(rig.lines.back(),
            "pairing attempt 1 (PIN) from 192.168.1.20:5000 failed: no confirmation (wrong PIN?)");
  EXPECT_EQ(listed(rig), 0);
}

TEST_F(HostPairing, EleventhExchangeBurnsThePinAndTheWindowStaysOpen) {
  host_rig rig;
  engine_peer client = rig.client(2);
  for (int i = 1; i <= 10; ++i) {
    ASSERT_EQ(type_of(guess(rig, client, PIN)), LUND_PKT_PAIR_RESP) << i;
    virtual_time::advance_us(SECOND_US);
  }
  rig.events();
  rig.lines.clear();
  lund_pair burnt = rig.host->pairing.pin_pair;
  EXPECT_TRUE(refused(guess(rig, client, PIN), client, LUND_PAIR_FAIL_LOCKED));
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0].status, 1) << "the tenth is over";
  EXPECT_EQ(events[1].type, LUND_EV_PAIR_ATTEMPT_FAILED);
  EXPECT_EQ(events[1].status, 2);
  EXPECT_EQ(events[1].kind, LUND_KIND_PIN);
  EXPECT_EQ(events[2].type, LUND_EV_PIN_CHANGED);
  EXPECT_EQ(rig.lines, (std::vector<std::string>{
                           "pairing attempt 10 (PIN) from 203.0.113.7:6000 failed: no confirmation",
                           "PIN pairing locked after 10 attempts (last from 203.0.113.7:6000): "
                           "new PIN"}));
  const lund_pair& fresh = rig.host->pairing.pin_pair;
  EXPECT_EQ(fresh.attempts, 0);
  EXPECT_EQ(std::memcmp(fresh.secret, rig.host->pairing.pin, 6), 0);
  EXPECT_EQ(std::string(rig.pairing().pin), std::string(rig.host->pairing.pin));
  EXPECT_NE(std::memcmp(fresh.secret, burnt.secret, 6), 0) << "one in a million";
  EXPECT_TRUE(pair(rig, client, rig.pairing().pin, PIN));
}

TEST_F(HostPairing, FailedAttemptsOnAPinAreNotForgottenBySilence) {
  host_rig rig;
  engine_peer client = rig.client(2);
  for (int i = 0; i < 10; ++i) {
    guess(rig, client, PIN);
    rig.wait_us(3600 * SECOND_US);
  }
  EXPECT_EQ(type_of(guess(rig, client, PIN)), LUND_PKT_PAIR_FAIL);
}

TEST_F(HostPairing, PinAttemptsMayBeConfigured) {
  lund_host_config config;
  config.pin_attempts = 2;
  host_rig rig({}, nullptr, config);
  engine_peer client = rig.client(2);
  guess(rig, client, PIN);
  EXPECT_TRUE(rig.logged("pairing attempt 1/2 (PIN)"));
  EXPECT_EQ(type_of(guess(rig, client, PIN)), LUND_PKT_PAIR_RESP);
  EXPECT_EQ(type_of(guess(rig, client, PIN)), LUND_PKT_PAIR_FAIL);
}

TEST_F(HostPairing, NewExchangeReplacesTheOneUnderWay) {
  host_rig rig;
  engine_peer first = rig.client(2);
  engine_peer second = rig.client(3);
  const std::string pin = rig.pairing().pin;
  const peer::bytes confirm = first.pair_take(rig.answer(first.pair_init(pin.c_str(), PIN), HOME));
  EXPECT_TRUE(pair(rig, second, pin.c_str(), PIN));
  EXPECT_TRUE(rig.logged(
      "pairing attempt 1 (PIN) from 192.168.1.20:5000 failed: replaced by a new attempt"));
  EXPECT_TRUE(rig.answer(confirm, HOME).empty());
  EXPECT_EQ(listed(rig), 1);
}

TEST_F(HostPairing, ConfirmationUnderAnotherIdIsDroppedAndChangesNothing) {
  host_rig rig({}, BLOB.c_str());
  engine_peer client = rig.client(2);
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(rig.pairing().pin, PIN), HOME));
  rig.events();
  peer::bytes forged = confirm;
  forged[8] ^= 1;
  EXPECT_TRUE(rig.answer(forged, AWAY).empty());
  EXPECT_TRUE(rig.answer(peer::bytes(confirm.begin(), confirm.begin() + 23), AWAY).empty());
  EXPECT_TRUE(rig.answer(peer::bytes(confirm.begin(), confirm.begin() + 24), AWAY).empty());
  EXPECT_TRUE(rig.events().empty());
  EXPECT_EQ(rig.host->pairing.pin_attempt.active, 1U);
  EXPECT_EQ(type_of(rig.answer(confirm, HOME)), LUND_PKT_PAIR_OK) << "the true one is still taken";
}

TEST_F(HostPairing, ForgedConfirmationUnderTheRightIdCostsOnlyThatExchange) {
  host_rig rig;
  engine_peer client = rig.client(2);
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(rig.pairing().pin, PIN), HOME));
  rig.events();
  peer::bytes forged = confirm;
  forged.back() ^= 1;
  EXPECT_TRUE(refused(rig.answer(forged, AWAY), client, LUND_PAIR_FAIL_SECRET));
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIR_ATTEMPT_FAILED});
  EXPECT_EQ(rig.lines.back(),
            "pairing attempt 1 (PIN) from 192.168.1.20:5000 failed: bad confirmation");
  EXPECT_TRUE(rig.answer(confirm, HOME).empty());
  EXPECT_EQ(listed(rig), 0);
  EXPECT_EQ(rig.pairing().open, 1U);
  EXPECT_TRUE(pair(rig, client, rig.pairing().pin, PIN)) << "the PIN still stands";
}

TEST_F(HostPairing, LowOrderPointIsCountedAndUnanswered) {
  host_rig rig;
  engine_peer client = rig.client(2);
  peer::bytes init = client.pair_init(rig.pairing().pin, PIN);
  std::fill(init.begin() + 24, init.end(), std::uint8_t{0});
  EXPECT_TRUE(rig.answer(init, AWAY).empty());
  EXPECT_EQ(rig.host->pairing.pin_pair.attempts, 1);
  EXPECT_TRUE(rig.events().empty());
}

TEST_F(HostPairing, MalformedRequestsAreDroppedUnanswered) {
  host_rig rig;
  engine_peer client = rig.client(2);
  const peer::bytes init = client.pair_init(rig.pairing().pin, PIN);
  peer::bytes odd_flags = init;
  odd_flags[3] = 2;
  peer::bytes with_session = init;
  with_session[7] = 1;
  peer::bytes longer = init;
  longer.push_back(0);
  for (const peer::bytes& packet :
       {odd_flags, with_session, longer, peer::bytes(init.begin(), init.end() - 1)})
    EXPECT_TRUE(rig.answer(packet, AWAY).empty());
  EXPECT_EQ(rig.host->pairing.pin_pair.attempts, 0);
  EXPECT_EQ(rig.host->pair_limit.last, 0U);
}

TEST_F(HostPairing, RequestsAndRefusalsAreLimited) {
  host_rig rig(clients_of({2}));
  engine_peer client = rig.client(3);
  for (int i = 0; i < 30; ++i) rig.receive(client.pair_init("x", PIN), AWAY);
  EXPECT_EQ(rig.sent.size(), 10U) << "refusals: a burst of 10";
  lund_host_pairing_open(rig.host, 0);
  rig.sent.clear();
  rig.receive(client.pair_init("x", PIN), AWAY);
  EXPECT_TRUE(rig.sent.empty()) << "requests: the burst of 20 is used up";
  virtual_time::advance_us(100'000);
  rig.receive(client.pair_init("x", PIN), AWAY);
  rig.receive(client.pair_init("x", PIN), AWAY);
  EXPECT_EQ(rig.sent.size(), 1U) << "10 a second";
}

TEST_F(HostPairing, WindowTimesOut) {
  host_rig rig(clients_of({2}));
  lund_host_pairing_open(rig.host, 30);
  rig.wait_us(30 * SECOND_US - 1);
  EXPECT_EQ(rig.pairing().open, 1U);
  rig.wait_us(1);
  EXPECT_EQ(rig.pairing().open, 0U);
  EXPECT_EQ(rig.lines, std::vector<std::string>{"pairing closed (timed out)"});
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIRING_CLOSED});
}

TEST_F(HostPairing, ClosingIsReportedOnce) {
  host_rig rig;
  lund_host_pairing_close(rig.host);
  lund_host_pairing_close(rig.host);
  EXPECT_EQ(rig.pairing().open, 0U);
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIRING_CLOSED});
}

TEST_F(HostPairing, ExchangeBegunInTheWindowMayFinishAfterIt) {
  host_rig rig;
  engine_peer client = rig.client(2);
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(rig.pairing().pin, PIN), HOME));
  lund_host_pairing_close(rig.host);
  rig.events();
  EXPECT_EQ(type_of(rig.answer(confirm, HOME)), LUND_PKT_PAIR_OK);
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIRED});
}

TEST_F(HostPairing, AuthorizedDeviceClosesTheFirstWindowAndNoOther) {
  host_rig rig;
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(2).public_key, "x"), 0);
  EXPECT_EQ(rig.lines,
            (std::vector<std::string>{"client authorized without pairing (two-way pairing)",
                                      "pairing closed (a device was authorized)"}));
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIRING_CLOSED});
  lund_host_pairing_open(rig.host, 30);
  EXPECT_EQ(lund_host_add_client(rig.host, peer::keypair_of(3).public_key, "y"), 0);
  EXPECT_EQ(rig.pairing().open, 1U);
}

TEST_F(HostPairing, ThirtyThirdDevicePairsButIsNotListedAndIsUnknownToTheHandshake) {
  lund_client_list full;
  for (std::uint8_t seed = 2; seed < 34; ++seed)
    lund_client_list_add(&full, peer::keypair_of(seed).public_key, "x");
  host_rig rig(full);
  lund_host_pairing_open(rig.host, 0);
  engine_peer client = rig.client(50);
  EXPECT_TRUE(pair(rig, client, rig.pairing().pin, PIN)) << "got PAIR_OK";
  EXPECT_EQ(listed(rig), LUND_CLIENTS_MAX);
  EXPECT_TRUE(rig.logged("using the PIN BUT THE LIST IS FULL"));
  EXPECT_EQ(types(rig), std::vector<std::uint32_t>{LUND_EV_PAIR_ATTEMPT});
  EXPECT_EQ(rig.host->pairing.pin_pair.attempts, 1);
  EXPECT_EQ(rig.pairing().open, 1U);
  EXPECT_EQ(rig.answer(client.hs_init(), HOME)[8], LUND_REJECT_UNKNOWN_DEVICE);
}

TEST_F(HostPairing, PasswordPairsManyDevices) {
  host_rig rig(clients_of({2}), BLOB.c_str());
  for (const std::uint8_t seed : {std::uint8_t{3}, std::uint8_t{4}}) {
    engine_peer client = rig.client(seed);
    EXPECT_TRUE(pair(rig, client, VERIFIER.c_str(), PASSWORD));
    EXPECT_EQ(rig.host->pairing.password_pair.attempts, 0);
    virtual_time::advance_us(SECOND_US);
  }
  EXPECT_EQ(listed(rig), 3);
  EXPECT_TRUE(rig.logged("pairing attempt 1/10 (password) from 192.168.1.20:5000"));
  EXPECT_TRUE(rig.logged("using the password"));
}

TEST_F(HostPairing, WithoutAPasswordThatWayIsNotAvailable) {
  host_rig rig;
  engine_peer client = rig.client(2);
  EXPECT_TRUE(refused(guess(rig, client, PASSWORD), client, LUND_PAIR_FAIL_UNAVAILABLE));
}

TEST_F(HostPairing, PasswordGuessesWithinASecondAreDroppedWhileARetransmissionIsAnswered) {
  host_rig rig({}, BLOB.c_str());
  engine_peer first = rig.client(2);
  engine_peer second = rig.client(3);
  const peer::bytes init = first.pair_init("wrong", PASSWORD);
  const peer::bytes answer = rig.answer(init, HOME);
  ASSERT_EQ(type_of(answer), LUND_PKT_PAIR_RESP);
  virtual_time::advance_us(SECOND_US - 1);
  EXPECT_TRUE(guess(rig, second, PASSWORD).empty());
  EXPECT_EQ(rig.answer(init, HOME), answer);
  EXPECT_EQ(rig.host->pairing.password_pair.attempts, 1);
  virtual_time::advance_us(1);
  EXPECT_EQ(type_of(guess(rig, second, PASSWORD)), LUND_PKT_PAIR_RESP);
}

TEST_F(HostPairing, IdOfAFailedExchangeIsNoWayAroundTheSecondBetweenGuesses) {
  host_rig rig({}, BLOB.c_str());
  engine_peer client = rig.client(2);
  const peer::bytes init = client.pair_init(VERIFIER.c_str(), PASSWORD);
  peer::bytes confirm = client.pair_take(rig.answer(init, HOME));
  confirm.back() ^= 1;
  ASSERT_EQ(type_of(rig.answer(confirm, HOME)), LUND_PKT_PAIR_FAIL);
  EXPECT_TRUE(rig.answer(init, HOME).empty());
  EXPECT_EQ(rig.host->pairing.password_pair.attempts, 1);
}

TEST_F(HostPairing, GuessedPasswordLocksForTenMinutes) {
  host_rig rig({}, BLOB.c_str());
  engine_peer client = rig.client(2);
  for (int i = 1; i <= 10; ++i) {
    ASSERT_EQ(type_of(guess(rig, client, PASSWORD)), LUND_PKT_PAIR_RESP) << i;
    rig.wait_us(SECOND_US);
  }
  EXPECT_EQ(capabilities(rig), 0b011);
  rig.events();
  EXPECT_TRUE(refused(guess(rig, client, PASSWORD), client, LUND_PAIR_FAIL_LOCKED));
  const auto events = rig.events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].status, 1);
  EXPECT_EQ(events[1].type, LUND_EV_PAIR_ATTEMPT_FAILED);
  EXPECT_EQ(events[1].status, 2);
  EXPECT_EQ(events[1].kind, LUND_KIND_PASSWORD);
  EXPECT_EQ(rig.lines.back(),
            "password pairing locked for 600 s after 10 attempts (last from 203.0.113.7:6000)");
  EXPECT_EQ(rig.pairing().password_locked, 1U);
  EXPECT_EQ(capabilities(rig), 0b111);

  rig.wait_us(600 * SECOND_US - 1);
  EXPECT_TRUE(refused(guess(rig, client, PASSWORD), client, LUND_PAIR_FAIL_LOCKED));
  EXPECT_FALSE(pair(rig, client, VERIFIER.c_str(), PASSWORD)) << "the right one is refused too";
  EXPECT_TRUE(rig.events().empty());
  rig.wait_us(1);
  EXPECT_EQ(rig.lines.back(), "password pairing unlocked");
  EXPECT_EQ(rig.pairing().password_locked, 0U);
  EXPECT_EQ(rig.host->pairing.password_pair.attempts, 0);
  EXPECT_TRUE(pair(rig, client, VERIFIER.c_str(), PASSWORD));
}

TEST_F(HostPairing, LockTimeAndPasswordAttemptsMayBeConfigured) {
  lund_host_config config;
  config.password_attempts = 1;
  config.password_lock_seconds = 30;
  host_rig rig({}, BLOB.c_str(), config);
  engine_peer client = rig.client(2);
  guess(rig, client, PASSWORD);
  rig.wait_us(SECOND_US);
  EXPECT_EQ(type_of(guess(rig, client, PASSWORD)), LUND_PKT_PAIR_FAIL);
  EXPECT_TRUE(rig.logged("password pairing locked for 30 s after 1 attempts"));
  rig.wait_us(30 * SECOND_US);
  EXPECT_EQ(type_of(guess(rig, client, PASSWORD)), LUND_PKT_PAIR_RESP);
}

TEST_F(HostPairing, WrongPasswordShowsAsSilenceAndFailsAfterTenSeconds) {
  host_rig rig({}, BLOB.c_str());
  engine_peer client = rig.client(2);
  guess(rig, client, PASSWORD);
  rig.wait_us(PAIR_ATTEMPT_LIFE_US + 1);
  EXPECT_EQ(rig.lines.back(),
            "pairing attempt 1 (password) from 203.0.113.7:6000 failed: no confirmation (wrong "
            "password?)");
}

TEST_F(HostPairing, PinAndPasswordExchangesRunSideBySide) {
  host_rig rig({}, BLOB.c_str());
  engine_peer by_pin = rig.client(2);
  engine_peer by_password = rig.client(3);
  const peer::bytes pin_confirm =
      by_pin.pair_take(rig.answer(by_pin.pair_init(rig.pairing().pin, PIN), HOME));
  EXPECT_TRUE(pair(rig, by_password, VERIFIER.c_str(), PASSWORD));
  EXPECT_EQ(rig.pairing().open, 1U) << "a password doesn't close the window";
  EXPECT_EQ(type_of(rig.answer(pin_confirm, HOME)), LUND_PKT_PAIR_OK);
  EXPECT_EQ(listed(rig), 2);
}

TEST_F(HostPairing, UnreadableBlobLeavesPasswordPairingOffWithOneLine) {
  const std::string broken[] = {BLOB + "a", "lunderhaze-pw1 " + SALT + " 1024 17 " + VERIFIER,
                                "lunderhaze-pw2 " + SALT + " 1024 2 " + VERIFIER};
  for (const std::string& blob : broken) {
    const host_rig rig(clients_of({2}), blob.c_str());
    EXPECT_EQ(rig.pairing().has_password, 0U);
    EXPECT_EQ(rig.lines,
              std::vector<std::string>{"stored password is unreadable; password pairing is off"});
  }
  const host_rig empty(clients_of({2}), "");
  EXPECT_TRUE(empty.lines.empty());
}

TEST_F(HostPairing, ConfirmationAfterThePasswordWasClearedIsDropped) {
  host_rig rig(clients_of({2}), BLOB.c_str());
  engine_peer client = rig.client(3);
  const peer::bytes confirm =
      client.pair_take(rig.answer(client.pair_init(VERIFIER.c_str(), PASSWORD), HOME));
  ASSERT_EQ(type_of(confirm), LUND_PKT_PAIR_CONFIRM);
  lund_host_clear_password(rig.host);
  EXPECT_EQ(rig.lines.back(), "pairing password cleared");
  EXPECT_TRUE(rig.answer(confirm, HOME).empty());
  EXPECT_EQ(listed(rig), 1);
  EXPECT_EQ(rig.pairing().has_password, 0U);
  for (const std::uint8_t byte : rig.host->pairing.pw_verifier) EXPECT_EQ(byte, 0);
  for (const std::uint8_t byte : rig.host->pairing.password_pair.secret) EXPECT_EQ(byte, 0);
  EXPECT_EQ(rig.host->pairing.password_pair.role, 0);
}

TEST_F(HostPairing, SessionOfADevicePairedByPasswordOutlivesThePassword) {
  host_rig rig(clients_of({2}), BLOB.c_str());
  engine_peer client = rig.client(3);
  ASSERT_TRUE(pair(rig, client, VERIFIER.c_str(), PASSWORD));
  ASSERT_TRUE(rig.connect(client, HOME));
  lund_host_clear_password(rig.host);
  EXPECT_EQ(rig.receive(client.seal(peer::packet(LUND_PKT_PING)), HOME), LUND_RX_OPENED);
  EXPECT_TRUE(rig.connect(client, HOME));
}

// The only test here that derives: once on each side.
TEST_F(HostPairing, SetPasswordGivesTheBlobThatPairsAndUnlocks) {
  host_rig rig(clients_of({2}));
  char blob[LUND_PASSWORD_BLOB_MAX];
  EXPECT_EQ(lund_host_set_password(rig.host, nullptr, blob, sizeof blob), -1);
  EXPECT_EQ(lund_host_set_password(rig.host, "", blob, sizeof blob), -1);
  EXPECT_EQ(lund_host_set_password(rig.host, "secret", blob, sizeof blob - 1), -1);
  EXPECT_EQ(rig.pairing().has_password, 0U);
  rig.host->pairing.password_locked_until = lund_now_us() + SECOND_US;
  ASSERT_EQ(lund_host_set_password(rig.host, "secret", blob, sizeof blob), 0);
  EXPECT_EQ(rig.lines, std::vector<std::string>{"pairing password set"});
  EXPECT_EQ(rig.pairing().has_password, 1U);
  EXPECT_EQ(rig.pairing().password_locked, 0U);
  lund_password_record record;
  ASSERT_EQ(lund_password_blob_parse(&record, blob), 0);
  EXPECT_EQ(record.mem_kib, LUND_PASSWORD_MEM_KIB);
  EXPECT_EQ(record.iterations, LUND_PASSWORD_ITERATIONS);

  const peer::bytes info = rig.answer(peer::info_request(1), HOME);
  std::uint8_t verifier[32];
  ASSERT_EQ(lund_password_derive(verifier, "secret", info.data() + 21,
                                 load_le<std::uint32_t>(info.data() + 13),
                                 load_le<std::uint32_t>(info.data() + 17)),
            0);
  EXPECT_EQ(std::memcmp(verifier, record.verifier, sizeof verifier), 0);
  char secret[65];
  lund_hex_encode(secret, verifier, sizeof verifier);
  engine_peer client = rig.client(3);
  EXPECT_TRUE(pair(rig, client, secret, PASSWORD));
  host_rig restarted({}, blob);
  EXPECT_TRUE(pair(restarted, client, secret, PASSWORD));
}

TEST_F(HostPairing, HostInfoShowsKeyNameAndWaysToPair) {
  host_rig rig(clients_of({2}), BLOB.c_str());
  const peer::bytes info = rig.answer(peer::info_request(0xA1B2C3D4), HOME);
  ASSERT_EQ(info.size(), 74U);
  EXPECT_EQ(peer::bytes(info.begin(), info.begin() + 8), peer::packet(LUND_PKT_HOST_INFO));
  EXPECT_EQ(load_le<std::uint32_t>(info.data() + 8), 0xA1B2C3D4U);
  EXPECT_EQ(info[12], 0b010);
  EXPECT_EQ(load_le<std::uint32_t>(info.data() + 13), 1024U);
  EXPECT_EQ(load_le<std::uint32_t>(info.data() + 17), 2U);
  for (std::uint8_t i = 0; i < 16; ++i) EXPECT_EQ(info[21 + i], i);
  EXPECT_EQ(std::memcmp(info.data() + 37, rig.key(), LUND_KEY_SIZE), 0);
  EXPECT_EQ(info[69], 4);
  EXPECT_EQ(std::string(info.begin() + 70, info.end()), "Desk");
}

TEST_F(HostPairing, HostInfoWithoutAPasswordHasNoParameters) {
  host_rig rig;
  const peer::bytes info = rig.answer(peer::info_request(1), HOME);
  EXPECT_EQ(info[12], 0b001);
  for (std::size_t i = 13; i < 37; ++i) EXPECT_EQ(info[i], 0) << i;
}

TEST_F(HostPairing, HostInfoRequestHasOneFormAndIsLimited) {
  host_rig rig;
  const peer::bytes request = peer::info_request(1);
  peer::bytes flagged = request;
  flagged[3] = 1;
  peer::bytes with_session = request;
  with_session[4] = 1;
  peer::bytes longer = request;
  longer.push_back(0);
  for (const peer::bytes& packet :
       {flagged, with_session, longer, peer::bytes(request.begin(), request.end() - 1)})
    EXPECT_TRUE(rig.answer(packet, AWAY).empty());
  peer::bytes padded = request;
  padded[63] = 9;
  EXPECT_FALSE(rig.answer(padded, AWAY).empty()) << "the padding isn't looked at";
  rig.sent.clear();
  for (int i = 0; i < 50; ++i) rig.receive(request, AWAY);
  EXPECT_EQ(rig.sent.size(), 39U);
  virtual_time::advance_us(SECOND_US);
  for (int i = 0; i < 50; ++i) rig.receive(request, AWAY);
  EXPECT_EQ(rig.sent.size(), 59U);
}
