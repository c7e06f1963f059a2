#include "connection/resolver.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>

#include "connection/clock.h"
#include "connection/resolver_internal.h"
#include "resolver_thread.h"

namespace {

// A deadline that passed while the caller came here: not 0, so that the lock is let go in any case.
constexpr int PASSED_WAIT_MS = 2;

bool needs_lookup(const char* host) {
  lund_rv_endpoint literal;
  return *host != '\0' && lund_addr_parse_ip(&literal, host) != 0;
}

}  // namespace

ResolverSchedule::ResolverSchedule(const lund_relay_config& relays, std::uint64_t now_us,
                                   ResolverPeriods periods)
    : periods_(periods) {
  const int given = std::clamp(relays.count, 0, LUND_RELAYS_MAX);
  for (int i = 0; i < given; ++i) {
    const lund_relay_server& server = relays.servers[i];
    Name name;
    std::memcpy(name.host, server.host, sizeof name.host - 1);
    name.port = server.port;
    name.due_us = now_us;
    if (needs_lookup(name.host) && !holds(name)) names_[static_cast<std::size_t>(count_++)] = name;
  }
}

bool ResolverSchedule::holds(const Name& name) const {
  return std::any_of(names_.begin(), names_.begin() + count_, [&](const Name& other) {
    return other.port == name.port && std::strcmp(other.host, name.host) == 0;
  });
}

ResolverSchedule::Name* ResolverSchedule::due(std::uint64_t now_us) {
  const auto end = names_.begin() + count_;
  const auto first =
      std::find_if(names_.begin(), end, [&](const Name& name) { return name.due_us <= now_us; });
  return first == end ? nullptr : &*first;
}

void ResolverSchedule::looked_up(Name& name, bool resolved, std::uint64_t now_us) const {
  name.due_us = now_us + (resolved ? periods_.after_success_us : periods_.after_failure_us);
}

int ResolverSchedule::wait_ms(std::uint64_t now_us) const {
  const auto next =
      std::min_element(names_.begin(), names_.begin() + count_,
                       [](const Name& a, const Name& b) { return a.due_us < b.due_us; });
  if (next->due_us <= now_us) return PASSED_WAIT_MS;
  return static_cast<int>((next->due_us - now_us) / 1000 + 1);
}

// Owned by its thread, which lives until it is told to stop. lund_resolver_stop holds a share of
// its own meanwhile: the thread may leave before stop has come back from unlocking, and a mutex
// that is being unlocked is not one to free.
struct lund_resolver : std::enable_shared_from_this<lund_resolver> {
  lund_resolver(const ResolverSchedule& names, ResolverLookup look_up, ResolverSink take)
      : schedule(names), lookup(std::move(look_up)), sink(std::move(take)) {}

  void run();

  ResolverSchedule schedule;  // the thread's alone, as are these two
  const ResolverLookup lookup;
  const ResolverSink sink;

  SleepLock lock;
  bool stopped = false;  // lock
};

void lund_resolver::run() {
  std::unique_lock held(lock);
  while (!stopped) {
    ResolverSchedule::Name* name = schedule.due(lund_now_us());
    if (name == nullptr) {
      lock.sleep(static_cast<std::uint32_t>(schedule.wait_ms(lund_now_us())));
      continue;
    }
    held.unlock();
    lund_rv_endpoint found;
    const bool resolved = lookup(name->host, name->port, &found) == 0;
    held.lock();
    if (stopped) return;
    sink(name->host, name->port, resolved ? &found : nullptr);
    schedule.looked_up(*name, resolved, lund_now_us());
  }
}

lund_resolver* resolver_start(const lund_relay_config& relays, ResolverLookup lookup,
                              ResolverSink sink, ResolverPeriods periods) {
  const ResolverSchedule schedule(relays, lund_now_us(), periods);
  if (schedule.count() == 0) return nullptr;
  auto resolver = std::make_shared<lund_resolver>(schedule, std::move(lookup), std::move(sink));
  return start_detached([resolver] { resolver->run(); }) ? resolver.get() : nullptr;
}

lund_resolver* lund_resolver_start_host(lund_host* host, const lund_relay_config* relays) {
  return resolver_start(
      *relays, lund_net_resolve,
      [host](const char* name, std::uint16_t port, const lund_rv_endpoint* endpoint) {
        lund_host_server_resolved(host, name, port, endpoint);
      });
}

lund_resolver* lund_resolver_start_client(lund_client* client, const lund_relay_config* relays) {
  return resolver_start(
      *relays, lund_net_resolve,
      [client](const char* name, std::uint16_t port, const lund_rv_endpoint* endpoint) {
        lund_client_server_resolved(client, name, port, endpoint);
      });
}

void lund_resolver_stop(lund_resolver* resolver) {
  if (resolver == nullptr) return;
  const std::shared_ptr<lund_resolver> keep = resolver->shared_from_this();
  std::scoped_lock held(resolver->lock);
  resolver->stopped = true;
  resolver->lock.wake();
}
