#include "apps/client/pairing.h"

#include <gtest/gtest.h>

#include "apps/client/host_choice.h"
#include "connection/noise.h"
#include "control/pair_back.h"
#include "tests/support/engine_peer.h"
#include "tests/support/socket_host.h"

namespace {

using Bytes = SocketHost::Bytes;

constexpr std::uint8_t CLIENT = 2, HOST = 1;

std::string code_of(const lund_keypair& keys) {
  char text[LUND_KEY_CODE_TEXT];
  lund_key_code(text, keys.public_key);
  return text;
}

class PairingTest : public testing::Test {
 protected:
  void open(const std::string& code = {}) {
    lund_client_config config;
    config.identity = peer::keypair_of(CLIENT);
    config.name = "laptop";
    config.host_code = code.c_str();
    ASSERT_TRUE(link_.open(config, &text_)) << text_;
  }
  void know_address(const SocketHost& host) {
    ASSERT_EQ(lund_client_add_candidate(link_.engine(), &host.address(), 0), 0);
  }
  PairEnd pair(SocketHost& host, const std::string& secret = {}) {
    PairRequest request;
    request.secret = secret.empty() ? host.pin() : secret;
    request.nobody = "nobody answered";
    return pair_with_host(link_, request, &paired_, &text_);
  }
  HostLink link_;
  lund_host_entry paired_;
  std::string text_;
};

// ---- Pairing

TEST_F(PairingTest, GivesTheHostsKeyNameAndAddress) {
  SocketHost host(peer::keypair_of(HOST), "desk");
  open();
  know_address(host);
  EXPECT_EQ(pair(host), PairEnd::Paired) << text_;
  EXPECT_EQ(std::memcmp(paired_.key, peer::keypair_of(HOST).public_key, LUND_KEY_SIZE), 0);
  EXPECT_STREQ(paired_.name, "desk");
  EXPECT_TRUE(lund_rv_endpoint_equal(paired_.lan_endpoint, host.address()));
  EXPECT_EQ(paired_.wan_endpoint.family, 0);
}

TEST_F(PairingTest, AWrongPinIsSaid) {
  SocketHost host(peer::keypair_of(HOST), "desk");
  open();
  know_address(host);
  const std::string wrong = host.pin() == "123456" ? "654321" : "123456";
  EXPECT_EQ(pair(host, wrong), PairEnd::WrongSecret);
  EXPECT_EQ(text_, "wrong PIN or password");
}

TEST_F(PairingTest, StoppingEndsTheWaitForAHost) {
  open();
  const std::atomic<bool> stop{true};
  PairRequest request;
  request.secret = "123456";
  request.stop = &stop;
  EXPECT_EQ(pair_with_host(link_, request, &paired_, &text_), PairEnd::Stopped);
}

// ---- Looking for the host on the LAN

TEST_F(PairingTest, AHostIsFoundByItsNameOnTheLan) {
  SocketHost other(peer::keypair_of(3), "attic");
  other.be_discoverable(8, "attic");
  SocketHost host(peer::keypair_of(HOST), "desk");
  host.be_discoverable(9, "desk");
  open();
  LanWanted wanted = wanted_for_pairing(parse_host("desk"), nullptr, LUND_PATHS_ALL);
  wanted.port = host.address().port;
  link_.look_for(wanted);
  EXPECT_EQ(pair(host), PairEnd::Paired) << text_;
  EXPECT_EQ(link_.lan_search().lan_id_at(paired_.lan_endpoint), 9u);
}

TEST_F(PairingTest, AHostIsFoundByItsKeyCodeOnTheLanWhateverItsName) {
  SocketHost host(peer::keypair_of(HOST), "desk");
  host.be_discoverable(9, "someone");
  const std::string code = code_of(peer::keypair_of(HOST));
  open(code);
  LanWanted wanted = wanted_for_pairing(parse_host(code), nullptr, LUND_PATHS_ALL);
  wanted.port = host.address().port;
  link_.look_for(wanted);
  EXPECT_EQ(pair(host), PairEnd::Paired) << text_;
}

TEST_F(PairingTest, WithAKeyCodeAnotherHostThatAnswersFirstIsPassedOver) {
  SocketHost other(peer::keypair_of(3), "desk");
  SocketHost host(peer::keypair_of(HOST), "desk");
  open(code_of(peer::keypair_of(HOST)));
  know_address(other);
  know_address(host);
  EXPECT_EQ(pair(host), PairEnd::Paired) << text_;
  EXPECT_EQ(std::memcmp(paired_.key, peer::keypair_of(HOST).public_key, LUND_KEY_SIZE), 0);
}

// ---- The offer to be reached in return

Bytes answer_offer(bool accepted) {
  std::uint8_t packet[16];
  const lund_packet_header header;
  const std::size_t size = lund_encode_pair_back_ack(packet, sizeof packet, &header, accepted);
  return {packet, packet + size};
}

// Refuses a number of offers, as a host does while its user decides, and keeps them all.
struct Offers {
  explicit Offers(int refuse_first) : refuse(refuse_first) {}
  Bytes operator()(const Bytes& packet) {
    lund_pair_back offer;
    if (lund_decode_pair_back(packet.data(), packet.size(), &offer) != 0) return {};
    const std::lock_guard lock(mutex);
    offers.push_back(offer);
    at_us.push_back(lund_now_us());
    return answer_offer(static_cast<int>(offers.size()) > refuse);
  }
  std::mutex mutex;
  int refuse;
  std::vector<lund_pair_back> offers;
  std::vector<std::uint64_t> at_us;
};

TEST_F(PairingTest, TheWayBackIsOfferedUntilItIsAccepted) {
  Offers offers(2);
  SocketHost host(peer::keypair_of(HOST), "desk",
                  [&](const Bytes& packet) { return offers(packet); });
  open();
  know_address(host);
  ASSERT_EQ(pair(host), PairEnd::Paired) << text_;
  const std::atomic<bool> stop{false};
  EXPECT_EQ(offer_way_back(link_, "laptop", 4321, stop), BackEnd::Accepted);

  const std::lock_guard lock(offers.mutex);
  ASSERT_EQ(offers.offers.size(), 3u);
  const lund_pair_back& offer = offers.offers.front();
  EXPECT_EQ(offer.back_value, 4321);
  EXPECT_STREQ(offer.name, "laptop");
  lund_rv_endpoint own[4];
  const int count = lund_net_local_endpoints(own, 4, 4321);
  ASSERT_EQ(offer.back_count, count);
  for (int i = 0; i < count; ++i)
    EXPECT_TRUE(lund_rv_endpoint_equal(pair_back_address(offer.back_values[i], 4321), own[i]));
  EXPECT_GE(offers.at_us[1] - offers.at_us[0], 400'000u);
  EXPECT_GE(offers.at_us[2] - offers.at_us[1], 400'000u);
}

TEST_F(PairingTest, StoppingEndsTheWaitForAnAnswer) {
  std::atomic<bool> stop{false};
  SocketHost host(peer::keypair_of(HOST), "desk", [&](const Bytes& packet) {
    lund_pair_back offer;
    if (lund_decode_pair_back(packet.data(), packet.size(), &offer) == 0) stop = true;
    return answer_offer(false);
  });
  open();
  know_address(host);
  ASSERT_EQ(pair(host), PairEnd::Paired) << text_;
  EXPECT_EQ(offer_way_back(link_, "laptop", 4321, stop), BackEnd::Stopped);
}

}  // namespace
