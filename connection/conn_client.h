// The client's engine: collects the paths to one host, handshakes and probes on all of them, moves
// up to four sessions to the best one, pairs and rekeys.
//
// One object, no threads, no sockets; locking and callbacks as in conn_host.h. No heap use after
// creation, but for the password derivation's work area.
#pragma once

#include "connection/conn.h"

struct lund_client;

enum lund_path_mode : std::uint32_t {
  LUND_PATHS_ALL = 0,
  LUND_PATHS_DIRECT = 1,  // servers for lookup and punching only
  LUND_PATHS_RELAY = 2,
  LUND_PATHS_NO_SERVERS = 3,
};

struct lund_client_config : lund_conn_config {
  std::uint32_t has_host_key = 0;
  std::uint8_t host_key[LUND_KEY_SIZE] = {};
  const char* host_code = nullptr;  // key code to verify a host by when its key isn't known
  std::uint32_t path_mode = LUND_PATHS_ALL;
  std::uint32_t fast_phase_ms = 0;   // 0: 2000
  std::uint32_t silence_ms = 0;      // 0: 1200
  std::uint32_t hold_ms = 0;         // 0: 3000
  std::uint64_t rekey_messages = 0;  // 0: 2^40
  std::uint32_t rekey_seconds = 0;   // 0: 3600
};

inline constexpr int LUND_CLIENT_PATHS = 16;
inline constexpr int LUND_CLIENT_SESSIONS = 4;

struct lund_client_path_status {
  std::int32_t path_class = 0;
  std::uint32_t alive = 0;
  std::int32_t server = -1;
  std::uint32_t rtt_us = 0;
  lund_rv_endpoint addr;
};

struct lund_client_status {
  std::uint32_t connected = 0;
  std::uint32_t session_id = 0;
  std::int32_t path = 0;
  std::uint32_t rtt_us = 0;
  lund_rv_endpoint addr;
  std::int32_t max_datagram = 0;
  std::int32_t payload = 0;
  std::int32_t path_count = 0;
  lund_client_path_status paths[LUND_CLIENT_PATHS];
};

// Null without a send callback, with a host_code that is no key code, or without memory.
lund_client* lund_client_create(const lund_client_config* config);
void lund_client_destroy(lund_client* client);  // wipes; null is accepted

int lund_client_add_candidate(lund_client* client, const lund_rv_endpoint* address,
                              std::int32_t path_class);
int lund_client_pair(lund_client* client, const char* secret, std::uint32_t kind);  // 0: guess
int lund_client_connect(lund_client* client);
int lund_client_open_session(lund_client* client);
void lund_client_session_close(lund_client* client, std::uint32_t session_id);  // 0: all

// As lund_host_receive; LUND_RX_PLAIN is a DISCOVER_REPLY.
int lund_client_receive(lund_client* client, const std::uint8_t* datagram, std::size_t size,
                        const lund_rv_endpoint& from, std::uint8_t* out, std::size_t out_capacity,
                        std::size_t* out_size, lund_rx_info* rx_info);
// Session id 0 means the first one that is up. 0 without a current path.
std::size_t lund_client_seal(lund_client* client, std::uint32_t session_id,
                             const std::uint8_t* plain, std::size_t plain_size, std::uint8_t* out,
                             std::size_t capacity, lund_rv_endpoint* peer_out);
std::uint64_t lund_client_tick(lund_client* client);  // microseconds to wait, 1000..250000
int lund_client_poll_event(lund_client* client, lund_conn_event* event);
void lund_client_rekey(lund_client* client);
void lund_client_status_get(lund_client* client, lund_client_status* status);
// From the resolver: `endpoint` null when the name wasn't found. Without regard to the name's case.
void lund_client_server_resolved(lund_client* client, const char* name, std::uint16_t port,
                                 const lund_rv_endpoint* endpoint);
