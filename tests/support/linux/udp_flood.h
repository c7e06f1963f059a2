// Many datagrams to one place from addresses that nobody has: a raw socket writes their IPv4
// headers itself. Sends at a steady rate on a thread of its own from the beginning of its life to
// its end or until stopped. Needs root, and a lab to be harmless in.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "connection/netsock.h"
#include "tests/support/linux/net_lab.h"

class UdpFlood {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // Makes the next datagram.
  using Maker = std::function<Bytes(std::mt19937&)>;

  UdpFlood(const NetLab& lab, const std::string& node, const lund_rv_endpoint& target,
           int datagrams_a_second, Maker maker);
  ~UdpFlood() { stop(); }
  UdpFlood(const UdpFlood&) = delete;
  UdpFlood& operator=(const UdpFlood&) = delete;

  std::uint64_t sent() const { return sent_; }
  void wait_until_sent(std::uint64_t datagrams) const;  // since its beginning
  void stop();

 private:
  void run(int datagrams_a_second);
  void send_one();

  Maker maker_;
  lund_rv_endpoint target_;
  int socket_ = -1;
  std::mt19937 random_{1};
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};
