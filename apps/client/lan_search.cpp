#include "apps/client/lan_search.h"

#include <algorithm>
#include <cstring>

#include "connection/lists.h"
#include "control/sysinfo.h"

namespace {

constexpr std::uint64_t FIRST_REPEATS_US[] = {500'000, 1'000'000};  // a lost broadcast
constexpr std::uint64_t SOON_US = 2'000'000;
constexpr std::uint64_t SOON_UNTIL_US = 10'000'000;
constexpr std::uint64_t SELDOM_US = 5'000'000;
constexpr std::size_t HOSTS_MAX = 64;      // anyone on the network may answer as often as he likes
constexpr std::size_t ADDRESSES_MAX = 16;  // of one host
constexpr std::size_t CANDIDATES_MAX = 6;  // of the engine's 16 paths

bool same_address(const std::vector<lund_rv_endpoint>& addresses, const lund_rv_endpoint& address) {
  return std::ranges::any_of(
      addresses, [&](const auto& known) { return lund_rv_endpoint_equal(known, address); });
}

// A host on this very computer also answers on its loopback; its network address says more.
bool is_loopback(const lund_rv_endpoint& address) {
  return address.family == 4 && address.address[0] == 127;
}

}  // namespace

std::vector<lund_rv_endpoint> discover_targets(std::uint16_t port) {
  std::vector<lund_rv_endpoint> targets;
  auto add = [&](std::uint32_t network_order) {
    lund_rv_endpoint target;
    target.family = 4;
    target.port = port;
    std::memcpy(target.address.data(), &network_order, sizeof network_order);
    if (!same_address(targets, target)) targets.push_back(target);
  };
  add(0xFFFFFFFF);
  for (const LocalInterface& local : local_ipv4_interfaces())
    if (local.mask != 0) add(local.address | ~local.mask);
  lund_rv_endpoint own;
  lund_addr_parse(&own, "127.0.0.1", port);
  targets.push_back(own);
  return targets;
}

const FoundHost* take_discover_reply(std::vector<FoundHost>* hosts, std::uint32_t nonce,
                                     const std::uint8_t* datagram, std::size_t size,
                                     const lund_rv_endpoint& from) {
  lund_discover_reply reply;
  if (lund_decode_discover_reply(datagram, size, &reply) != 0 || reply.nonce != nonce ||
      reply.port == 0)
    return nullptr;
  char name[sizeof reply.name];
  conn_clean_name(name, reply.name);
  std::memcpy(reply.name, name, sizeof name);
  lund_rv_endpoint address = from;
  address.port = reply.port;

  const auto same = [&](const FoundHost& host) { return host.reply.lan_id == reply.lan_id; };
  auto host = std::ranges::find_if(*hosts, same);
  if (host == hosts->end()) {
    if (hosts->size() == HOSTS_MAX) return nullptr;
    hosts->push_back({});
    host = hosts->end() - 1;
  }
  host->reply = reply;
  if (same_address(host->addresses, address) || host->addresses.size() == ADDRESSES_MAX)
    return &*host;
  const auto loopback = std::ranges::find_if(host->addresses, is_loopback);
  host->addresses.insert(is_loopback(address) ? host->addresses.end() : loopback, address);
  return &*host;
}

bool is_wanted(const LanWanted& wanted, const lund_discover_reply& reply) {
  switch (wanted.by) {
    case LanWanted::By::Nothing:
      return false;
    case LanWanted::By::LanId:
      return wanted.lan_id != 0 ? reply.lan_id == wanted.lan_id : wanted.name == reply.name;
    case LanWanted::By::Name:
      return wanted.name == reply.name;
    case LanWanted::By::Any:
      return true;
  }
  return false;
}

LanSearch::LanSearch(LanWanted wanted, std::uint64_t now_us)
    : wanted_(std::move(wanted)), started_us_(now_us), next_us_(now_us) {}

bool LanSearch::due(std::uint64_t now_us) const {
  return wanted_.by != LanWanted::By::Nothing && now_us >= next_us_;
}

void LanSearch::skip(std::uint64_t now_us) {
  const auto repeat = static_cast<std::size_t>(asked_++);
  if (repeat < std::size(FIRST_REPEATS_US))
    next_us_ = now_us + FIRST_REPEATS_US[repeat];
  else
    next_us_ = now_us + (now_us - started_us_ < SOON_UNTIL_US ? SOON_US : SELDOM_US);
}

std::size_t LanSearch::ask(std::uint64_t now_us, std::uint8_t* packet, std::size_t capacity) {
  skip(now_us);
  nonce_ = random_u32();
  const lund_packet_header header;
  const lund_discover question{nonce_};
  return lund_encode_discover(packet, capacity, &header, &question);
}

const lund_rv_endpoint* LanSearch::take(const std::uint8_t* datagram, std::size_t size,
                                        const lund_rv_endpoint& from) {
  const FoundHost* host = take_discover_reply(&found_, nonce_, datagram, size, from);
  if (!host || !is_wanted(wanted_, host->reply)) return nullptr;
  lund_rv_endpoint address = from;
  address.port = host->reply.port;
  if (same_address(candidates_, address) || candidates_.size() == CANDIDATES_MAX) return nullptr;
  return &candidates_.emplace_back(address);
}

std::uint32_t LanSearch::lan_id_at(const lund_rv_endpoint& address) const {
  for (const FoundHost& host : found_)
    if (same_address(host.addresses, address)) return host.reply.lan_id;
  return 0;
}
