// The relay: which host and client may speak through this server, and where each of them is.
//
// An allocation stands for one client's address and one host. Each side binds an address to it with
// a token of its own and keeps binding; once both have, what the one sends goes to the other. It
// ends when a side hasn't bound within 30 s of being told, or again within 45 s.
//
// A side may bind from the block of addresses its token went to, and from no other: a token shown
// from elsewhere proves nothing about who receives there, and traffic could be aimed at anybody.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <unordered_map>

#include "apps/rendezvous/addresses.h"
#include "apps/rendezvous/hosts.h"
#include "apps/rendezvous/tickets.h"
#include "apps/rendezvous/token_bucket.h"

struct Allocation;

// One side's clock: since when it has been told, or has bound last.
struct SideClock {
  Allocation* allocation;
  std::uint64_t since_us;
};

struct AllocationSide {
  lund_rv_endpoint address;        // bound; family 0 until then
  std::uint64_t sealed_at_us = 0;  // last sealed record relayed from here
  TokenBucket bytes;
  std::list<SideClock>::iterator clock;

  bool bound() const { return address.family != 0; }
};

struct Allocation {
  Grant grant;
  PublicKey host{};
  lund_rv_endpoint client;          // that looked the host up
  std::uint64_t settling_until_us;  // the client has bound; the host may still be on its way
  AllocationSide sides[2];          // by Side

  bool belongs_to(const lund_rv_endpoint& address) const;
  // Records have passed in both directions within the last 3 s.
  bool in_live_use(std::uint64_t now_us) const;
};

class AllocationTable {
 public:
  AllocationTable(std::size_t capacity, const SipKey& key);

  Allocation* find(std::uint32_t id);
  // A new one, in place of the oldest whose client has never bound when the table is full. Null
  // when all have, or when another client's has this id.
  Allocation* put(const Grant& grant, const PublicKey& host, const lund_rv_endpoint& client,
                  std::uint64_t now_us);
  void told_again(Allocation& allocation, std::uint64_t now_us);  // the sides that haven't bound
  bool has_room() const;

  // False when the other side has this very address: what it sends would come back for ever.
  bool bind(Allocation& allocation, Side side, const lund_rv_endpoint& address,
            std::uint64_t now_us);

  // Who `from` sends to: the other side of the allocation that it bound last.
  struct Route {
    Allocation* allocation;
    Side side;
  };
  const Route* route(const lund_rv_endpoint& from) const;

  void remove(Allocation& allocation);
  void expire(std::uint64_t now_us);
  std::size_t size() const { return by_id_.size(); }

 private:
  using Clocks = std::list<SideClock>;  // the longest running in front

  void start_clock(AllocationSide& side, Clocks& from, Clocks& to, std::uint64_t now_us);
  void forget_route(const Allocation& allocation, Side side);
  void expire(Clocks& clocks, std::uint64_t limit_us, std::uint64_t now_us);

  struct IdHash {
    SipKey key;
    std::size_t operator()(std::uint32_t id) const {
      SipState state(key);
      state.add(id);
      return state.finish();
    }
  };

  std::size_t capacity_;
  Clocks told_[2], bound_[2];  // by Side
  std::unordered_map<std::uint32_t, Allocation, IdHash> by_id_;
  std::unordered_map<lund_rv_endpoint, Route, AddressHash, SameAddress> routes_;
};
