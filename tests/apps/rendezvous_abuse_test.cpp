// The rendezvous server among the hostile: floods, with the shared key and without, and forged
// senders.
#include <algorithm>

#include "connection/byte_order.h"
#include "tests/apps/rendezvous_rig.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/netsim.h"

namespace {

using peer::at;
using Bytes = RendezvousRig::Bytes;

lund_rv_endpoint ipv4(std::uint32_t address, std::uint16_t port) {
  lund_rv_endpoint out;
  out.family = 4;
  out.port = port;
  store_le(out.address.data(), address);
  return out;
}

lund_keypair numbered_keys(std::uint32_t number) {
  std::uint8_t secret[LUND_KEY_SIZE] = {};
  store_le(secret + 1, number + 1);
  lund_keypair keys;
  lund_keypair_from_secret(&keys, secret);
  return keys;
}

// Some hosts, one of them the target of a flood of look-ups from addresses all over the internet.
class RendezvousFlood : public testing::Test {
 protected:
  static constexpr std::uint32_t HOSTS = 200;
  static constexpr int LOOKUPS_A_SECOND = 10'000;
  static constexpr int SECONDS = 25;

  RendezvousFlood() {
    for (std::uint32_t i = 0; i < HOSTS; ++i) {
      hosts.emplace_back(rig, numbered_keys(i), ipv4(0x0100007F + (i << 8), 9876));
      if (hosts.back().register_fully().type != LUND_RV_REGISTERED) ADD_FAILURE() << i;
      rig.wait_ms(1);
    }
  }

  lund_rv_endpoint somewhere() {
    return ipv4(static_cast<std::uint32_t>(random.next()),
                static_cast<std::uint16_t>(1 + random.below(65535)));
  }

  // One second of the flood, `each` called ten times in it.
  template <class Datagram, class Each>
  void flood_for_a_second(const Datagram& datagram, const Each& each) {
    for (int i = 0; i < LOOKUPS_A_SECOND; ++i) {
      rig.receive(datagram(), somewhere());
      if (i % (LOOKUPS_A_SECOND / 10) != 0) continue;
      rig.wait_ms(100);
      each();
    }
    for (const auto& sent : rig.sent) ++sent_to[{sent.to.address, sent.to.port}];
    rig.sent.clear();
  }

  // Everything that a genuine user's programs do, from an address never seen before.
  void a_client_comes_through(SimHost& host) {
    for (const auto& sent : rig.sent) ++sent_to[{sent.to.address, sent.to.port}];
    rig.sent.clear();
    SimClient client(rig, somewhere());
    const lund_rv_message found = client.look_up(host);
    ASSERT_EQ(found.type, LUND_RV_LOOKUP_RESULT);
    ASSERT_EQ(found.status, 0);
    host.take_notification();
    ASSERT_EQ(client.bind().status, 0);
    host.take_notification();
    ASSERT_EQ(host.notice.allocation, client.result.allocation);
    ASSERT_EQ(host.bind().status, 0);
    client.send(sealed_record());
    host.send(sealed_record());
    ASSERT_EQ(rig.sent.size(), 2u);
    EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[0].to, host.address));
    EXPECT_TRUE(lund_rv_endpoint_equal(rig.sent[1].to, client.address));
    rig.sent.clear();
  }

  void all_refresh() {
    for (SimHost& host : hosts) {
      rig.take(host.address);
      ASSERT_EQ(host.register_fully().type, LUND_RV_REGISTERED);
    }
  }

  RendezvousRig rig{{.accounts = 4096}};  // far fewer than the flood has addresses
  SeededRandom random{1};
  std::vector<SimHost> hosts;
  std::map<std::pair<std::array<std::uint8_t, 16>, std::uint16_t>, int> sent_to;
};

TEST_F(RendezvousFlood, OfLookUpsForOneHostLeavesItAndItsClientsAlone) {
  SimHost& target = hosts[0];
  const auto look_up = [&] {
    lund_rv_message message;
    message.type = LUND_RV_LOOKUP;
    message.target_size = 16;
    const Bytes id = target.key_id();
    std::copy(id.begin(), id.end(), message.target);
    return rig.encode(message);
  };
  const std::uint64_t before = rig.statistics().notifications;
  for (int second = 0; second < SECONDS; ++second) {
    flood_for_a_second(look_up, [] {});
    if (second % 5 == 0) a_client_comes_through(target);
    if (second % 20 == 19) all_refresh();
  }
  EXPECT_EQ(rig.statistics().hosts, HOSTS);
  EXPECT_EQ(rig.statistics().lookups, SECONDS * LOOKUPS_A_SECOND + 5u);
  // Two a second on behalf of addresses that may be forged, and the five clients'.
  EXPECT_LE(rig.statistics().notifications - before, 2u * SECONDS + 4u + 2u * 5u);
}

TEST_F(RendezvousFlood, OfLookUpsForAllHostsLeavesThemAndTheirClientsAlone) {
  std::vector<Bytes> look_ups;
  for (const SimHost& host : hosts) {
    lund_rv_message message;
    message.type = LUND_RV_LOOKUP;
    message.target_size = 5;
    const Bytes id = host.key_id();
    std::copy_n(id.begin(), 5, message.target);
    look_ups.push_back(rig.encode(message));
  }
  for (int second = 0; second < SECONDS; ++second) {
    flood_for_a_second([&] { return look_ups[random.below(HOSTS)]; }, [] {});
    if (second % 5 == 0) a_client_comes_through(hosts[random.below(HOSTS)]);
    if (second % 20 == 19) all_refresh();
  }
  EXPECT_EQ(rig.statistics().hosts, HOSTS);
}

TEST_F(RendezvousFlood, WithoutTheKeyIsNotEvenAnswered) {
  std::uint8_t wrong_key[LUND_KEY_SIZE] = {};
  lund_rv_message message;
  message.type = LUND_RV_LOOKUP;
  message.target_size = 16;
  Bytes look_up(LUND_RV_MESSAGE_MAX);
  look_up.resize(lund_rv_encode(look_up.data(), look_up.size(), wrong_key, &message));
  for (int second = 0; second < SECONDS; ++second) {
    flood_for_a_second([&] { return look_up; }, [] {});
    EXPECT_TRUE(sent_to.empty());
    if (second % 5 == 0) a_client_comes_through(hosts[0]);
    if (second % 20 == 19) all_refresh();
    sent_to.clear();
  }
  EXPECT_EQ(rig.statistics().bad_tag, static_cast<std::uint64_t>(SECONDS * LOOKUPS_A_SECOND));
  EXPECT_EQ(rig.statistics().hosts, HOSTS);
}

TEST(RendezvousMemory, AFloodOfLookUpsTakesNoneOnceTheTablesAreFull) {
  RendezvousRig rig{{.accounts = 256}};
  SeededRandom random(1);
  lund_rv_message message;
  message.type = LUND_RV_LOOKUP;
  message.target_size = 16;
  const Bytes look_up = rig.encode(message);
  rig.sink = true;
  const auto flood = [&](int datagrams) {
    for (int i = 0; i < datagrams; ++i)
      rig.receive(look_up, ipv4(static_cast<std::uint32_t>(random.next()), 7));
  };
  flood(1000);
  const AllocationCount allocations;
  flood(100'000);
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_EQ(rig.statistics().lookups, 101'000u);
}

TEST(RendezvousForwarding, AllocatesNothing) {
  RendezvousRig rig{{.relay_bytes_per_second = 0}};
  SimHost host(rig, peer::keypair_of(1), at("198.51.100.7:9876"));
  SimClient client(rig, at("203.0.113.20:50000"));
  host.register_fully();
  client.look_up(host);
  host.take_notification();
  client.bind();
  host.bind();
  const Bytes record = sealed_record(1200);
  rig.sent.clear();
  rig.sink = true;
  const AllocationCount allocations;
  for (int i = 0; i < 10'000; ++i) {
    rig.receive(record, client.address);
    rig.receive(record, host.address);
  }
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_EQ(rig.statistics().relayed, 20'000u);
}

// An attacker who has the shared key, some addresses of its own, hosts of its own among them, and
// the means to send from any other. Nobody whose address it forges is sent more than came in his
// name, and one answer.
class ForgedSenders : public testing::TestWithParam<std::uint64_t> {
 protected:
  static constexpr std::uint64_t VICTIMS = 8;

  ForgedSenders() {
    for (std::uint32_t i = 0; i < 3; ++i)
      hosts.emplace_back(rig, numbered_keys(i), ipv4(0x017100CB + (i << 24), 9));
    register_hosts();
  }

  void register_hosts() {
    for (SimHost& host : hosts) {
      rig.take(host.address);
      EXPECT_EQ(host.register_fully().type, LUND_RV_REGISTERED);
    }
    registers.clear();
    for (const SimHost& host : hosts) registers.push_back(host.register_message());
  }

  // 198.x.0.10, told apart by x.
  lund_rv_endpoint victim() {
    const auto x = static_cast<std::uint32_t>(random.below(VICTIMS));
    return ipv4(0x0A0000C6 | x << 8, static_cast<std::uint16_t>(1 + random.below(3)));
  }
  static bool is_victim(const lund_rv_endpoint& address) { return address.address[0] == 0xC6; }
  lund_rv_endpoint own() {
    return random.chance(0.5) ? hosts[random.below(hosts.size())].address
                              : clients[random.below(std::size(clients))];
  }

  void say(const Bytes& bytes, const lund_rv_endpoint& from) {
    if (is_victim(from)) received[from.address[1]] += bytes.size();
    rig.receive(bytes, from);
  }

  // What the attacker learns from the answers to its own addresses, and what the victims are sent.
  void look_at_answers() {
    for (const auto& sent : rig.sent) {
      lund_rv_message message;
      if (is_victim(sent.to)) {
        sent_bytes[sent.to.address[1]] += sent.bytes.size();
      } else if (lund_rv_decode(sent.bytes.data(), sent.bytes.size(), rig.net_key, &message) ==
                     LUND_OK &&
                 message.allocation != 0) {
        learned[{sent.to.address, sent.to.port}] = message;
      }
    }
    rig.sent.clear();
    for (const auto& [who, bytes] : sent_bytes)
      ASSERT_LE(bytes, received[who] + 256) << "victim " << int{who};
  }

  lund_rv_message a_request() {
    const std::size_t host = random.below(hosts.size());
    lund_rv_message message;
    switch (random.below(4)) {
      case 0:
        return registers[host];
      case 1: {
        message.type = LUND_RV_LOOKUP;
        message.target_size = 16;
        const Bytes id = random.chance(0.9) ? hosts[host].key_id() : Bytes(16);
        std::copy(id.begin(), id.end(), message.target);
        message.lan_count = static_cast<int>(random.below(5));
        for (int i = 0; i < message.lan_count; ++i) message.lan[i] = victim();
        return message;
      }
      case 2:
        return a_bind(own());
      default:
        message.type = static_cast<std::uint8_t>(LUND_RV_REGISTER + random.below(11));
        message.target_size = 16;
        return message;
    }
  }
  // With the token that this address of the attacker's was sent last.
  lund_rv_message a_bind(const lund_rv_endpoint& owner) {
    const lund_rv_message& token = learned[{owner.address, owner.port}];
    lund_rv_message message;
    message.type = LUND_RV_BIND;
    message.allocation = token.allocation;
    std::memcpy(message.token, token.token, sizeof message.token);
    message.side = token.type == LUND_RV_LOOKUP_RESULT ? 1 : 0;
    return message;
  }

  RendezvousRig rig;
  SeededRandom random{GetParam()};
  std::vector<SimHost> hosts;
  std::vector<lund_rv_message> registers;
  const lund_rv_endpoint clients[3] = {at("192.0.2.1:1"), at("192.0.2.1:2"), at("192.0.2.2:1")};
  std::map<std::pair<std::array<std::uint8_t, 16>, std::uint16_t>, lund_rv_message> learned;
  std::map<std::uint8_t, std::size_t> received, sent_bytes;
};

TEST_P(ForgedSenders, GetNobodySentMoreThanCameInHisName) {
  for (int step = 0; step < 20'000; ++step) {
    const std::uint64_t kind = random.below(100);
    if (kind < 50) {
      say(rig.encode(a_request()), victim());
    } else if (kind < 65) {
      say(rig.encode(a_request()), own());
    } else if (kind < 80) {
      const lund_rv_endpoint owner = own();
      say(rig.encode(a_bind(owner)), owner);
    } else if (kind < 97) {
      say(sealed_record(32 + random.below(1000)), random.chance(0.8) ? own() : victim());
    } else {
      rig.wait_ms(random.below(500));
    }
    look_at_answers();
    if (HasFatalFailure()) return;
    if (step % 200 == 0) register_hosts();
  }
  // It got as far as it could: answers, binds and relays of its own, tokens tried in others' names.
  EXPECT_EQ(sent_bytes.size(), VICTIMS);
  EXPECT_GT(rig.statistics().over_account, 100u);
  EXPECT_GT(rig.statistics().binds, 100u);
  EXPECT_GT(rig.statistics().relayed, 100u);
  EXPECT_GT(rig.statistics().moved, 10u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ForgedSenders, testing::Values(1, 2, 3, 4));

}  // namespace
