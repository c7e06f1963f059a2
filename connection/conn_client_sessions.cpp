// Sessions: the handshake on every path at once, sealed records under the keys of before, during
// and after a rekey, and the rekey itself, which is a handshake whose keys wait for the host's
// word.
#include <algorithm>
#include <cstring>

#include "connection/byte_order.h"
#include "connection/conn_client_internal.h"

namespace client_engine {

namespace {

constexpr std::uint64_t HS_RETRY_US = 250 * MS;
constexpr std::uint64_t REKEY_RETRY_US = 250 * MS;
constexpr std::uint64_t REKEY_GRACE_US = 5'000 * MS;  // as long as the host keeps the old keys
constexpr std::uint64_t REJECT_NEWS_US = 2'000 * MS;  // anyone can send HS_REJECT: news is limited
constexpr std::size_t SEALED_MIN = LUND_HEADER_SIZE + LUND_SEAL_OVERHEAD;

struct Opener {
  lund_client_session* session = nullptr;
  lund_session* keys = nullptr;
};

// The keys that a record's crypto session id names.
Opener find_keys(lund_client& client, std::uint32_t crypto_id) {
  for (lund_client_session& session : client.sessions) {
    if (session.state != LUND_SESSION_UP) continue;
    if (session.current.session_id == crypto_id) return {&session, &session.current};
    if (session.has_pending && session.pending.session_id == crypto_id)
      return {&session, &session.pending};
    if (session.has_previous && session.previous.session_id == crypto_id)
      return {&session, &session.previous};
  }
  return {};
}

// An answer's time on the path that its handshake went out on: since the newest, unless it answers
// one before. A path that none went to has nothing to measure, and keeps the time it has.
void mark_handshake_ack(lund_client_path& path, std::uint64_t superseded_at, std::uint64_t now) {
  const std::uint64_t sent_at = superseded_at != 0 ? superseded_at : path.last_hs_sent;
  mark_ack(path, path.last_hs_sent ? now - sent_at : path.rtt_us, now);
}

// The attempt in flight makes room for the next one, but its answer stays welcome: over a round
// trip longer than the retry's 250 ms, every answer is one to a superseded attempt.
void supersede(lund_client_session& session) {
  const bool sent = session.init[0] == LUND_MAGIC;
  if (!session.in_flight || !sent) return;
  std::move_backward(std::begin(session.superseded), std::end(session.superseded) - 1,
                     std::end(session.superseded));
  session.superseded[0] = {session.noise, session.noise_sent};
}

// What an answer answers.
struct Answered {
  bool attempt = false;
  std::uint64_t superseded_at = 0;  // when it was sent, of a superseded one
};

Answered finish_attempt(lund_client_session& session, const std::uint8_t* datagram,
                        std::size_t size, lund_session* keys) {
  if (lund_hs_client_finish(&session.noise, datagram, size, keys) == LUND_OK) return {true};
  for (lund_client_superseded& attempt : session.superseded)
    if (attempt.sent_at != 0 &&
        lund_hs_client_finish(&attempt.noise, datagram, size, keys) == LUND_OK)
      return {true, attempt.sent_at};
  return {};
}

void forget_attempts(lund_client_session& session) {
  lund_secure_wipe(&session.noise, sizeof session.noise);
  lund_secure_wipe(session.superseded, sizeof session.superseded);
  lund_secure_wipe(session.init, sizeof session.init);
}

// The path of an authentic answer from `from`, made if it is new. -1 when there is no room, or when
// only relays count: nothing but a server tells one of those.
int path_of_answer(lund_client& client, const lund_rv_endpoint& from) {
  const int known = path_find(client, from);
  if (known >= 0 || client.path_mode == LUND_PATHS_RELAY) return known;
  const int server = conn_server_index(&client.base, from);
  const std::int32_t path_class = server >= 0 ? LUND_PATH_RELAY : lund_addr_path_class(from);
  return path_add(client, from, path_class, server);
}

void session_up(lund_client& client, lund_client_session& session, const lund_session& keys,
                int path_index, const lund_rv_endpoint& from, std::uint64_t now) {
  session.current = keys;
  session.last_rekey = now;
  session.session_id = keys.session_id;
  session.state = LUND_SESSION_UP;
  if (client.first_up_at == 0) client.first_up_at = now;
  const lund_client_path unknown{};
  const lund_client_path& path = path_index < 0 ? unknown : client.paths[path_index];
  if (client.current_path < 0 && path_usable(client, path)) {
    client.current_path = path_index;
    client.path_since = now;
  }

  char text[LUND_ADDR_TEXT];
  conn_log(&client.base, "session %08x up via %s %s (rtt %.1f ms)", session.session_id,
           lund_path_name(path.path_class), conn_addr_str(from, text, sizeof text),
           path.rtt_us / 1000.0);
  lund_conn_event* event = conn_ev_push(&client.base, LUND_EV_CLIENT_SESSION_UP);
  event->session_id = session.session_id;
  event->path = path.path_class;
  event->addr = from;
  event->rtt_us = path.rtt_us;
  event->server = path.server;
  std::memcpy(event->key, client.host_key, sizeof event->key);
  lund_key_id(event->key_id, client.host_key);
}

// The host has answered under the pending keys: they are the session's from here on.
void confirm_rekey(lund_client& client, lund_client_session& session, std::uint64_t now) {
  session.previous = session.current;
  session.previous_until = now + REKEY_GRACE_US;
  session.current = session.pending;
  lund_session_wipe(&session.pending);
  session.has_previous = 1;
  session.has_pending = 0;
  session.last_rekey = now;
  conn_log(&client.base, "session %08x rekeyed (crypto session %08x)", session.session_id,
           session.current.session_id);
  conn_ev_push(&client.base, LUND_EV_REKEYED)->session_id = session.session_id;
}

void take_probe_ack(lund_client& client, int path_index, const std::uint8_t* packet,
                    std::size_t size, std::uint64_t now) {
  if (size < LUND_PROBE_SIZE || path_index < 0) return;
  const auto sent_us = load_le<std::uint64_t>(packet + 12);
  if (sent_us <= now) mark_ack(client.paths[path_index], now - sent_us, now);
}

void send_rekey(lund_client& client, lund_client_session& session) {
  std::uint8_t plain[LUND_REKEY_SIZE];
  std::uint8_t sealed[LUND_REKEY_SIZE + LUND_SEAL_OVERHEAD];
  conn_make_rekey(plain, LUND_PKT_REKEY, session.session_id);
  const std::size_t size = lund_seal(&session.pending, plain, sizeof plain, sealed, sizeof sealed);
  conn_send(&client.base, client.paths[client.current_path].addr, sealed, size);
}

bool rekey_due(const lund_client& client, const lund_client_session& session, std::uint64_t now) {
  return session.current.send_counter >= client.rekey_messages ||
         now - session.last_rekey >= client.rekey_us;
}

void tick_up(lund_client& client, lund_client_session& session, Tick& tick) {
  if (session.has_previous && tick.now >= session.previous_until) {
    lund_session_wipe(&session.previous);
    session.has_previous = 0;
  }
  if (!session.in_flight && !session.has_pending && rekey_due(client, session, tick.now)) {
    conn_log(&client.base, "session %08x: rekeying", session.session_id);
    begin_rekey(session, tick.now);
  }
  if (session.in_flight) {
    if (tick.now >= session.next_hs) hs_send(client, session, tick.now);
    tick.due(session.next_hs);
  }
  if (session.has_pending && client.current_path >= 0) {
    if (tick.now >= session.next_rekey_send) {
      send_rekey(client, session);
      session.next_rekey_send = tick.now + REKEY_RETRY_US;
    }
    tick.due(session.next_rekey_send);
  }
}

}  // namespace

lund_client_session* first_session_up(lund_client& client) {
  for (lund_client_session& session : client.sessions)
    if (session.state == LUND_SESSION_UP) return &session;
  return nullptr;
}

void start_connect(lund_client& client, std::uint64_t now) {
  client.mode = LUND_CLIENT_CONNECTING;
  start_servers(client, now);
  lund_client_session& main = client.sessions[0];
  if (main.state != LUND_SESSION_FREE) return;
  main.state = LUND_SESSION_HANDSHAKING;
  main.next_hs = now;
}

void begin_rekey(lund_client_session& session, std::uint64_t now) {
  session.in_flight = 1;
  session.last_rekey = now;
  session.next_hs = now;
}

void hs_send(lund_client& client, lund_client_session& session, std::uint64_t now) {
  // Every attempt has a timestamp of its own: the host takes none twice.
  std::size_t size = 0;
  session.next_hs = now + HS_RETRY_US;
  supersede(session);
  if (lund_hs_client_start(&session.noise, &client.base.keypair, client.host_key,
                           conn_hs_timestamp(), session.init, sizeof session.init,
                           &size) != LUND_OK) {
    lund_secure_wipe(session.init, sizeof session.init);
    return;
  }
  session.noise_sent = now;
  session.in_flight = 1;
  session.answered = 0;

  const bool alone = first_session_up(client) && client.current_path >= 0 &&
                     path_usable(client, client.paths[client.current_path]);
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    lund_client_path& path = client.paths[i];
    if (alone ? i != client.current_path : !path_usable(client, path)) continue;
    path.last_hs_sent = now;
    conn_send(&client.base, path.addr, session.init, size);
  }
}

void take_hs_resp(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                  const lund_rv_endpoint& from, std::uint64_t now) {
  if (size != LUND_HS_RESP_SIZE) return;
  for (const lund_client_session& session : client.sessions) {
    if (!session.answered || std::memcmp(session.resp_cache, datagram, size) != 0) continue;
    // The same answer on another path, or once more on this one: not a session, but a sign of life.
    const int path = path_find(client, from);
    if (path >= 0) mark_handshake_ack(client.paths[path], 0, now);
    return;
  }

  lund_session keys;
  for (lund_client_session& session : client.sessions) {
    if (!session.in_flight) continue;
    const Answered answered = finish_attempt(session, datagram, size, &keys);
    if (!answered.attempt) continue;
    session.in_flight = 0;
    session.answered = 1;
    std::memcpy(session.resp_cache, datagram, size);
    forget_attempts(session);
    const int path = path_of_answer(client, from);
    if (path >= 0) mark_handshake_ack(client.paths[path], answered.superseded_at, now);
    if (session.state == LUND_SESSION_UP) {
      session.pending = keys;
      session.has_pending = 1;
      session.next_rekey_send = now;
    } else {
      session_up(client, session, keys, path, from, now);
    }
    break;
  }
  lund_session_wipe(&keys);
}

// Not authenticated, so it is news and nothing more: the handshake goes on.
void take_hs_reject(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                    std::uint64_t now) {
  std::uint8_t reason = 0;
  if (client.mode != LUND_CLIENT_CONNECTING || first_session_up(client) ||
      lund_hs_decode_reject(datagram, size, &reason) != 0)
    return;
  if (client.last_reject_at != 0 && now - client.last_reject_at < REJECT_NEWS_US) return;
  client.last_reject_at = now;
  conn_log(&client.base, "host rejected the handshake (reason %d)", reason);
  conn_ev_push(&client.base, LUND_EV_CLIENT_REJECTED)->status = reason;
}

int take_sealed(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                const lund_rv_endpoint& from, const Delivery& delivery, std::uint64_t now) {
  if (size < SEALED_MIN) return LUND_RX_NONE;
  const Opener opener = find_keys(client, load_le<std::uint32_t>(datagram + 4));
  std::size_t opened = 0;
  if (!opener.keys ||
      lund_open(opener.keys, datagram, size, delivery.out, delivery.capacity, &opened) != LUND_OK)
    return LUND_RX_NONE;
  const int path = path_find(client, from);
  if (path >= 0) client.paths[path].last_rx = now;

  switch (delivery.out[2]) {
    case LUND_PKT_PATH_PROBE:
    case LUND_PKT_REKEY:
      return LUND_RX_NONE;
    case LUND_PKT_PATH_PROBE_ACK:
      take_probe_ack(client, path, delivery.out, opened, now);
      return LUND_RX_NONE;
    case LUND_PKT_REKEY_ACK:
      if (opener.keys == &opener.session->pending) confirm_rekey(client, *opener.session, now);
      return LUND_RX_NONE;
    default:
      break;
  }
  store_le(delivery.out + 4, opener.session->session_id);
  if (delivery.size) *delivery.size = opened;
  if (delivery.rx_info) {
    delivery.rx_info->session_id = opener.session->session_id;
    delivery.rx_info->path = path < 0 ? LUND_PATH_NONE : client.paths[path].path_class;
  }
  return LUND_RX_OPENED;
}

void tick_sessions(lund_client& client, Tick& tick) {
  if (!client.has_host_key) return;
  for (lund_client_session& session : client.sessions) {
    if (session.state == LUND_SESSION_HANDSHAKING) {
      if (tick.now >= session.next_hs) hs_send(client, session, tick.now);
      tick.due(session.next_hs);
      tick.urgent = true;
    } else if (session.state == LUND_SESSION_UP) {
      tick_up(client, session, tick);
    }
  }
}

}  // namespace client_engine
