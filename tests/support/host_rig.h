// A host engine whose datagrams and log lines end in lists.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "connection/conn_host.h"
#include "connection/conn_host_internal.h"
#include "tests/support/engine_peer.h"

inline constexpr std::uint8_t HOST_SEED = 1;

struct sent_datagram {
  lund_rv_endpoint to;
  peer::bytes data;
};

lund_client_list clients_of(std::initializer_list<std::uint8_t> seeds);  // named "client <seed>"

class host_rig {
 public:
  explicit host_rig(const lund_client_list& clients = {}, const char* password_blob = nullptr,
                    lund_host_config config = {});
  ~host_rig() { lund_host_destroy(host); }
  host_rig(const host_rig&) = delete;
  host_rig& operator=(const host_rig&) = delete;

  const std::uint8_t* key() const { return keys.public_key; }
  engine_peer client(std::uint8_t seed) const { return {seed, key()}; }

  // What was delivered stands in `out` and `rx`.
  int receive(const peer::bytes& datagram, const lund_rv_endpoint& from);
  peer::bytes answer(const peer::bytes& datagram, const lund_rv_endpoint& from);  // the only one
  void wait_us(std::uint64_t us);  // advances the clock, then ticks

  bool handshake(engine_peer& client, const lund_rv_endpoint& from);
  bool connect(engine_peer& client, const lund_rv_endpoint& from);  // and sends a PING

  std::vector<lund_conn_event> events();  // all since the last call
  bool logged(const std::string& part) const;
  lund_rv_endpoint peer_of(std::uint32_t session_id) const;
  int slots(std::uint32_t state) const;
  int links() const;
  lund_pairing_status pairing() const;

  lund_keypair keys = peer::keypair_of(HOST_SEED);
  lund_host* host = nullptr;
  std::vector<sent_datagram> sent;
  std::vector<std::string> lines;
  peer::bytes out;
  lund_rx_info rx;
};
