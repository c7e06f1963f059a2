// A client engine alone with a scripted host: tests hand it datagrams one by one, at times of their
// choosing, and look at each that it sends.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "connection/conn_client_internal.h"
#include "tests/support/engine_pair.h"

class ClientRig {
 public:
  using Bytes = std::vector<std::uint8_t>;
  struct Sent {
    lund_rv_endpoint to;
    Bytes bytes;
  };

  // Resets the virtual clock. The host's key is known unless `adjust` takes it away.
  explicit ClientRig(const std::function<void(lund_client_config&)>& adjust = {});
  ~ClientRig() { lund_client_destroy(client); }
  ClientRig(const ClientRig&) = delete;
  ClientRig& operator=(const ClientRig&) = delete;

  std::uint64_t tick() { return lund_client_tick(client); }
  void tick_for_ms(std::uint64_t ms);         // ticks each millisecond
  std::vector<Sent> take(std::uint8_t type);  // what was sent of this type since it was last asked
  int receive(const lund_rv_endpoint& from, const Bytes& bytes);  // fills `out` and `rx_info`
  std::vector<lund_conn_event> events();
  lund_client_status status();

  // The host's half.
  Bytes answer(const Bytes& hs_init, lund_session* session);  // HS_RESP; a random session id
  Bytes seal(lund_session& session, std::uint8_t type, std::size_t body_size = 0);
  Bytes seal(lund_session& session, const Bytes& plain);
  Bytes open(lund_session& session, const Bytes& sealed);  // empty when it doesn't open
  Bytes probe_ack(lund_session& session, const Bytes& sealed_probe);
  // A session by the handshake of one tick, answered `rtt_us` later from `from`.
  std::uint32_t bring_up(const lund_rv_endpoint& from, lund_session* session,
                         std::uint64_t rtt_us = 10'000);
  // Takes the client through the handshake of a rekey and gives its new keys, not yet confirmed.
  void offer_rekey(const lund_rv_endpoint& from, lund_session* session);
  Bytes host_info(std::uint32_t nonce, std::uint8_t capabilities, std::uint32_t mem_kib = 0,
                  std::uint32_t iterations = 0);

  lund_keypair host_keypair;
  lund_client* client = nullptr;
  std::vector<Sent> sent;
  std::vector<std::string> log;
  Bytes out;  // the packet delivered last
  lund_rx_info rx_info;
};
