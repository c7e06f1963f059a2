// What the host's and the client's engine share: configuration, lock, server table, event queue,
// and the small functions on them. The engines are transport-free: datagrams go in, and out through
// a callback. Every conn_ function that takes a base expects the engine's lock to be held by the
// caller; the callbacks are called with it held and must neither block nor re-enter the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "connection/clock.h"
#include "connection/lists.h"
#include "connection/netsock.h"
#include "connection/printf_format.h"
#include "connection/rendezvous.h"
#include "connection/secure.h"

using lund_send_fn = void (*)(void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                              std::size_t size);
using lund_log_fn = void (*)(void* user, const char* text);  // one line, no newline

struct lund_conn_config {
  lund_keypair identity;
  const char* name = nullptr;  // this device's; null means empty
  lund_relay_config relays;
  std::int32_t lan_count = 0;
  lund_rv_endpoint lan_endpoints[4];  // own LAN addresses to announce
  lund_send_fn send = nullptr;        // required
  lund_log_fn log = nullptr;
  void* user = nullptr;
};

struct lund_conn_server {
  char host[254] = {};
  std::uint16_t port = 0;
  std::uint8_t net_key[32] = {};
  lund_rv_endpoint endpoint;     // family 0 while unknown
  std::uint32_t unresolved = 0;  // 1 after a failed resolution, to log it once
};

enum lund_event_type : std::uint32_t {
  LUND_EV_PAIRED = 1,
  LUND_EV_PAIR_ATTEMPT = 2,
  LUND_EV_PAIR_ATTEMPT_FAILED = 3,
  LUND_EV_PIN_CHANGED = 4,
  LUND_EV_PAIRING_CLOSED = 5,
  LUND_EV_SESSION_UP = 6,
  LUND_EV_UNKNOWN_DEVICE = 7,
  LUND_EV_SERVER_UP = 8,
  LUND_EV_SERVER_LOST = 9,
  LUND_EV_PATH_CHANGED = 10,
  LUND_EV_REKEYED = 11,
  LUND_EV_CLIENT_PAIRED = 12,
  LUND_EV_CLIENT_PAIR_FAILED = 13,
  LUND_EV_CLIENT_SESSION_UP = 14,
  LUND_EV_CLIENT_REJECTED = 15,
  LUND_EV_CLIENT_LOOKUP_FAILED = 16,
};

enum lund_pair_kind : std::uint32_t { LUND_KIND_PIN = 1, LUND_KIND_PASSWORD = 2 };

// Of fixed size, so that the queue is a plain array. Fields that a type doesn't use are 0, `server`
// is -1.
struct lund_conn_event {
  std::uint32_t type = 0;
  std::int32_t status = 0;  // attempt number, or failure class
  std::uint32_t kind = 0;   // lund_pair_kind
  std::int32_t path = 0;
  std::int32_t server = -1;
  std::uint32_t session_id = 0;
  std::uint32_t rtt_us = 0;
  lund_rv_endpoint addr;
  std::uint8_t key[LUND_KEY_SIZE] = {};
  std::uint8_t key_id[LUND_KEY_ID_SIZE] = {};
  char name[64] = {};
};

// What the engines' receive functions return.
enum lund_receive_result : int {
  LUND_RX_NONE = 0,    // nothing for the application
  LUND_RX_OPENED = 1,  // a packet was opened into `out`
  LUND_RX_PLAIN = 2,   // a plain packet for the application, in the datagram itself
};

// Filled for each packet that a receive function delivers.
struct lund_rx_info {
  std::uint32_t session_id = 0;    // the logical session
  std::uint32_t first_packet = 0;  // 1 for the first delivered on this link
  std::int32_t path = 0;
};

inline constexpr int LUND_EVENTS = 64;

struct lund_conn_base {
  std::mutex lock;
  lund_keypair keypair;
  char name[64] = {};
  lund_send_fn send = nullptr;
  lund_log_fn log = nullptr;
  void* user = nullptr;
  std::int32_t server_count = 0;
  lund_conn_server servers[LUND_RELAYS_MAX];
  std::int32_t lan_count = 0;
  lund_rv_endpoint lan_endpoints[4];
  lund_conn_event events[LUND_EVENTS];
  std::int32_t event_head = 0;
  std::int32_t event_count = 0;
};

void conn_base_init(lund_conn_base* base, const lund_conn_config* config);

// Builds a server table (room for LUND_RELAYS_MAX) from relays, leaving out what isn't valid.
// Returns the count.
int conn_servers_load(lund_conn_server* servers, const lund_relay_config* relays);

// The new zeroed event for the caller to fill; a full queue of 64 loses its oldest.
lund_conn_event* conn_ev_push(lund_conn_base* base, std::uint32_t type);
int conn_ev_pop(lund_conn_base* base, lund_conn_event* event_out);  // 1 or 0

LUND_PRINTF(2, 3)
void conn_log(lund_conn_base* base, const char* format, ...);  // cut to 511 characters

void conn_send(lund_conn_base* base, const lund_rv_endpoint& to, const std::uint8_t* bytes,
               std::size_t size);
std::size_t conn_send_rv(lund_conn_base* base, const lund_rv_endpoint& to,
                         const lund_rv_message& message, const std::uint8_t* key);
void conn_send_server(lund_conn_base* base, int index, const lund_rv_message& message);

// The server whose resolved endpoint is `address`, or -1. Nothing in a packet tells it.
int conn_server_index(const lund_conn_base* base, const lund_rv_endpoint& address);

// The resolver's result (`endpoint` null: failed). Returns a bit mask of servers that moved.
std::uint32_t conn_server_resolved(lund_conn_base* base, const char* host, std::uint16_t port,
                                   const lund_rv_endpoint* endpoint);

const char* conn_addr_str(const lund_rv_endpoint& address, char* buffer, std::size_t size);
inline constexpr std::size_t LUND_SERVER_TEXT = 264;  // room that every server's text fits
const char* conn_server_str(const lund_conn_base* base, int index, char* buffer, std::size_t size);

inline constexpr std::size_t LUND_PROBE_SIZE = 20;
inline constexpr std::size_t LUND_REKEY_SIZE = 12;
void conn_make_probe(std::uint8_t out[LUND_PROBE_SIZE], std::uint8_t type, std::uint8_t flags,
                     std::uint32_t probe_seq, std::uint64_t now_us);
void conn_make_rekey(std::uint8_t out[LUND_REKEY_SIZE], std::uint8_t type,
                     std::uint32_t session_id);

std::uint64_t conn_wall_us();       // microseconds of UTC since 1970
std::uint64_t conn_hs_timestamp();  // the same, strictly increasing within the process
std::uint32_t conn_random_u32();
void conn_blake2b16(std::uint8_t out[16], const void* bytes, std::size_t size);
bool conn_strieq(const char* a, const char* b);  // ASCII, without regard to case
