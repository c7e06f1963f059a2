// LOOKUP and BIND: a client finds its host, the host hears of it, and both get their ends of an
// allocation.
//
// The sender of a LOOKUP may be spoofed, and each notification costs the host some 50 datagrams of
// punching towards it and its attention for its last client. So an address that hasn't proved
// itself is given its answer alone, without anything kept, once its few notifications or the host's
// are used up; the client's BIND, which it sends at once with the token of that answer, is the
// proof, and the host is notified then.
#include <monocypher.h>

#include <algorithm>
#include <cstring>

#include "apps/rendezvous/server_state.h"

namespace {

constexpr std::uint8_t STATUS_NOT_FOUND = 1;  // of LOOKUP_RESULT
constexpr std::uint8_t STATUS_GONE = 1;       // of BOUND

// Notifications of one host; each restarts its punching of 2.5 s.
constexpr Rate NOTIFICATION_RATE{4, 8};
constexpr Rate UNPROVEN_RATE{2, 4};
// Notifications about one unproven address block: two at once, then one each 5 s.
constexpr Rate ABOUT_UNPROVEN_RATE{1, 10};
constexpr std::uint64_t ABOUT_UNPROVEN_COST = 5;

void set_lan(lund_rv_message& message, const LanEndpoints& lan) {
  message.lan_count = lan.count;
  std::copy(lan.endpoints.begin(), lan.endpoints.end(), std::begin(message.lan));
}

void set_grant(lund_rv_message& message, const Grant& grant, Side side) {
  message.allocation = grant.allocation;
  std::copy(grant.punch_token.begin(), grant.punch_token.end(), message.punch_token);
  const Token& token = grant.bind_tokens[side];
  std::copy(token.begin(), token.end(), message.token);
}

lund_rv_message result_of(const lund_rv_message& lookup, const lund_rv_endpoint& from,
                          const Host& host, const Grant& grant) {
  const Registration& registration = host.registration;
  lund_rv_message result;
  result.type = LUND_RV_LOOKUP_RESULT;
  result.nonce = lookup.nonce;
  std::copy(registration.key.begin(), registration.key.end(), result.key);
  result.peer = registration.address;
  set_lan(result, tellable(registration.lan, registration.address));
  result.observed = from;
  set_grant(result, grant, CLIENT_SIDE);
  return result;
}

}  // namespace

LanEndpoints lan_of(const lund_rv_message& message) {
  LanEndpoints out;
  out.count = message.lan_count;
  std::copy_n(std::begin(message.lan), out.count, out.endpoints.begin());
  return out;
}

LanEndpoints tellable(const LanEndpoints& lan, const lund_rv_endpoint& observed) {
  LanEndpoints out;
  for (int i = 0; i < lan.count; ++i) {
    const lund_rv_endpoint& endpoint = lan.endpoints[static_cast<std::size_t>(i)];
    const bool own = endpoint.family == observed.family && endpoint.address == observed.address;
    if (endpoint.family != 0 &&
        (own || lund_addr_is_private(endpoint) || lund_addr_is_tailscale(endpoint)))
      out.endpoints[static_cast<std::size_t>(out.count++)] = endpoint;
  }
  return out;
}

Allocation* RendezvousServer::State::current_of(const Host& host) {
  return host.current_allocation ? allocations.find(*host.current_allocation) : nullptr;
}

bool RendezvousServer::State::may_notify_unproven(Host& host, Account& account) {
  const Allocation* current = current_of(host);
  if (current && now_us < current->settling_until_us) return false;
  return account.notifications.take(ABOUT_UNPROVEN_RATE, now_us, ABOUT_UNPROVEN_COST) &&
         host.unproven_notifications.take(UNPROVEN_RATE, now_us) &&
         host.notifications.take(NOTIFICATION_RATE, now_us);
}

void RendezvousServer::State::on_lookup(const lund_rv_message& message,
                                        const lund_rv_endpoint& from, Account& account) {
  ++counts.lookups;
  Host* host = hosts.look_up(message.target, message.target_size);
  if (!host) {
    lund_rv_message missing;
    missing.type = LUND_RV_LOOKUP_RESULT;
    missing.nonce = message.nonce;
    missing.status = STATUS_NOT_FOUND;
    missing.observed = from;
    answer(missing, from, account);
    return;
  }
  // A notification makes the host leave its current relay: not while somebody else is using it.
  const Allocation* current = current_of(*host);
  if (current && current->in_live_use(now_us) && !current->belongs_to(from)) {
    ++counts.busy;
    return refuse(ERROR_TRY_LATER, message, from, account);
  }
  if (!allocations.has_room()) {
    ++counts.full;
    return refuse(ERROR_FULL, message, from, account);
  }
  const bool proven = account.proven(now_us);
  if (proven && !host->notifications.take(NOTIFICATION_RATE, now_us)) {
    ++counts.busy;
    return refuse(ERROR_TRY_LATER, message, from, account);
  }
  const Grant grant = tickets.grant(from, host->id, host->number);
  if (!answer(result_of(message, from, *host, grant), from, account)) return;
  ++counts.found;
  if (!proven && !may_notify_unproven(*host, account)) return;
  Allocation* allocation = allocations.find(grant.allocation);
  if (allocation) {
    allocations.told_again(*allocation, now_us);
  } else {
    allocation = allocations.put(grant, host->registration.key, from, now_us);
  }
  if (allocation) notify(*host, *allocation, tellable(lan_of(message), from));
}

void RendezvousServer::State::notify(Host& host, const Allocation& allocation,
                                     const LanEndpoints& client_lan) {
  lund_rv_message notice;
  notice.type = LUND_RV_PUNCH_NOTIFY;
  notice.nonce = ++notification_nonce;
  notice.peer = allocation.client;
  set_lan(notice, client_lan);
  set_grant(notice, allocation.grant, HOST_SIDE);
  std::uint8_t bytes[LUND_RV_MESSAGE_MAX];
  const std::size_t size = lund_rv_encode(bytes, sizeof bytes, net_key, &notice);
  send_bytes(host.registration.address, bytes, size);
  ++counts.notifications;
  host.current_allocation = allocation.grant.allocation;
}

bool RendezvousServer::State::may_bind_from(const lund_rv_endpoint& from,
                                            const Allocation& allocation, Side side) {
  const AddressBlock block(from);
  if (side == CLIENT_SIDE) return block == AddressBlock(allocation.client);
  const Host* host = hosts.find(allocation.host);
  if (host && block == AddressBlock(host->registration.address)) return true;
  const AllocationSide& bound = allocation.sides[HOST_SIDE];
  return bound.bound() && block == AddressBlock(bound.address);
}

// Of a look-up that nothing was kept of, or of an allocation that has run out: its client's token
// brings it back, and the host hears of it now.
Allocation* RendezvousServer::State::bring_back(const lund_rv_message& bind,
                                                const lund_rv_endpoint& from) {
  Host* host = hosts.find_number(tickets.registration_of(bind.allocation, from));
  if (!host) return nullptr;
  const Grant grant = tickets.grant(from, host->id, host->number);
  if (crypto_verify16(grant.bind_tokens[CLIENT_SIDE].data(), bind.token) != 0) return nullptr;
  const Allocation* current = current_of(*host);
  if (current && current->in_live_use(now_us)) return nullptr;
  Allocation* allocation = allocations.put(grant, host->registration.key, from, now_us);
  if (allocation && host->notifications.take(NOTIFICATION_RATE, now_us))
    notify(*host, *allocation, {});
  return allocation;
}

RendezvousServer::State::BindOutcome RendezvousServer::State::bind(const lund_rv_message& message,
                                                                   const lund_rv_endpoint& from) {
  if (message.side > CLIENT_SIDE) return BindOutcome::Gone;
  const auto side = static_cast<Side>(message.side);
  Allocation* allocation = allocations.find(message.allocation);
  if (!allocation && side == CLIENT_SIDE) allocation = bring_back(message, from);
  if (!allocation ||
      crypto_verify16(allocation->grant.bind_tokens[side].data(), message.token) != 0)
    return BindOutcome::Gone;
  if (may_bind_from(from, *allocation, side))
    return allocations.bind(*allocation, side, from, now_us) ? BindOutcome::Bound
                                                             : BindOutcome::Gone;
  // A host that has moved registers from there within a lease, and its next BIND is good. A client
  // has no other way to prove its new address than a new look-up; what is left of the old one would
  // have that refused.
  ++counts.moved;
  if (side == HOST_SIDE) return BindOutcome::NotYet;
  allocations.remove(*allocation);
  return BindOutcome::Gone;
}

void RendezvousServer::State::on_bind(const lund_rv_message& message, const lund_rv_endpoint& from,
                                      Account& account) {
  const BindOutcome outcome = bind(message, from);
  if (outcome == BindOutcome::NotYet) return;
  lund_rv_message bound;
  bound.type = LUND_RV_BOUND;
  bound.allocation = message.allocation;
  bound.observed = from;
  if (outcome == BindOutcome::Bound) {
    ++counts.binds;
    account.prove(now_us);
  } else {
    ++counts.gone;
    bound.status = STATUS_GONE;
  }
  answer(bound, from, account);
}
