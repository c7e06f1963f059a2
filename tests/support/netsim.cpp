#include "tests/support/netsim.h"

#include <algorithm>
#include <utility>

#include "connection/clock.h"
#include "tests/support/virtual_time.h"

int NetSim::add_network(const Link& link) {
  networks_.push_back(link);
  return static_cast<int>(networks_.size()) - 1;
}

int NetSim::add_node(Receive receive, Tick tick) {
  nodes_.push_back({std::move(receive), std::move(tick), lund_now_us(), {}});
  return static_cast<int>(nodes_.size()) - 1;
}

void NetSim::attach(int node, int network, const lund_rv_endpoint& address) {
  nodes_[static_cast<std::size_t>(node)].addresses[network] = address;
}

int NetSim::network_of(const lund_rv_endpoint& address) const {
  for (const Node& node : nodes_)
    for (const auto& [network, own] : node.addresses)
      if (lund_rv_endpoint_equal(own, address)) return network;
  return default_network_;
}

NetSim::Node* NetSim::node_at(const lund_rv_endpoint& address) {
  for (Node& node : nodes_)
    for (const auto& [network, own] : node.addresses)
      if (lund_rv_endpoint_equal(own, address)) return &node;
  return nullptr;
}

void NetSim::send(int node, const lund_rv_endpoint& to, const std::uint8_t* bytes,
                  std::size_t size) {
  const int network = network_of(to);
  const auto& addresses = nodes_[static_cast<std::size_t>(node)].addresses;
  const auto own = addresses.find(network);
  if (own == addresses.end()) return;
  Datagram datagram{own->second, to, Bytes(bytes, bytes + size)};
  if (tap_) tap_(datagram);
  if (rewrite_ && !rewrite_(datagram)) return;
  transmit(node, network, datagram);
}

void NetSim::transmit(int node, int network, const Datagram& datagram) {
  const Link& link = this->link(network);
  const NetworkFate fate = decide_fate(random_, link);
  if (link.down) return;
  const std::uint64_t now = lund_now_us();
  const std::uint64_t sent =
      now + queues_[{node, network}].wait_us(link, datagram.bytes.size(), now);
  if (fate.arrives) in_flight_.push({sent + fate.after_us, order_++, datagram});
  if (fate.twice) in_flight_.push({sent + fate.copy_after_us, order_++, datagram});
}

void NetSim::inject(const lund_rv_endpoint& from, const lund_rv_endpoint& to, const Bytes& bytes) {
  in_flight_.push({lund_now_us(), order_++, {from, to, bytes}});
}

void NetSim::trace(std::uint64_t value) {
  for (int i = 0; i < 8; ++i) trace_ = (trace_ ^ ((value >> (8 * i)) & 0xff)) * 0x100000001b3;
}

void NetSim::deliver(Datagram datagram) {
  if (arrival_ && !arrival_(datagram)) return;
  Node* node = node_at(datagram.to);
  if (!node || !node->receive) return;
  ++delivered_;
  trace(lund_now_us() - virtual_time::START_US);
  trace(datagram.bytes.size());
  trace(datagram.bytes.size() > 2 ? datagram.bytes[2] : 0);
  trace(datagram.from.port);
  trace(datagram.to.port);
  for (const std::uint8_t byte : datagram.from.address) trace(byte);
  for (const std::uint8_t byte : datagram.to.address) trace(byte);
  node->receive(datagram);
}

bool NetSim::step(std::uint64_t limit) {
  Node* ticking = nullptr;
  for (Node& node : nodes_)
    if (node.tick && (!ticking || node.next_tick < ticking->next_tick)) ticking = &node;
  const bool arrival =
      !in_flight_.empty() && (!ticking || in_flight_.top().at <= ticking->next_tick);
  if (!arrival && !ticking) return false;
  const std::uint64_t at = arrival ? in_flight_.top().at : ticking->next_tick;
  if (at > limit) return false;
  const std::uint64_t now = lund_now_us();
  if (at > now) virtual_time::advance_us(at - now);
  if (arrival) {
    const Datagram datagram = in_flight_.top().datagram;
    in_flight_.pop();
    deliver(datagram);
  } else {
    ticking->next_tick = lund_now_us() + ticking->tick();
  }
  return true;
}

void NetSim::run_for_us(std::uint64_t us) {
  const std::uint64_t end = lund_now_us() + us;
  while (step(end)) {
  }
  const std::uint64_t now = lund_now_us();
  if (now < end) virtual_time::advance_us(end - now);
}

bool NetSim::run_until(const std::function<bool()>& done, std::uint64_t limit_ms) {
  const std::uint64_t end = lund_now_us() + limit_ms * 1000;
  while (!done())
    if (!step(end)) return false;
  return true;
}
