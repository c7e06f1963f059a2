#include "apps/rendezvous/hosts.h"

#include <algorithm>
#include <cstring>

namespace {

// Three refreshes of 20 s may get lost.
constexpr std::uint64_t KEPT_US = 65'000'000;

}  // namespace

bool same_registration(const Registration& a, const Registration& b) {
  const auto end = a.lan.endpoints.begin() + a.lan.count;
  return a.key == b.key && lund_rv_endpoint_equal(a.address, b.address) &&
         a.challenge == b.challenge && a.proof == b.proof && a.lan.count == b.lan.count &&
         std::equal(a.lan.endpoints.begin(), end, b.lan.endpoints.begin(), lund_rv_endpoint_equal);
}

HostTable::HostTable(std::size_t capacity, const SipKey& key)
    : capacity_(capacity),
      by_key_(0, KeyHash{key}),
      by_code_(0, WordHash{key}),
      by_number_(0, WordHash{key}) {
  by_key_.reserve(capacity);
  by_code_.reserve(capacity);
  by_number_.reserve(capacity);
}

std::uint64_t HostTable::code_of(const std::uint8_t* id) {
  std::uint64_t code = 0;
  std::memcpy(&code, id, CODE_BYTES);
  return code;
}

Host* HostTable::find(const PublicKey& key) {
  const auto found = by_key_.find(key);
  return found != by_key_.end() ? &*found->second : nullptr;
}

Host* HostTable::find_number(std::uint32_t number) {
  const auto found = by_number_.find(number);
  return found != by_number_.end() ? &*found->second : nullptr;
}

Host* HostTable::look_up(const std::uint8_t* target, std::size_t size) {
  Host* longest = nullptr;
  const auto [begin, end] = by_code_.equal_range(code_of(target));
  for (auto at = begin; at != end; ++at) {
    Host& host = *at->second;
    if (std::memcmp(host.id.data(), target, std::min(size, host.id.size())) != 0) continue;
    if (!longest || host.registered_at_us < longest->registered_at_us) longest = &host;
  }
  return longest;
}

Host* HostTable::put(const Registration& registration, std::uint64_t now_us) {
  Host* host = find(registration.key);
  if (!host) return add(registration, now_us);
  host->registration = registration;
  refresh(*host, now_us);
  return host;
}

Host* HostTable::add(const Registration& registration, std::uint64_t now_us) {
  if (hosts_.size() >= capacity_) return nullptr;
  std::uint32_t number = 0;
  while (number == 0 || find_number(number))
    if (lund_random_bytes(&number, sizeof number) != LUND_OK) return nullptr;
  const auto host = hosts_.emplace(hosts_.end());
  host->registration = registration;
  lund_key_id(host->id.data(), registration.key.data());
  host->number = number;
  host->registered_at_us = host->refreshed_at_us = now_us;
  by_key_.emplace(registration.key, host);
  by_code_.emplace(code_of(host->id.data()), host);
  by_number_.emplace(number, host);
  return &*host;
}

void HostTable::refresh(Host& host, std::uint64_t now_us) {
  host.refreshed_at_us = now_us;
  hosts_.splice(hosts_.end(), hosts_, by_key_.find(host.registration.key)->second);
}

void HostTable::remove(Hosts::iterator host) {
  by_key_.erase(host->registration.key);
  by_number_.erase(host->number);
  const auto [begin, end] = by_code_.equal_range(code_of(host->id.data()));
  by_code_.erase(std::find_if(begin, end, [&](const auto& entry) { return entry.second == host; }));
  hosts_.erase(host);
}

void HostTable::expire(std::uint64_t now_us) {
  while (!hosts_.empty() && now_us - hosts_.front().refreshed_at_us >= KEPT_US)
    remove(hosts_.begin());
}
