#include "apps/rendezvous/allocations.h"

namespace {

constexpr std::uint64_t TOLD_US = 30'000'000;   // from being told to the first BIND
constexpr std::uint64_t BOUND_US = 45'000'000;  // three BINDs of 15 s
constexpr std::uint64_t LIVE_US = 3'000'000;
constexpr std::uint64_t SETTLING_US = 5'000'000;  // a client's handshake over a slow relay

}  // namespace

bool Allocation::belongs_to(const lund_rv_endpoint& address) const {
  return lund_rv_endpoint_equal(client, address) ||
         lund_rv_endpoint_equal(sides[CLIENT_SIDE].address, address);
}

bool Allocation::in_live_use(std::uint64_t now_us) const {
  for (const AllocationSide& side : sides)
    if (side.sealed_at_us == 0 || now_us - side.sealed_at_us > LIVE_US) return false;
  return true;
}

AllocationTable::AllocationTable(std::size_t capacity, const SipKey& key)
    : capacity_(capacity), by_id_(0, IdHash{key}), routes_(0, AddressHash{key}) {
  by_id_.reserve(capacity);
  routes_.reserve(2 * capacity);
}

Allocation* AllocationTable::find(std::uint32_t id) {
  const auto found = by_id_.find(id);
  return found != by_id_.end() ? &found->second : nullptr;
}

bool AllocationTable::has_room() const {
  return by_id_.size() < capacity_ || !told_[CLIENT_SIDE].empty();
}

Allocation* AllocationTable::put(const Grant& grant, const PublicKey& host,
                                 const lund_rv_endpoint& client, std::uint64_t now_us) {
  if (by_id_.contains(grant.allocation) || !has_room()) return nullptr;
  if (by_id_.size() >= capacity_) remove(*told_[CLIENT_SIDE].front().allocation);
  Allocation& made = by_id_[grant.allocation];
  made.grant = grant;
  made.host = host;
  made.client = client;
  made.settling_until_us = 0;
  for (const Side side : {HOST_SIDE, CLIENT_SIDE})
    made.sides[side].clock = told_[side].insert(told_[side].end(), {&made, now_us});
  return &made;
}

void AllocationTable::start_clock(AllocationSide& side, Clocks& from, Clocks& to,
                                  std::uint64_t now_us) {
  side.clock->since_us = now_us;
  to.splice(to.end(), from, side.clock);
}

void AllocationTable::told_again(Allocation& allocation, std::uint64_t now_us) {
  for (const Side side : {HOST_SIDE, CLIENT_SIDE})
    if (!allocation.sides[side].bound())
      start_clock(allocation.sides[side], told_[side], told_[side], now_us);
}

bool AllocationTable::bind(Allocation& allocation, Side side, const lund_rv_endpoint& address,
                           std::uint64_t now_us) {
  const Side other = side == HOST_SIDE ? CLIENT_SIDE : HOST_SIDE;
  if (lund_rv_endpoint_equal(allocation.sides[other].address, address)) return false;
  AllocationSide& bound = allocation.sides[side];
  if (side == CLIENT_SIDE && !bound.bound()) allocation.settling_until_us = now_us + SETTLING_US;
  start_clock(bound, bound.bound() ? bound_[side] : told_[side], bound_[side], now_us);
  if (!lund_rv_endpoint_equal(bound.address, address)) forget_route(allocation, side);
  bound.address = address;
  routes_[address] = {&allocation, side};
  return true;
}

const AllocationTable::Route* AllocationTable::route(const lund_rv_endpoint& from) const {
  const auto found = routes_.find(from);
  return found != routes_.end() ? &found->second : nullptr;
}

// Unless the address has bound another allocation since.
void AllocationTable::forget_route(const Allocation& allocation, Side side) {
  const auto found = routes_.find(allocation.sides[side].address);
  if (found != routes_.end() && found->second.allocation == &allocation &&
      found->second.side == side)
    routes_.erase(found);
}

void AllocationTable::remove(Allocation& allocation) {
  for (const Side side : {HOST_SIDE, CLIENT_SIDE}) {
    forget_route(allocation, side);
    Clocks& clocks = allocation.sides[side].bound() ? bound_[side] : told_[side];
    clocks.erase(allocation.sides[side].clock);
  }
  by_id_.erase(by_id_.find(allocation.grant.allocation));
}

void AllocationTable::expire(Clocks& clocks, std::uint64_t limit_us, std::uint64_t now_us) {
  while (!clocks.empty() && now_us - clocks.front().since_us >= limit_us)
    remove(*clocks.front().allocation);
}

void AllocationTable::expire(std::uint64_t now_us) {
  for (const Side side : {HOST_SIDE, CLIENT_SIDE}) {
    expire(told_[side], TOLD_US, now_us);
    expire(bound_[side], BOUND_US, now_us);
  }
}
