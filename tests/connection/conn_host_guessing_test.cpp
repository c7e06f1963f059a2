// How many guesses at a secret a host allows to somebody who sends all that it looks at. A guess is
// an answer to a new exchange: whether it was right shows in that answer alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "tests/support/host_rig.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr std::uint64_t EVERY_US = 50'000;  // twice as often as the host looks at them
const lund_rv_endpoint AWAY = peer::at("203.0.113.7:6000");
const std::string BLOB =
    "lunderhaze-pw1 000102030405060708090a0b0c0d0e0f 1024 2 " + std::string(64, 'a');

class HostGuessing : public ::testing::Test {
 protected:
  HostGuessing() { virtual_time::reset(); }

  // The host can't tell the same point under new ids from a new point.
  static int guesses_in(host_rig& rig, std::uint64_t duration_us, std::uint32_t kind,
                        std::uint64_t every_us) {
    engine_peer client = rig.client(2);
    peer::bytes request = client.pair_init("not the secret", kind);
    int guesses = 0;
    std::uint64_t id = 0;
    for (std::uint64_t passed_us = 0; passed_us < duration_us; passed_us += every_us) {
      store_le(request.data() + 8, ++id);
      const peer::bytes answer = rig.answer(request, AWAY);
      if (!answer.empty() && answer[2] == LUND_PKT_PAIR_RESP) ++guesses;
      rig.wait_us(every_us);
      rig.lines.clear();
    }
    return guesses;
  }
};

}  // namespace

TEST_F(HostGuessing, AWindowOfTwoMinutesAllowsElevenHundredGuessesAtThePin) {
  host_rig rig(clients_of({3}));
  lund_host_pairing_open(rig.host, 120);
  const int guesses = guesses_in(rig, 130 * SECOND_US, LUND_KIND_PIN, EVERY_US);
  EXPECT_LE(guesses, 1'110);
  EXPECT_GE(guesses, 1'090);
}

TEST_F(HostGuessing, AHostThatKnowsNoDeviceAllowsNineGuessesASecond) {
  host_rig rig;
  const int guesses = guesses_in(rig, 200 * SECOND_US, LUND_KIND_PIN, EVERY_US);
  EXPECT_LE(guesses, 200 * 10 * 10 / 11 + 20);
  EXPECT_GE(guesses, 200 * 9);
}

TEST_F(HostGuessing, ADayAllowsFourteenHundredGuessesAtThePassword) {
  host_rig rig(clients_of({3}), BLOB.c_str());
  const int guesses =
      guesses_in(rig, std::uint64_t{86'400} * SECOND_US, LUND_KIND_PASSWORD, SECOND_US / 2);
  EXPECT_LE(guesses, 1'430);
  EXPECT_GE(guesses, 1'380);
}
