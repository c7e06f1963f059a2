// The host's engine: admits paired clients by Noise IK, keeps their sessions and the addresses from
// which they are reachable, rekeys on request, pairs new devices by PIN or password. Registers with
// rendezvous servers, and for a client that one announces, punches and binds a relay allocation.
//
// One object, no threads, no sockets. Any thread may call any function: one lock per engine, held
// across the callbacks, which must not re-enter the engine. No heap use after creation. A bad
// datagram is never reported; nothing is answered that hasn't passed the test of its stage.
#pragma once

#include "connection/conn.h"

struct lund_host;

struct lund_host_config : lund_conn_config {
  std::uint32_t allow_plain = 0;           // 1: unknown plain packets go to the application
  std::int32_t pin_attempts = 0;           // below 1: 10
  std::int32_t password_attempts = 0;      // below 1: 10
  std::int32_t password_lock_seconds = 0;  // below 1: 600
};

struct lund_session_info {
  std::uint32_t session_id = 0;
  std::int32_t path = 0;
  lund_rv_endpoint peer;
  std::uint8_t client_key[LUND_KEY_SIZE] = {};
  char client_name[64] = {};
  std::uint64_t last_activity = 0;  // lund_now_us
};

struct lund_pairing_status {
  std::uint32_t open = 0;
  char pin[8] = {};                // only while open
  char key_code[12] = {};          // the host's
  std::uint32_t seconds_left = 0;  // rounded up; 0 with no deadline
  std::uint32_t has_password = 0;
  std::uint32_t password_locked = 0;
  ~lund_pairing_status() { lund_secure_wipe(pin, sizeof pin); }
};

// One rendezvous server as a person may see it.
enum lund_server_state : std::uint32_t {
  LUND_SERVER_RESOLVING = 0,   // its name is being looked up
  LUND_SERVER_NO_NAME = 1,     // the name was not found
  LUND_SERVER_CONNECTING = 2,  // fewer than 3 REGISTERs unanswered
  LUND_SERVER_NO_ANSWER = 3,   // 3 or more: offline, blocked, or another key
  LUND_SERVER_REGISTERED = 4,
  LUND_SERVER_REFUSED = 5,  // `error` says why
};

struct lund_server_status {
  lund_rv_endpoint endpoint;  // family 0 while unknown
  std::uint32_t registered = 0;
  lund_rv_endpoint public_endpoint;  // this host as the server sees it
  std::uint32_t rtt_us = 0;
  std::uint32_t state = LUND_SERVER_RESOLVING;
  std::int32_t error = 0;  // a LUND_RV_ERROR code; 0 also for a temporary refusal
  std::uint16_t port = 0;
  char host[254] = {};
};

// `clients` and `password_blob` may be null. Null without a send callback or without memory. A host
// with no clients starts with pairing open and no deadline.
lund_host* lund_host_create(const lund_host_config* config, const lund_client_list* clients,
                            const char* password_blob);
void lund_host_destroy(lund_host* host);  // wipes; null is accepted

// A lund_receive_result. `out` of 2048 bytes takes every packet; `out_size` and `rx_info` may be
// null.
int lund_host_receive(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                      const lund_rv_endpoint& from, std::uint8_t* out, std::size_t out_capacity,
                      std::size_t* out_size, lund_rx_info* rx_info);

std::uint64_t lund_host_tick(
    lund_host* host);  // microseconds to the next useful call, 1000..250000
int lund_host_poll_event(lund_host* host, lund_conn_event* event);  // 1 with an event, 0 without

// The fast path of media: seals for the caller to send itself. The sealed size, or 0 for an unknown
// session. `peer_out` may be null.
std::size_t lund_host_seal(lund_host* host, std::uint32_t session_id, const std::uint8_t* plain,
                           std::size_t plain_size, std::uint8_t* out, std::size_t capacity,
                           lund_rv_endpoint* peer_out);
int lund_host_session_info_get(lund_host* host, std::uint32_t session_id, lund_session_info* info);
void lund_host_session_close(lund_host* host, std::uint32_t session_id);

// Pairing by PIN. Opening always makes a new PIN; 0 seconds means 120.
void lund_host_pairing_open(lund_host* host, std::uint32_t seconds);
void lund_host_pairing_close(lund_host* host);
void lund_host_pairing_status(lund_host* host, lund_pairing_status* status);

// Pairing by password. Derives outside the lock, which takes its time; `blob_out` (capacity >=
// LUND_PASSWORD_BLOB_MAX) gets the text to store. 0 or -1.
int lund_host_set_password(lund_host* host, const char* password, char* blob_out,
                           std::size_t blob_capacity);
void lund_host_clear_password(lund_host* host);

void lund_host_export_clients(lund_host* host, lund_client_list* list);
int lund_host_add_client(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE], const char* name);
int lund_host_remove_client(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE]);

// Own LAN addresses to announce, at most 4; registers anew with each server.
void lund_host_set_lan_endpoints(lund_host* host, const lund_rv_endpoint* endpoints, int count);

// Rendezvous servers. A new set keeps the registration, allocation and punch of each server that
// stays as it was. 0, or -1 for a bad index, with `status` zeroed.
void lund_host_set_relay(lund_host* host, const lund_relay_config* relays);
int lund_host_server_status(lund_host* host, int index, lund_server_status* status);
// From the resolver: `endpoint` null when the name wasn't found. Without regard to the name's case.
void lund_host_server_resolved(lund_host* host, const char* name, std::uint16_t port,
                               const lund_rv_endpoint* endpoint);
