// The registered hosts: found by key for a registration, by key id or key code for a look-up, by
// registration number for a bind; forgotten when they stop refreshing. Each operation takes the
// same time whatever the number of hosts.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

#include "apps/rendezvous/siphash.h"
#include "apps/rendezvous/tickets.h"
#include "apps/rendezvous/token_bucket.h"
#include "connection/rendezvous.h"

using PublicKey = std::array<std::uint8_t, LUND_KEY_SIZE>;

struct LanEndpoints {
  int count = 0;
  std::array<lund_rv_endpoint, LUND_RV_LAN_MAX> endpoints;
};

// A registration as the host sends it, repeated byte for byte until its challenge runs out.
struct Registration {
  PublicKey key{};
  lund_rv_endpoint address;
  Token challenge{};
  Token proof{};
  LanEndpoints lan;
};
bool same_registration(const Registration& a, const Registration& b);

struct Host {
  Registration registration;
  KeyId id{};
  std::uint32_t number = 0;            // of this registration; never 0
  std::uint64_t registered_at_us = 0;  // the first time of an unbroken run
  std::uint64_t refreshed_at_us = 0;
  // Of the last notification: the host binds this one alone.
  std::optional<std::uint32_t> current_allocation;
  TokenBucket notifications;
  TokenBucket unproven_notifications;  // on behalf of addresses that may be spoofed
};

class HostTable {
 public:
  HostTable(std::size_t capacity, const SipKey& key);

  Host* find(const PublicKey& key);
  Host* find_number(std::uint32_t number);
  // The first `size` bytes of a key id, 5 at least. Of several hosts that one code fits, the one
  // registered longest: a newcomer whose key was made to have another's code gets nobody's clients.
  Host* look_up(const std::uint8_t* target, std::size_t size);

  // The host of this key with the registration in place, as of now; a new one when there is none.
  // Null when the table is full or the random source fails.
  Host* put(const Registration& registration, std::uint64_t now_us);
  void refresh(Host& host, std::uint64_t now_us);

  void expire(std::uint64_t now_us);
  std::size_t size() const { return hosts_.size(); }

 private:
  static constexpr std::size_t CODE_BYTES = 5;
  using Hosts = std::list<Host>;  // refreshed last at the end
  struct KeyHash {
    SipKey key;
    std::size_t operator()(const PublicKey& k) const { return siphash(key, k.data(), k.size()); }
  };
  struct WordHash {
    SipKey key;
    std::size_t operator()(std::uint64_t word) const {
      SipState state(key);
      state.add(word);
      return state.finish();
    }
  };

  static std::uint64_t code_of(const std::uint8_t* id);
  Host* add(const Registration& registration, std::uint64_t now_us);
  void remove(Hosts::iterator host);

  std::size_t capacity_;
  Hosts hosts_;
  std::unordered_map<PublicKey, Hosts::iterator, KeyHash> by_key_;
  std::unordered_multimap<std::uint64_t, Hosts::iterator, WordHash> by_code_;
  std::unordered_map<std::uint64_t, Hosts::iterator, WordHash> by_number_;
};
