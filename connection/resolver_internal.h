// What the resolver's thread runs, and its start with any look-up and any receiver of the results:
// so that its rules are tested without a thread, and its thread without a network.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "connection/resolver.h"

struct ResolverPeriods {
  std::uint64_t after_success_us = 120'000'000;  // servers move seldom, and names are cached anyway
  std::uint64_t after_failure_us = 10'000'000;
};

// The names to look up and when each is due; times are lund_now_us. One thread.
class ResolverSchedule {
 public:
  struct Name {
    char host[sizeof lund_relay_server::host] = {};
    std::uint16_t port = 0;
    std::uint64_t due_us = 0;
  };

  // Of the first 8 servers each name once; address literals need no look-up. All are due at once.
  ResolverSchedule(const lund_relay_config& relays, std::uint64_t now_us,
                   ResolverPeriods periods = {});

  int count() const { return count_; }
  Name* due(std::uint64_t now_us);  // the first that is, or null
  // After the look-up of `name`, at its end.
  void looked_up(Name& name, bool resolved, std::uint64_t now_us) const;
  int wait_ms(std::uint64_t now_us) const;  // to the earliest; at least one name is needed

 private:
  bool holds(const Name& name) const;

  std::array<Name, LUND_RELAYS_MAX> names_{};
  int count_ = 0;
  ResolverPeriods periods_;
};

// As lund_net_resolve; blocks.
using ResolverLookup =
    std::function<int(const char* name, std::uint16_t port, lund_rv_endpoint* out)>;
// Takes each result, `endpoint` null when the name wasn't found; called with the resolver's lock
// held.
using ResolverSink =
    std::function<void(const char* name, std::uint16_t port, const lund_rv_endpoint* endpoint)>;

lund_resolver* resolver_start(const lund_relay_config& relays, ResolverLookup lookup,
                              ResolverSink sink, ResolverPeriods periods = {});
