// The rendezvous server without its socket: datagrams in, datagrams out through a callback, time
// from lund_now_us. Hosts register here; clients look them up, and both are told of each other, to
// punch; between two that can't, it relays what they send, unread. One thread.
//
// Nothing is answered that doesn't carry the tag of the shared key. Nothing is kept for an address
// that hasn't proved itself, but its small account of what it has sent and been sent.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "connection/rendezvous.h"
#include "connection/secure.h"

struct RendezvousLimits {
  int hosts = 20'000;
  int allocations = 8'192;
  int requests_per_second = 20;                       // of one address; three times that at once
  std::uint64_t relay_bytes_per_second = 12'500'000;  // of one allocation, one way; 0: no limit
};

struct RendezvousStatistics {
  std::uint64_t hosts = 0;        // registered now
  std::uint64_t allocations = 0;  // now
  std::uint64_t registrations = 0, lookups = 0, found = 0, notifications = 0, binds = 0;
  std::uint64_t relayed = 0, relayed_bytes = 0;
  // Drops and refusals, by reason.
  std::uint64_t bad_tag = 0, malformed = 0, over_rate = 0, over_bytes = 0, unbound = 0;
  std::uint64_t bad_proof = 0, full = 0, send_failed = 0;
};

class RendezvousServer {
 public:
  // False when the datagram couldn't be sent.
  using Send =
      std::function<bool(const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size)>;

  RendezvousServer(const std::uint8_t* key, std::size_t key_size, const RendezvousLimits& limits,
                   Send send);
  ~RendezvousServer();
  RendezvousServer(const RendezvousServer&) = delete;
  RendezvousServer& operator=(const RendezvousServer&) = delete;

  bool ready() const;  // false when the random source failed: nothing is answered then
  void receive(const std::uint8_t* datagram, std::size_t size, const lund_rv_endpoint& from);
  void tick();  // at least once a second: lets leases and allocations run out
  RendezvousStatistics statistics() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};
