// What the platforms' socket files share: the choice among this computer's addresses.
#pragma once

#include <array>

#include "connection/netsock.h"

// Collects the addresses that peers on a LAN could reach: IPv4, not loopback, not link-local, no
// duplicates, the first 16. Each gets `port`.
class LocalEndpoints {
 public:
  explicit LocalEndpoints(std::uint16_t port) : port_(port) {}
  void add(const lund_rv_endpoint& address);
  int hand_out(lund_rv_endpoint* out, int max);  // private ones first; returns the count

 private:
  static constexpr int MAX = 16;
  std::uint16_t port_;
  int count_ = 0;
  std::array<lund_rv_endpoint, MAX> found_;
};
