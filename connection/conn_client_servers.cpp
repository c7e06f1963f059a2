// Rendezvous servers at the client: asking each of them for the host, punching towards what they
// know of it, and binding the relay allocation that each one gives. No session is built here: what
// works becomes a path, and the handshake on it is what counts.
#include <monocypher.h>

#include <algorithm>
#include <cstring>

#include "connection/conn_client_internal.h"
#include "connection/conn_punch.h"

namespace client_engine {

namespace {

constexpr std::int32_t LOOKUP_TRIES = 12;
constexpr std::uint64_t LOOKUP_RETRY_US = 1'000 * MS;
constexpr std::uint64_t LOOKUP_FAILED_RETRY_US = 3'000 * MS;
constexpr std::uint64_t PUNCH_FOR_US = 2'500 * MS;  // as long as the host punches
constexpr std::uint64_t PUNCH_EVERY_US = 50 * MS;
constexpr std::uint64_t BIND_RETRY_US = 1'000 * MS;
constexpr std::uint64_t BIND_KEEP_US = 15'000 * MS;  // below the life of a NAT's UDP mapping

// From the start. The new nonce leaves answers to what was asked before without effect: they name
// an allocation that may be gone, or come from where the server was.
void restart(lund_client_server& server, std::uint64_t now) {
  server = {};
  server.nonce = conn_random_u32();
  server.next_lookup = now;
}

bool same_token(const std::uint8_t a[16], const std::uint8_t b[16]) {
  return crypto_verify16(a, b) == 0;
}

int found_by_punch_token(const lund_client& client, const std::uint8_t token[16]) {
  for (int i = 0; i < client.base.server_count; ++i)
    if (client.servers[i].state == LUND_LOOKUP_FOUND &&
        same_token(client.servers[i].punch_token, token))
      return i;
  return -1;
}

void add_and_kick(lund_client& client, const lund_rv_endpoint& addr, std::int32_t path_class,
                  int server, std::uint64_t now) {
  const bool known = path_find(client, addr) >= 0;
  const int index = path_add(client, addr, path_class, server);
  if (!known) path_kick(client, index, now);
}

void add_candidate(lund_client_server& server, const lund_rv_endpoint& addr) {
  const lund_rv_endpoint* first = server.candidates;
  const bool listed = std::any_of(
      first, first + server.candidate_count,
      [&addr](const auto& candidate) { return lund_rv_endpoint_equal(candidate, addr); });
  if (!listed) server.candidates[server.candidate_count++] = addr;
}

bool wants_lookup(lund_client& client, const lund_client_server& server) {
  return server.tries < LOOKUP_TRIES &&
         !(server.state == LUND_LOOKUP_FOUND && first_session_up(client));
}

void send_lookup(lund_client& client, int index, std::uint64_t now) {
  lund_client_server& server = client.servers[index];
  lund_rv_message lookup;
  lookup.type = LUND_RV_LOOKUP;
  lookup.nonce = server.nonce;
  if (client.has_host_key) {
    lookup.target_size = LUND_KEY_ID_SIZE;
    lund_key_id(lookup.target, client.host_key);
  } else {
    lookup.target_size = sizeof client.code;
    std::memcpy(lookup.target, client.code, sizeof client.code);
  }
  lookup.lan_count = client.base.lan_count;
  std::copy_n(client.base.lan_endpoints, client.base.lan_count, lookup.lan);
  conn_send_server(&client.base, index, lookup);
  if (server.state == LUND_LOOKUP_IDLE) server.state = LUND_LOOKUP_ASKED;
  ++server.tries;
  server.last_sent = now;
  server.next_lookup = now + LOOKUP_RETRY_US;
}

bool may_ask_servers(const lund_client& client) {
  return client.mode != LUND_CLIENT_IDLE && client.path_mode != LUND_PATHS_NO_SERVERS &&
         (client.has_host_key || client.has_code);
}

void server_step(lund_client& client, int index, Tick& tick) {
  if (!may_ask_servers(client) || client.base.servers[index].endpoint.family == 0) return;
  lund_client_server& server = client.servers[index];
  if (wants_lookup(client, server) && tick.now >= server.next_lookup)
    send_lookup(client, index, tick.now);
  if (wants_lookup(client, server)) tick.due(server.next_lookup);
  if (server.state != LUND_LOOKUP_FOUND) return;

  if (client.path_mode != LUND_PATHS_RELAY && tick.now < server.punch_until) {
    if (tick.now >= server.next_punch) {
      conn_send_punches(&client.base, lund_rv_side::client, server.punch_token, server.candidates,
                        server.candidate_count, &client.punch_seq);
      server.next_punch = tick.now + PUNCH_EVERY_US;
    }
    if (server.next_punch < server.punch_until) tick.due(server.next_punch);
  }
  if (client.path_mode == LUND_PATHS_DIRECT) return;
  if (tick.now >= server.next_bind) {
    conn_send_bind(&client.base, lund_rv_side::client, index, server.allocation, server.token);
    server.next_bind = tick.now + (server.relay_added ? BIND_KEEP_US : BIND_RETRY_US);
  }
  tick.due(server.next_bind);
}

// PUNCH and PUNCH_ACK: whoever knows the token was told of us by a server, or by the host.
void take_punch(lund_client& client, const lund_rv_message& punch, const lund_rv_endpoint& from,
                std::uint64_t now) {
  const int index = found_by_punch_token(client, punch.punch_token);
  if (index < 0 || client.path_mode == LUND_PATHS_RELAY) return;
  if (punch.type == LUND_RV_PUNCH)
    conn_send_punch_ack(&client.base, lund_rv_side::client, punch, from);
  const bool near = lund_addr_path_class(from) == LUND_PATH_LAN;
  add_and_kick(client, from, near ? LUND_PATH_LAN : LUND_PATH_P2P, index, now);
}

void take_bound(lund_client& client, int index, const lund_rv_message& bound, std::uint64_t now) {
  lund_client_server& server = client.servers[index];
  if (server.state != LUND_LOOKUP_FOUND || bound.allocation != server.allocation) return;
  if (bound.status != 0) return restart(server, now);
  server.next_bind = now + BIND_KEEP_US;
  if (server.relay_added) return;
  const int path = path_add(client, client.base.servers[index].endpoint, LUND_PATH_RELAY, index);
  server.relay_added = path >= 0 ? 1 : 0;
  path_kick(client, path, now);
}

void lookup_failed(lund_client& client, int index, std::uint8_t status, std::uint64_t now) {
  lund_client_server& server = client.servers[index];
  server.next_lookup = now + LOOKUP_FAILED_RETRY_US;
  if (server.reported) return;
  server.reported = 1;
  char name[LUND_SERVER_TEXT];
  conn_log(&client.base, "lookup on %s failed (status %d)",
           conn_server_str(&client.base, index, name, sizeof name), status);
  lund_conn_event* event = conn_ev_push(&client.base, LUND_EV_CLIENT_LOOKUP_FAILED);
  event->server = index;
  event->status = status;
}

void take_result(lund_client& client, int index, const lund_rv_message& result, std::uint64_t now) {
  lund_client_server& server = client.servers[index];
  char name[LUND_SERVER_TEXT];
  conn_server_str(&client.base, index, name, sizeof name);
  if (!code_matches(client, result.key)) {
    conn_log(&client.base, "lookup on %s returned another host key: ignored", name);
    return;
  }
  if (server.state == LUND_LOOKUP_FOUND && server.allocation == result.allocation) return;

  server.state = LUND_LOOKUP_FOUND;
  server.allocation = result.allocation;
  std::memcpy(server.token, result.token, sizeof server.token);
  std::memcpy(server.punch_token, result.punch_token, sizeof server.punch_token);
  server.candidates[0] = result.peer;
  server.candidate_count = 1;
  for (int i = 0; i < result.lan_count; ++i) add_candidate(server, result.lan[i]);
  server.relay_added = 0;
  server.punch_until = now + PUNCH_FOR_US;
  server.next_punch = now;
  server.next_bind = now;
  server.rtt_us = static_cast<std::uint32_t>(now - server.last_sent);
  char peer[LUND_ADDR_TEXT];
  conn_log(&client.base, "lookup on %s: host at %s (+%d LAN), allocation %08x, rtt %.1f ms", name,
           conn_addr_str(result.peer, peer, sizeof peer), server.candidate_count - 1,
           server.allocation, server.rtt_us / 1000.0);
  Tick tick{now, now};  // the next real tick asks for its own times
  server_step(client, index, tick);
}

}  // namespace

// A server that has been found stays found: if its allocation has gone meanwhile, the answer to the
// next BIND says so. Its look-ups start over all the same, or twelve would be the most of a life.
void start_servers(lund_client& client, std::uint64_t now) {
  for (lund_client_server& server : client.servers) {
    if (server.state == LUND_LOOKUP_FOUND)
      server.tries = 0;
    else
      restart(server, now);
  }
}

void restart_servers(lund_client& client, std::uint32_t mask, std::uint64_t now) {
  for (int i = 0; i < LUND_RELAYS_MAX; ++i)
    if (mask >> i & 1) restart(client.servers[i], now);
}

void take_rendezvous(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                     const lund_rv_endpoint& from, std::uint64_t now) {
  lund_rv_message message;
  if (datagram[2] == LUND_RV_PUNCH || datagram[2] == LUND_RV_PUNCH_ACK) {
    if (lund_rv_decode(datagram, size, nullptr, &message) == LUND_OK)
      take_punch(client, message, from, now);
    return;
  }
  const int index = conn_server_index(&client.base, from);
  if (index < 0 ||
      lund_rv_decode(datagram, size, client.base.servers[index].net_key, &message) != LUND_OK)
    return;
  const bool answers_lookup = message.nonce == client.servers[index].nonce;
  switch (message.type) {
    case LUND_RV_BOUND:
      return take_bound(client, index, message, now);
    case LUND_RV_LOOKUP_RESULT:
      if (!answers_lookup) return;
      return message.status == 0 ? take_result(client, index, message, now)
                                 : lookup_failed(client, index, message.status, now);
    case LUND_RV_ERROR:
      if (answers_lookup) lookup_failed(client, index, message.status, now);
      return;
    default:
      return;
  }
}

void tick_servers(lund_client& client, Tick& tick) {
  for (int i = 0; i < client.base.server_count; ++i) server_step(client, i, tick);
}

}  // namespace client_engine
