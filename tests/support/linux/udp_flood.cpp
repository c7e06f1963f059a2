#include "tests/support/linux/udp_flood.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int BATCHES_A_SECOND = 100;
constexpr std::size_t HEADERS = sizeof(iphdr) + sizeof(udphdr);

}  // namespace

UdpFlood::UdpFlood(const NetLab& lab, const std::string& node, const lund_rv_endpoint& target,
                   int datagrams_a_second, Maker maker)
    : maker_(std::move(maker)), target_(target) {
  lab.call(node, [this] { socket_ = socket(AF_INET, SOCK_RAW, IPPROTO_RAW); });
  EXPECT_GE(socket_, 0);
  thread_ = std::thread([this, datagrams_a_second] { run(datagrams_a_second); });
}

void UdpFlood::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (socket_ >= 0) close(socket_);
  socket_ = -1;
}

void UdpFlood::wait_until_sent(std::uint64_t datagrams) const {
  while (sent_ < datagrams) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void UdpFlood::run(int datagrams_a_second) {
  const auto begin = Clock::now();
  // A late batch doesn't delay those after it, so that the rate holds.
  for (int batch = 1; !stop_; ++batch) {
    for (int i = 0; i < datagrams_a_second / BATCHES_A_SECOND; ++i) send_one();
    std::this_thread::sleep_until(begin +
                                  std::chrono::milliseconds(1000 / BATCHES_A_SECOND) * batch);
  }
}

void UdpFlood::send_one() {
  const Bytes payload = maker_(random_);
  std::uint8_t packet[2048] = {};
  if (payload.size() > sizeof packet - HEADERS) return;
  // From 16 million addresses of 10.0.0.0/8.
  iphdr ip{};
  ip.version = 4;
  ip.ihl = sizeof ip / 4;
  ip.tot_len = htons(static_cast<std::uint16_t>(HEADERS + payload.size()));
  ip.ttl = 64;
  ip.protocol = IPPROTO_UDP;
  ip.saddr = htonl(0x0A000000 | (random_() & 0xFFFFFF));
  std::memcpy(&ip.daddr, target_.address.data(), sizeof ip.daddr);
  udphdr udp{};
  udp.source = htons(static_cast<std::uint16_t>(1024 + random_() % 60000));
  udp.dest = htons(target_.port);
  udp.len = htons(static_cast<std::uint16_t>(sizeof udp + payload.size()));
  std::memcpy(packet, &ip, sizeof ip);                // the kernel fills in the header's checksum
  std::memcpy(packet + sizeof ip, &udp, sizeof udp);  // a checksum of 0 is none (RFC 768)
  std::memcpy(packet + HEADERS, payload.data(), payload.size());
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = ip.daddr;
  if (sendto(socket_, packet, HEADERS + payload.size(), 0, reinterpret_cast<sockaddr*>(&to),
             sizeof to) > 0)
    ++sent_;
}
