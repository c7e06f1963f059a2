// The rendezvous server without its socket: datagrams in, datagrams out through a callback, time
// from lund_now_us. Hosts register here; clients look them up, and both are told of each other, to
// punch; between two that can't, it relays what they send, unread. One thread, no locks.
//
// Nothing is answered that doesn't carry the tag of the shared key. Whoever holds the key may still
// be hostile: to an address that hasn't shown that it receives what is sent there, the server sends
// no more than it got from there and one answer, and keeps of it no more than an account in a table
// of fixed size. All tables are bounded, all work for a datagram takes the same time however full
// they are, and relaying allocates nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "connection/rendezvous.h"

struct RendezvousLimits {
  std::size_t hosts = 20'000;
  std::size_t allocations = 8'192;
  std::size_t accounts = 65'536;            // address blocks remembered at a time
  std::uint64_t requests_per_second = 20;   // of one address block; three times that at once
  std::uint64_t proofs_per_second = 2'000;  // X25519 each; twice that at once
  std::uint64_t relay_bytes_per_second = 12'500'000;  // of one allocation, one way; 0: no limit
};

// Since the start, but for the first two.
struct RendezvousStatistics {
  std::uint64_t hosts = 0;        // registered now
  std::uint64_t allocations = 0;  // now
  std::uint64_t registrations = 0, refreshes = 0, challenges = 0;
  std::uint64_t lookups = 0, found = 0, notifications = 0, binds = 0;
  std::uint64_t relayed = 0, relayed_bytes = 0;
  // Refused in words.
  std::uint64_t bad_proof = 0, full = 0, busy = 0, over_rate = 0, gone = 0;
  // Dropped in silence.
  std::uint64_t bad_tag = 0, not_for_us = 0, over_account = 0, moved = 0;
  std::uint64_t unbound = 0, over_bytes = 0;
  std::uint64_t send_failed = 0;
};

class RendezvousServer {
 public:
  // False when the datagram couldn't be sent. Must not call back into the server.
  using Send =
      std::function<bool(const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size)>;

  // `key` is the raw key of the relay link. Takes the memory of its tables' indexes at once.
  RendezvousServer(const std::uint8_t* key, std::size_t key_size, const RendezvousLimits& limits,
                   Send send);
  ~RendezvousServer();
  RendezvousServer(const RendezvousServer&) = delete;
  RendezvousServer& operator=(const RendezvousServer&) = delete;

  bool ready() const;  // false when the random source failed: nothing is answered then
  void receive(const std::uint8_t* datagram, std::size_t size, const lund_rv_endpoint& from);
  void tick();  // at least once a second: lets registrations and allocations run out
  RendezvousStatistics statistics() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A few lines for a person, each with its newline.
std::string statistics_text(const RendezvousStatistics& statistics);
