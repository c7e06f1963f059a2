// A host's and a client's engine, and a rendezvous server played by hand, that meet for the first
// time: registration, pairing by PIN, handshake, look-up. Everything that they draw at random is
// fixed, so that their datagrams are examples.
#pragma once

#include "connection/conn_client.h"
#include "connection/conn_host.h"
#include "connection/rendezvous.h"
#include "tests/connection/documents/protocol_examples.h"

namespace protocol_examples {

inline constexpr std::uint32_t ALLOCATION = 0x0A0B0C0D;
inline constexpr std::uint32_t PASSWORD_KIB = 64;
inline constexpr std::uint32_t PASSWORD_PASSES = 3;

lund_rv_endpoint host_lan();
lund_rv_endpoint host_seen();  // as the server sees it
lund_rv_endpoint client_lan();
lund_rv_endpoint client_seen();
lund_rv_endpoint server_address();

Bytes pair_sid();
Bytes client_scalar();
Bytes host_scalar();
Bytes client_ephemeral();
Bytes host_ephemeral();
Bytes password_salt();
Bytes challenge_token();
Bytes punch_token();
Bytes host_bind_token();
Bytes client_bind_token();

lund_rv_message challenge_message();
lund_rv_message registered_message();
lund_rv_message notify_message();
Bytes server_says(const lund_rv_message& message);  // with its tag

class Conversation {
 public:
  Conversation();
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  // The datagrams of this type that a side has sent, in order; none fails the test.
  const Bytes& host_sent(std::uint8_t type, std::size_t index = 0) const;
  const Bytes& client_sent(std::uint8_t type, std::size_t index = 0) const;

  lund_host* host = nullptr;
  lund_client* client = nullptr;

 private:
  using Datagrams = std::vector<Bytes>;

  void create_host();
  void create_client();
  void to_host(const Bytes& datagram, const lund_rv_endpoint& from);
  void to_client(const Bytes& datagram);
  void register_host();
  void pair();
  void connect();

  Datagrams from_host_, from_client_;
};

const Conversation& conversation();  // held once a process: handshakes' timestamps only rise

}  // namespace protocol_examples
