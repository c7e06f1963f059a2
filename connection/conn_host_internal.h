// The host engine's record and the functions that its files share. Only conn_host*.cpp and tests
// include it.
//
//   conn_host.cpp            creation, dispatch of datagrams, ticking
//   conn_host_handshake.cpp  admission of paired clients
//   conn_host_sessions.cpp   key sets, sessions, the paths to them
//   conn_host_pairing.cpp    pairing by PIN and password, their limits and locks
//   conn_host_clients.cpp    the list of authorized clients
//   conn_host_servers.cpp    rendezvous servers: the set of them, registration, status
//   conn_host_work.cpp       punching and relay allocations for clients that servers announce
//
// Every function here expects the engine's lock to be held. `now` is the clock as read once for the
// datagram or tick, under the lock, so that it never lies before a stored time.
#pragma once

#include "connection/conn_host.h"
#include "connection/cpace.h"
#include "connection/noise.h"

inline constexpr std::uint64_t SECOND_US = 1'000'000;

inline constexpr int HOST_SLOTS = 24;
inline constexpr int HOST_LINKS = 8;

inline constexpr std::uint64_t HALF_OPEN_LIFE_US = 10 * SECOND_US;
inline constexpr std::uint64_t LINK_IDLE_US = 60 * SECOND_US;
inline constexpr std::uint64_t REKEY_GRACE_US = 5 * SECOND_US;
// A session that has been heard of within this time keeps other clients out.
inline constexpr std::uint64_t BUSY_US = 3 * SECOND_US;
inline constexpr std::uint64_t PAIR_ATTEMPT_LIFE_US = 10 * SECOND_US;
inline constexpr std::uint64_t PASSWORD_ATTEMPT_GAP_US = SECOND_US;
inline constexpr std::uint32_t PAIRING_OPEN_SECONDS = 120;

// A token bucket in microsecond units: one event costs a second's worth of microseconds.
struct lund_rate_limit {
  std::uint64_t last = 0;
  std::uint64_t tokens = 0;
};

// Rates in events a second.
struct lund_rate {
  std::uint64_t rate;
  std::uint64_t burst;
};
inline constexpr lund_rate HS_RATE{20, 40};
inline constexpr lund_rate REJECT_RATE{5, 10};
inline constexpr lund_rate REJECT_LOG_RATE{1, 3};
inline constexpr lund_rate PAIR_RATE{10, 20};
inline constexpr lund_rate PAIR_FAIL_RATE{5, 10};
inline constexpr lund_rate INFO_RATE{20, 40};
inline constexpr lund_rate HELLO_RATE{5, 10};

bool conn_rate_pass(lund_rate_limit* limit, lund_rate rate, std::uint64_t now);

struct lund_authorized_client {
  std::uint32_t used = 0;
  std::uint8_t public_key[LUND_KEY_SIZE] = {};
  char name[64] = {};
  std::uint64_t added_at = 0;        // seconds since 1970 UTC
  std::uint64_t last_timestamp = 0;  // highest accepted; 0 after start
  // The HS_INIT answered last and its answer, so that a retransmission costs one hash.
  std::uint8_t init_hash[16] = {};
  std::uint8_t resp_cache[LUND_HS_RESP_SIZE] = {};
  std::uint32_t resp_cached = 0;
};

enum lund_slot_state : std::uint32_t {
  SLOT_FREE = 0,
  SLOT_HALF_OPEN = 1,  // handshake answered, no sealed packet seen yet
  SLOT_BOUND = 2,
};

// An established key set.
struct lund_crypto_slot {
  std::uint32_t state = SLOT_FREE;
  lund_session session;
  std::int32_t client = 0;
  std::int32_t link = -1;
  std::uint64_t created_at = 0;
};

// A logical session.
struct lund_host_link {
  std::uint32_t used = 0;
  std::uint32_t session_id = 0;  // that of its first key set, kept across rekeys
  std::int32_t client = 0;
  std::int32_t current_slot = -1;   // seals
  std::int32_t previous_slot = -1;  // still opens until previous_until
  std::uint64_t previous_until = 0;
  lund_rv_endpoint peer;
  std::int32_t path = 0;
  // The record that set the path last: an older one can't drag the session back.
  std::uint32_t path_slot = 0;
  std::uint64_t path_counter = 0;
  std::uint64_t last_activity = 0;
  std::uint32_t got_traffic = 0;
};

// A pairing exchange that has begun and not ended.
struct lund_pair_attempt {
  std::uint32_t active = 0;
  std::uint32_t number = 0;
  std::uint8_t sid[LUND_PAIR_SID_SIZE] = {};
  std::uint64_t started_at = 0;
  lund_rv_endpoint from;
};

struct lund_host_pairing {
  std::uint32_t pairing_open = 0;
  char pin[8] = {};                    // 6 digits; first byte 0 when blank
  std::uint64_t pairing_deadline = 0;  // 0: none
  std::int32_t pin_attempts = 0;
  lund_pair pin_pair;
  lund_pair_attempt pin_attempt;
  std::uint32_t has_password = 0;
  std::int32_t password_attempts = 0;
  std::uint8_t pw_salt[16] = {};
  std::uint8_t pw_verifier[32] = {};
  std::uint32_t pw_mem_kib = 0;
  std::uint32_t pw_iterations = 0;
  lund_pair password_pair;
  lund_pair_attempt password_attempt;
  std::uint64_t password_locked_until = 0;  // 0: not locked
  std::uint64_t password_lock_duration = 0;
  std::uint64_t last_password_attempt = 0;
};

enum lund_reg_state : std::int32_t {
  REG_IDLE = 0,
  REG_CHALLENGED = 1,
  REG_REGISTERED = 2,
};

// The registration with one server.
struct lund_server_reg {
  std::int32_t state = REG_IDLE;
  std::uint8_t server_key[LUND_KEY_SIZE] = {};  // from the challenge
  std::uint8_t challenge[16] = {};
  std::uint64_t next_at = 0;  // next REGISTER; 0: at once
  std::uint64_t last_sent = 0;
  std::int32_t tries = 0;       // REGISTERs since the last answer
  std::int32_t last_error = 0;  // 0 none, -1 temporary refusal, else a LUND_RV_ERROR code
  lund_rv_endpoint public_endpoint;
  std::uint32_t rtt_us = 0;
};

inline constexpr int HOST_WORK = 8;
inline constexpr int CANDIDATES_MAX = 1 + LUND_RV_LAN_MAX;

// One client that a server has announced: punch at its candidates for a moment, and bind the relay
// allocation through which it can be reached in any case.
struct lund_host_work {
  std::uint32_t used = 0;
  std::int32_t server = -1;
  std::uint32_t active = 0;  // the server's current job; a server has at most one
  std::uint32_t bound = 0;   // the relay has confirmed the allocation
  std::uint32_t allocation = 0;
  std::uint8_t token[16] = {};
  std::uint8_t punch_token[16] = {};
  lund_rv_endpoint candidates[CANDIDATES_MAX];
  std::int32_t candidate_count = 0;
  std::uint64_t created_at = 0;
  std::uint64_t punch_until = 0;
  std::uint64_t next_punch = 0;
  std::uint64_t next_bind = 0;
};

struct lund_host {
  lund_conn_base base;
  std::uint32_t allow_plain = 0;
  lund_authorized_client clients[LUND_CLIENTS_MAX];
  lund_crypto_slot slots[HOST_SLOTS];
  lund_host_link links[HOST_LINKS];
  lund_server_reg registrations[LUND_RELAYS_MAX];  // by server index
  lund_host_work work[HOST_WORK];
  lund_host_pairing pairing;
  lund_rate_limit hs_limit;
  lund_rate_limit reject_limit;
  lund_rate_limit reject_log_limit;
  lund_rate_limit pair_limit;
  lund_rate_limit pair_fail_limit;
  lund_rate_limit info_limit;
  lund_rate_limit hello_limit;
  std::uint32_t punch_nonce = 0;  // the next PUNCH's
};

// Handshake (conn_host_handshake.cpp).
void conn_host_handshake(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                         const lund_rv_endpoint& from, std::uint64_t now);

// Sessions (conn_host_sessions.cpp).
int conn_host_sealed(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                     const lund_rv_endpoint& from, std::uint64_t now, std::uint8_t* out,
                     std::size_t out_capacity, std::size_t* out_size, lund_rx_info* rx_info);
void conn_host_slot_free(lund_crypto_slot* slot);  // wipes
void conn_host_link_free(lund_host* host, lund_host_link* link);
bool conn_host_session_id_used(const lund_host* host, std::uint32_t session_id);
void conn_host_sessions_tick(lund_host* host, std::uint64_t now);
void conn_host_sessions_end(lund_host* host, int client);  // every link and slot of this client

// Pairing (conn_host_pairing.cpp).
void conn_host_pairing_init(lund_host* host, const lund_host_config* config,
                            const char* password_blob, bool has_clients);
void conn_host_info_request(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                            const lund_rv_endpoint& from, std::uint64_t now);
void conn_host_pair_init(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                         const lund_rv_endpoint& from, std::uint64_t now);
void conn_host_pair_confirm(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                            const lund_rv_endpoint& from);
void conn_host_pairing_close(lund_host* host, const char* why);  // logs `why`, pushes the event
void conn_host_pairing_tick(lund_host* host, std::uint64_t now);

// The list of clients (conn_host_clients.cpp).
int conn_host_clients_load(lund_host* host, const lund_client_list* clients);  // their count
int conn_host_client_find(const lund_host* host, const std::uint8_t key[LUND_KEY_SIZE]);
int conn_host_client_add(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE], const char* name);
void conn_host_event_key(lund_conn_event* event, const std::uint8_t key[LUND_KEY_SIZE]);

// Servers (conn_host_servers.cpp). A datagram of the rendezvous range, from anywhere.
void conn_host_rendezvous(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                          const lund_rv_endpoint& from, std::uint64_t now);
// Registers where it is due; lowers `wake` to the next time.
void conn_host_servers_tick(lund_host* host, std::uint64_t now, std::uint64_t* wake);

// Work entries (conn_host_work.cpp). `server` is a valid index, whose message was authentic.
void conn_host_take_notify(lund_host* host, int server, const lund_rv_message& message,
                           std::uint64_t now);
void conn_host_take_bound(lund_host* host, int server, const lund_rv_message& message,
                          std::uint64_t now);
// PUNCH or PUNCH_ACK, from anywhere.
void conn_host_take_punch(lund_host* host, const lund_rv_message& message,
                          const lund_rv_endpoint& from);
// Punches, binds, drops what has outlived its use; lowers `wake` to the next time.
void conn_host_work_tick(lund_host* host, std::uint64_t now, std::uint64_t* wake);
void conn_host_work_clear(lund_host* host, int server);
// Servers have new indices, by the old one; the entries of those that are gone (-1) are cleared.
void conn_host_work_move(lund_host* host, const std::int32_t kept[LUND_RELAYS_MAX]);
// Whether a client announced by a server may be at this address.
bool conn_host_is_candidate(const lund_host* host, const lund_rv_endpoint& address);
