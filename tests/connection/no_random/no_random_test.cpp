// What becomes of keys, handshakes and pairings when the system's random source fails: this program
// has one that always does.
#include <gtest/gtest.h>

#include <algorithm>

#include "connection/cpace.h"
#include "connection/noise.h"
#include "connection/resolver.h"
#include "tests/support/wiped.h"

int lund_random_bytes(void*, std::size_t) {
  return LUND_ERR_RANDOM;
}

namespace {

lund_keypair keypair_of(std::uint8_t fill) {
  std::uint8_t secret[LUND_KEY_SIZE];
  std::fill(std::begin(secret), std::end(secret), fill);
  lund_keypair keypair;
  lund_keypair_from_secret(&keypair, secret);
  return keypair;
}

const lund_keypair CLIENT = keypair_of(1);
const lund_keypair HOST = keypair_of(2);

TEST(NoRandom, NoKeypairIsGenerated) {
  lund_keypair keypair;
  EXPECT_EQ(lund_keypair_generate(&keypair), LUND_ERR_RANDOM);
  EXPECT_TRUE(is_wiped(keypair));
}

TEST(NoRandom, NoHandshakeIsStarted) {
  lund_noise_ik state;
  std::uint8_t out[LUND_HS_INIT_SIZE];
  std::size_t size = 1;
  EXPECT_EQ(lund_hs_client_start(&state, &CLIENT, HOST.public_key, 1, out, sizeof out, &size),
            LUND_ERR_RANDOM);
  EXPECT_EQ(size, 0u);
  EXPECT_FALSE(contains(bytes_in(state), CLIENT.secret));
}

TEST(NoRandom, AHandshakeIsNotAnsweredNorASessionMade) {
  constexpr std::uint8_t PROLOGUE[] = {'l', 'u', 'n', 'd', 'e', 'r', 'h', 'a',
                                       'z', 'e', '-', 'i', 'k', '-', 'v', '1'};
  const lund_keypair ephemeral = keypair_of(3);
  const std::uint8_t timestamp[8] = {1};
  std::uint8_t init[LUND_HS_INIT_SIZE] = {0x50, 1, 0x58};
  std::uint8_t resp[LUND_HS_RESP_SIZE], client_public[LUND_KEY_SIZE];
  std::uint64_t read_timestamp = 0;
  std::size_t size = 0;
  lund_noise_ik client, host;
  lund_noise_ik_init(&client, true, PROLOGUE, sizeof PROLOGUE, &CLIENT, HOST.public_key);
  ASSERT_EQ(lund_noise_ik_write1(&client, ephemeral.secret, timestamp, 8, init + 8, 104, &size),
            LUND_OK);
  ASSERT_EQ(lund_hs_host_read(&host, &HOST, init, sizeof init, client_public, &read_timestamp),
            LUND_OK);
  lund_session session;
  for (const std::uint32_t session_id : {0u, 7u})
    EXPECT_EQ(lund_hs_host_respond(&host, session_id, resp, sizeof resp, &size, &session),
              LUND_ERR_RANDOM);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(session.session_id, 0u);
  EXPECT_TRUE(is_wiped(session.send_key) && is_wiped(session.recv_key));
}

TEST(NoRandom, NoPairingIsStarted) {
  lund_pair pair;
  std::uint8_t out[LUND_PAIR_MESSAGE_MAX];
  std::size_t size = 1;
  EXPECT_EQ(lund_pair_client_start(&pair, &CLIENT, "Laptop", "123456", out, sizeof out, &size),
            LUND_ERR_RANDOM);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(lund_pair_last_message(&pair, &size), nullptr);
}

TEST(NoRandom, APairingIsNotAnsweredButTheAttemptCounts) {
  lund_pair pair;
  lund_pair_host_init(&pair, &HOST, "Tower", "123456", 3);
  std::uint8_t init[56] = {0x50, 1, 0x50};
  init[24] = 9;
  std::uint8_t out[LUND_PAIR_MESSAGE_MAX];
  std::size_t size = 1;
  EXPECT_EQ(lund_pair_handle(&pair, init, sizeof init, out, sizeof out, &size), LUND_ERR_RANDOM);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(pair.attempts, 1);
  EXPECT_EQ(pair.state, LUND_PAIR_IDLE);
}

TEST(NoRandom, NoRelayIsAsked) {
  const std::uint8_t key[] = {1};
  lund_relay_server server;
  ASSERT_EQ(lund_relay_server_set(&server, "127.0.0.1", 9877, key, sizeof key), 0);
  std::uint64_t rtt_us = 1;
  EXPECT_EQ(lund_relay_check(&server, 30, &rtt_us), LUND_RELAY_LOCAL_FAILURE);
  EXPECT_EQ(rtt_us, 0u);
}

}  // namespace
