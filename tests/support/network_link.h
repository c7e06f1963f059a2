// What a way through a network does to datagrams, decided by chance from a seed: in the simulated
// network (netsim.h) and before real sockets (lossy_proxy.h). One thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tests/support/seeded_random.h"

struct NetworkLink {
  std::uint64_t delay_us = 0;
  std::uint64_t jitter_us = 0;  // added, 0 to this: above the sending interval it reorders
  double loss = 0;
  double duplicate = 0;
  bool down = false;
  // Of each sender's way, which has a queue without end before it; what is lost is lost behind
  // it. 0: no limit.
  std::uint64_t bytes_per_second = 0;
  double reorder = 0;                // of those that arrive, held back behind what follows them
  std::uint64_t reorder_us = 5'000;  // for so long
};

// What becomes of one datagram: it arrives after each of these.
struct NetworkFate {
  bool arrives = true;
  bool held_back = false;
  bool twice = false;          // a copy arrives, whether or not the datagram itself does
  std::uint64_t after_us = 0;  // the queue not counted
  std::uint64_t copy_after_us = 0;
};

// Of a link that never reorders the dice are thrown in the same number whatever else it is like, so
// that a change of one link leaves what happens on the others alone.
NetworkFate decide_fate(SeededRandom& random, const NetworkLink& link);

// One sender's way into a link.
class NetworkQueue {
 public:
  // Microseconds until a datagram of this size is on its way, behind those before it.
  std::uint64_t wait_us(const NetworkLink& link, std::size_t size, std::uint64_t now_us);

 private:
  std::uint64_t free_at_ns_ = 0;  // so that what a datagram takes isn't rounded
};
