#include "tests/support/network_link.h"

#include <algorithm>

NetworkFate decide_fate(SeededRandom& random, const NetworkLink& link) {
  NetworkFate fate;
  fate.arrives = !random.chance(link.loss);
  fate.twice = random.chance(link.duplicate);
  fate.after_us = link.delay_us + random.below(link.jitter_us + 1);
  fate.copy_after_us = link.delay_us + random.below(link.jitter_us + 1);
  if (link.reorder > 0) fate.held_back = random.chance(link.reorder) && fate.arrives;
  if (fate.held_back) fate.after_us += link.reorder_us;
  if (link.down) return {.arrives = false};
  return fate;
}

std::uint64_t NetworkQueue::wait_us(const NetworkLink& link, std::size_t size,
                                    std::uint64_t now_us) {
  if (link.bytes_per_second == 0) return 0;
  const std::uint64_t now_ns = now_us * 1000;
  free_at_ns_ = std::max(free_at_ns_, now_ns) + size * 1'000'000'000 / link.bytes_per_second;
  return (free_at_ns_ - now_ns + 999) / 1000;
}
