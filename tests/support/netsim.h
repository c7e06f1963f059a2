// A network in virtual time for tests of the engines: nodes with an address on each of their
// networks, links that delay, reorder, lose, duplicate and queue, all from one seed. Datagrams
// arrive and nodes tick in the order of time, and the virtual clock moves from one to the next, so
// a run of minutes takes no time and the same seed gives the same run.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <queue>
#include <utility>
#include <vector>

#include "connection/netsock.h"
#include "tests/support/network_link.h"
#include "tests/support/seeded_random.h"

class NetSim {
 public:
  using Bytes = std::vector<std::uint8_t>;

  using Link = NetworkLink;

  struct Datagram {
    lund_rv_endpoint from;
    lund_rv_endpoint to;
    Bytes bytes;
  };

  using Receive = std::function<void(const Datagram&)>;
  using Tick = std::function<std::uint64_t()>;  // microseconds to the next one
  // Sees every datagram as it is sent: rewrites its addresses as a NAT would, or drops it (false).
  using Rewrite = std::function<bool(Datagram&)>;

  explicit NetSim(std::uint64_t seed) : random_(seed) {}

  int add_network(const Link& link);
  Link& link(int network) { return networks_[static_cast<std::size_t>(network)]; }
  int add_node(Receive receive, Tick tick);
  // Gives the node its one address on the network; a second call moves it there.
  void attach(int node, int network, const lund_rv_endpoint& address);
  void set_rewrite(Rewrite rewrite) { rewrite_ = std::move(rewrite); }
  // The same as it arrives, before it is known for whom: a NAT's other direction.
  void set_arrival(Rewrite arrival) { arrival_ = std::move(arrival); }
  // The node's next tick is now, not when its last one said.
  void wake(int node) { nodes_[static_cast<std::size_t>(node)].next_tick = 0; }
  // The way to every address that no node has, as by a default route.
  void set_default_network(int network) { default_network_ = network; }
  void set_tap(Receive tap) { tap_ = std::move(tap); }  // sees what is sent, before any loss

  // From the node's address on the network that has `to`, or on the default network; an address
  // that nobody has is no error.
  void send(int node, const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size);
  // Arrives at once and unharmed, whoever `from` is.
  void inject(const lund_rv_endpoint& from, const lund_rv_endpoint& to, const Bytes& bytes);

  void run_for_us(std::uint64_t us);
  void run_for_ms(std::uint64_t ms) { run_for_us(ms * 1000); }
  // True as soon as `done` is, tested after every step; false after `limit_ms`.
  bool run_until(const std::function<bool()>& done, std::uint64_t limit_ms);

  std::uint64_t delivered() const { return delivered_; }
  // Of time, addresses, size and type of everything delivered.
  std::uint64_t trace_hash() const { return trace_; }

 private:
  struct Node {
    Receive receive;
    Tick tick;
    std::uint64_t next_tick;
    std::map<int, lund_rv_endpoint> addresses;  // by network
  };
  struct InFlight {
    std::uint64_t at;
    std::uint64_t order;
    Datagram datagram;
    bool operator>(const InFlight& other) const {
      return at != other.at ? at > other.at : order > other.order;
    }
  };

  bool step(std::uint64_t limit);  // the next arrival or tick up to `limit`; false: there is none
  int network_of(const lund_rv_endpoint& address) const;
  Node* node_at(const lund_rv_endpoint& address);
  void transmit(int node, int network, const Datagram& datagram);
  void deliver(Datagram datagram);
  void trace(std::uint64_t value);

  SeededRandom random_;
  std::vector<Link> networks_;
  std::vector<Node> nodes_;
  std::map<std::pair<int, int>, NetworkQueue> queues_;  // of each node's way into a network
  Rewrite rewrite_, arrival_;
  int default_network_ = -1;
  Receive tap_;
  std::priority_queue<InFlight, std::vector<InFlight>, std::greater<>> in_flight_;
  std::uint64_t order_ = 0;
  std::uint64_t delivered_ = 0;
  std::uint64_t trace_ = 0xcbf29ce484222325;
};
