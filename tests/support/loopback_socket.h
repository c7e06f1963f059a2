// A UDP socket of this computer's own, on an address in 127.0.0.0/8, for one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "connection/netsock.h"

class LoopbackSocket {
 public:
  using Bytes = std::vector<std::uint8_t>;

  explicit LoopbackSocket(const std::string& address);  // "127.1.2.3"
  ~LoopbackSocket() { lund_udp_close(socket_); }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;

  const lund_rv_endpoint& address() const { return address_; }
  lund_socket handle() const { return socket_; }
  bool send(const lund_rv_endpoint& to, const Bytes& bytes) const;
  std::optional<Bytes> receive(std::chrono::milliseconds deadline) const;  // 0: what is there

 private:
  lund_rv_endpoint address_;
  lund_socket socket_;
};
