// The record behind lund_client and what its files share: conn_client.cpp (the public functions,
// the dispatcher, the tick), conn_client_sessions.cpp (handshake, sealed records, rekey),
// conn_client_paths.cpp (candidates, probes, path choice), conn_client_servers.cpp (look-up,
// punching, relay allocations), conn_client_pairing.cpp.
//
// Everything in client_engine runs under the engine's lock and takes the time that the public
// function read once it held it: one datagram or tick sees one clock, and no stored time is ahead
// of it.
#pragma once

#include "connection/conn_client.h"
#include "connection/cpace.h"
#include "connection/noise.h"
#include "connection/protocol.h"

enum lund_client_mode : std::uint32_t {
  LUND_CLIENT_IDLE = 0,
  LUND_CLIENT_PAIRING = 1,
  LUND_CLIENT_CONNECTING = 2,
};

enum lund_client_session_state : std::uint32_t {
  LUND_SESSION_FREE = 0,
  LUND_SESSION_HANDSHAKING = 1,
  LUND_SESSION_UP = 2,
};

// Progress of an exchange; the values are those of the lund_pair state that each one waits in.
enum lund_client_pair_stage : std::uint32_t {
  LUND_STAGE_INFO = 0,     // asking for the host's information
  LUND_STAGE_INIT = 2,     // PAIR_INIT sent
  LUND_STAGE_CONFIRM = 3,  // PAIR_CONFIRM sent
};

// Bits of HOST_INFO's capabilities.
inline constexpr std::uint8_t LUND_HOST_PIN_OPEN = 1;
inline constexpr std::uint8_t LUND_HOST_HAS_PASSWORD = 2;
inline constexpr std::uint8_t LUND_HOST_PASSWORD_LOCKED = 4;

inline constexpr std::size_t LUND_PAIR_INIT_SIZE = 56;

struct lund_client_path {
  std::uint32_t used = 0;
  std::int32_t path_class = 0;
  std::int32_t server = -1;  // the server it came through
  std::uint32_t alive = 0;   // set by an answer, cleared when abandoned as silent
  lund_rv_endpoint addr;
  std::uint64_t last_rx = 0;       // last sealed record of any kind
  std::uint64_t last_ack = 0;      // last answer to a probe or handshake
  std::uint64_t stable_since = 0;  // start of the unbroken run of answers
  std::uint64_t last_hs_sent = 0;  // 0: none was
  std::uint64_t next_probe = 0;
  std::uint32_t rtt_us = 0;  // smoothed; 0: not measured
};

// A handshake that a newer one has followed before its answer came.
struct lund_client_superseded {
  lund_noise_ik noise;
  std::uint64_t sent_at = 0;  // 0: none
};
// With one attempt each 250 ms: answers are taken that come within a second.
inline constexpr int LUND_CLIENT_SUPERSEDED = 3;

// All-zero is a free session, so that wiping one frees it.
struct lund_client_session {
  std::uint32_t state = LUND_SESSION_FREE;
  std::uint32_t session_id = 0;  // logical: the first crypto session's
  lund_session current;
  lund_session previous;  // grace period after a rekey
  lund_session pending;   // rekeyed, not yet confirmed by the host
  std::uint32_t has_previous = 0;
  std::uint32_t has_pending = 0;
  std::uint64_t previous_until = 0;
  std::uint64_t last_rekey = 0;
  std::uint64_t next_rekey_send = 0;
  std::uint64_t next_hs = 0;
  lund_noise_ik noise;                                        // handshake in flight
  std::uint64_t noise_sent = 0;                               // when it was sent
  lund_client_superseded superseded[LUND_CLIENT_SUPERSEDED];  // the newest first
  std::uint32_t in_flight = 0;  // a handshake waits for its answer, or for its sending
  std::uint32_t answered = 0;   // resp_cache is valid
  std::uint8_t init[LUND_HS_INIT_SIZE] = {};        // the HS_INIT in flight; zero until it is sent
  std::uint8_t resp_cache[LUND_HS_RESP_SIZE] = {};  // the HS_RESP taken last
};

enum lund_lookup_state : std::uint32_t {
  LUND_LOOKUP_IDLE = 0,
  LUND_LOOKUP_ASKED = 1,
  LUND_LOOKUP_FOUND = 2,
};

// What one server knows of the host, and the way to it that goes through the server.
struct lund_client_server {
  std::uint32_t state = LUND_LOOKUP_IDLE;
  std::uint32_t reported = 0;     // this look-up's failure has been told
  std::uint32_t relay_added = 0;  // the allocation is bound: the server is a path
  std::int32_t tries = 0;         // LOOKUPs sent
  std::uint32_t nonce = 0;
  std::uint32_t allocation = 0;
  std::uint32_t rtt_us = 0;
  std::uint64_t next_lookup = 0;
  std::uint64_t last_sent = 0;
  std::uint64_t punch_until = 0;
  std::uint64_t next_punch = 0;
  std::uint64_t next_bind = 0;
  std::uint8_t token[16] = {};
  std::uint8_t punch_token[16] = {};
  lund_rv_endpoint candidates[1 + LUND_RV_LAN_MAX];
  std::int32_t candidate_count = 0;
};

struct lund_client_pairing {
  char secret[256] = {};
  std::uint32_t requested_kind = 0;  // 0: the engine guesses
  std::uint32_t kind = 0;            // lund_pair_kind
  std::uint32_t password_tried = 0;
  std::uint32_t stage = LUND_STAGE_INFO;
  std::uint32_t info_nonce = 0;
  std::uint64_t next_send = 0;
  std::uint64_t deadline = 0;
  lund_rv_endpoint host_addr;  // who answered; from then on nobody else counts
  std::uint8_t capabilities = 0;
  std::uint8_t salt[16] = {};
  std::uint8_t info_key[LUND_KEY_SIZE] = {};
  std::uint32_t pw_mem_kib = 0;
  std::uint32_t pw_iterations = 0;
  lund_pair pair;
  std::uint8_t init[LUND_PAIR_INIT_SIZE] = {};  // PAIR_INIT with its flags, to be repeated
  std::size_t init_size = 0;
};

struct lund_client {
  lund_conn_base base;
  std::uint32_t has_host_key = 0;
  std::uint32_t has_code = 0;
  std::uint32_t path_mode = LUND_PATHS_ALL;
  std::uint8_t host_key[LUND_KEY_SIZE] = {};
  std::uint8_t code[5] = {};  // the first 40 bits of the host's key id
  std::uint64_t fast_phase_us = 0;
  std::uint64_t silence_us = 0;
  std::uint64_t hold_us = 0;
  std::uint64_t rekey_messages = 0;
  std::uint64_t rekey_us = 0;
  std::uint32_t mode = LUND_CLIENT_IDLE;
  lund_client_path paths[LUND_CLIENT_PATHS];
  std::int32_t current_path = -1;
  std::uint64_t first_up_at = 0;  // when the first session came up; 0 while there was none
  std::uint64_t path_since = 0;
  lund_client_session sessions[LUND_CLIENT_SESSIONS];
  lund_client_server servers[LUND_RELAYS_MAX];  // by server index
  std::uint32_t probe_seq = 0;
  std::uint32_t punch_seq = 0;  // the next PUNCH's nonce
  std::uint64_t last_reject_at = 0;
  lund_client_pairing pairing;
};

namespace client_engine {

inline constexpr std::uint64_t MS = 1000;  // in the clock's microseconds

// What a tick's steps say about the next one.
struct Tick {
  std::uint64_t now;
  std::uint64_t wake;   // the earliest thing due
  bool urgent = false;  // somebody waits for an answer

  void due(std::uint64_t at) {
    if (at < wake) wake = at;
  }
};

// Where a receive function puts a packet that is for the application.
struct Delivery {
  std::uint8_t* out;
  std::size_t capacity;
  std::size_t* size;      // may be null
  lund_rx_info* rx_info;  // may be null
};

// Paths.
bool path_usable(const lund_client& client, const lund_client_path& path);  // used, and in the mode
bool path_alive(const lund_client& client, const lund_client_path& path, std::uint64_t now);
int path_find(const lund_client& client, const lund_rv_endpoint& addr);  // index or -1
int path_add(lund_client& client, const lund_rv_endpoint& addr, std::int32_t path_class,
             std::int32_t server);  // index, also of a known address; -1 for a full table
void path_kick(lund_client& client, int index, std::uint64_t now);  // a chance for a path at once
void mark_ack(lund_client_path& path, std::uint64_t sample_us, std::uint64_t now);
bool better(const lund_client_path& a, const lund_client_path& b);
bool in_fast_phase(const lund_client& client, std::uint64_t now);
void switch_path(lund_client& client, int index, const char* reason, std::uint64_t now);
void tick_probes(lund_client& client, Tick& tick);
void choose_path(lund_client& client, std::uint64_t now);

// Sessions.
lund_client_session* first_session_up(lund_client& client);  // null without one
void start_connect(lund_client& client, std::uint64_t now);
void begin_rekey(lund_client_session& session, std::uint64_t now);  // the tick sends it
void hs_send(lund_client& client, lund_client_session& session, std::uint64_t now);
void take_hs_resp(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                  const lund_rv_endpoint& from, std::uint64_t now);
void take_hs_reject(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                    std::uint64_t now);
int take_sealed(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                const lund_rv_endpoint& from, const Delivery& delivery, std::uint64_t now);
void tick_sessions(lund_client& client, Tick& tick);

// Servers.
void start_servers(lund_client& client, std::uint64_t now);  // for a new connection or pairing
// Forgets all that the servers of the bit mask have said.
void restart_servers(lund_client& client, std::uint32_t mask, std::uint64_t now);
// A datagram of the rendezvous range, from anywhere.
void take_rendezvous(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                     const lund_rv_endpoint& from, std::uint64_t now);
void tick_servers(lund_client& client, Tick& tick);

// Pairing.
int start_pairing(lund_client& client, const char* secret, std::uint32_t kind, std::uint64_t now);
bool code_matches(const lund_client& client, const std::uint8_t key[LUND_KEY_SIZE]);
void send_info_request(lund_client& client, const lund_rv_endpoint& to);
void take_host_info(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                    const lund_rv_endpoint& from, std::uint64_t now);
// PAIR_RESP, PAIR_OK and PAIR_FAIL.
void take_pair_packet(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                      const lund_rv_endpoint& from, std::uint64_t now);
void tick_pairing(lund_client& client, Tick& tick);
void forget_pairing(lund_client& client);  // wipes the secret and the exchange

}  // namespace client_engine
