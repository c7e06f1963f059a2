// The host's one socket: IPv4, UDP, on all interfaces, blocking. It knows to which local address a
// datagram came, and marks what goes to the streaming client with DSCP 46. Receiving is one
// thread's; sending and closing are any thread's; a mutex guards the marking alone and is
// innermost.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "connection/netsock.h"

struct Peer {
  lund_rv_endpoint address;     // the sender, family 4
  std::uint32_t source_ip = 0;  // local address it was sent to, network order; 0 when unknown
  std::string str() const;      // "1.2.3.4:5"
};

std::string ipv4_string(std::uint32_t ip);  // network order

class UdpSocket {
 public:
  UdpSocket();
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // False with "<step> failed (...)" in `error` (may be null); the port is not retried.
  bool open(std::uint16_t port, std::string* error);
  void close();  // idempotent; makes a blocked recv return -1
  bool is_open() const;

  // Bytes received; 0 for a datagram too long for the buffer, which is lost; -1 on an error
  // (last_error) or when closed.
  int recv(std::uint8_t* buffer, int size, Peer* peer);
  int last_error() const;                    // of the calling thread's last failed recv
  static bool interrupted(int error);        // a blocking call was merely interrupted
  static std::string error_text(int error);  // "errno 104", as log lines have it

  // True only when the whole datagram went out; nothing is retried or queued.
  bool send(const void* data, std::uint64_t size, const lund_rv_endpoint& to);
  bool send_from(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
                 std::uint32_t source_ip);

  void qos_set_peer(const lund_rv_endpoint& to);  // replaces the former
  void qos_clear();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
