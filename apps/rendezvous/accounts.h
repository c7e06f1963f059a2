// What addresses may still ask for, and may still be sent: one account for each address block that
// has lately sent something with a good tag, in a table of fixed size that forgets the block heard
// of longest ago. A source address is anybody's claim until its owner has answered with something
// that was sent there; until then the server sends it no more than it has received from there, and
// one answer. So nobody can aim the server at a third party.
//
// No memory is taken once the table is full.
#pragma once

#include <algorithm>
#include <cstdint>
#include <list>
#include <unordered_map>
#include <utility>

#include "apps/rendezvous/addresses.h"
#include "apps/rendezvous/token_bucket.h"

class Account {
 public:
  void earn(std::size_t bytes) { credit_ = std::min(credit_ + bytes, CREDIT_MAX_BYTES); }
  bool can_pay(std::size_t bytes, std::uint64_t now_us) const {
    return proven(now_us) || credit_ >= bytes;
  }
  void pay(std::size_t bytes) { credit_ -= std::min(credit_, bytes); }

  // The address has answered with what only its owner can have received.
  void prove(std::uint64_t now_us) { proven_until_us_ = now_us + PROVEN_US; }
  bool proven(std::uint64_t now_us) const { return now_us < proven_until_us_; }

  TokenBucket requests;
  TokenBucket refusals;
  TokenBucket notifications;  // of hosts about this address, while it is unproven

 private:
  static constexpr std::size_t FIRST_ANSWER_BYTES = 256;
  static constexpr std::size_t CREDIT_MAX_BYTES = 4096;
  // Hosts register every 20 s and both sides of a relay bind every 15 s.
  static constexpr std::uint64_t PROVEN_US = 60'000'000;

  std::size_t credit_ = FIRST_ANSWER_BYTES;
  std::uint64_t proven_until_us_ = 0;
};

class AccountTable {
 public:
  AccountTable(std::size_t capacity, const SipKey& key);
  // Valid until the next call.
  Account& of(const lund_rv_endpoint& address);
  std::size_t size() const { return entries_.size(); }

 private:
  using Entries = std::list<std::pair<AddressBlock, Account>>;  // heard of last in front

  std::size_t capacity_;
  Entries entries_;
  std::unordered_map<AddressBlock, Entries::iterator, AddressHash> index_;
};
