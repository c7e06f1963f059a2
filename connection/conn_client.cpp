#include "connection/conn_client.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "connection/conn_client_internal.h"

using namespace client_engine;

namespace {

constexpr std::uint32_t FAST_PHASE_MS = 2000;
constexpr std::uint32_t SILENCE_MS = 1200;
constexpr std::uint32_t HOLD_MS = 3000;
constexpr std::uint64_t REKEY_MESSAGES = std::uint64_t{1} << 40;
constexpr std::uint32_t REKEY_SECONDS = 3600;

constexpr std::uint64_t WAIT_MIN_US = 1 * MS;
constexpr std::uint64_t WAIT_BUSY_US = 50 * MS;
constexpr std::uint64_t WAIT_MAX_US = 250 * MS;

template <typename T>
T or_default(T value, T fallback) {
  return value ? value : fallback;
}

void wipe_session(lund_client_session& session) {
  lund_secure_wipe(&session, sizeof session);
}

bool no_session_left(const lund_client& client) {
  return std::all_of(std::begin(client.sessions), std::end(client.sessions),
                     [](const auto& session) { return session.state == LUND_SESSION_FREE; });
}

void become_idle(lund_client& client) {
  if (client.mode == LUND_CLIENT_PAIRING) forget_pairing(client);
  client.mode = LUND_CLIENT_IDLE;
  client.first_up_at = 0;
  client.current_path = -1;
}

int take_plain(lund_client& client, const std::uint8_t* datagram, std::size_t size,
               const lund_rv_endpoint& from, std::uint64_t now) {
  if (datagram[2] >= LUND_RV_FIRST && datagram[2] <= LUND_RV_LAST) {
    take_rendezvous(client, datagram, size, from, now);
    return LUND_RX_NONE;
  }
  switch (datagram[2]) {
    case LUND_PKT_DISCOVER_REPLY:
      return LUND_RX_PLAIN;
    case LUND_PKT_HS_RESP:
      take_hs_resp(client, datagram, size, from, now);
      break;
    case LUND_PKT_HS_REJECT:
      take_hs_reject(client, datagram, size, now);
      break;
    case LUND_PKT_HOST_INFO:
      take_host_info(client, datagram, size, from, now);
      break;
    case LUND_PKT_PAIR_RESP:
    case LUND_PKT_PAIR_OK:
    case LUND_PKT_PAIR_FAIL:
      take_pair_packet(client, datagram, size, from, now);
      break;
    default:
      break;
  }
  return LUND_RX_NONE;
}

}  // namespace

lund_client* lund_client_create(const lund_client_config* config) {
  if (!config || !config->send) return nullptr;
  std::uint8_t code[5] = {};
  const bool has_code = config->host_code && config->host_code[0];
  // A code that can't be compared would let every host pass.
  if (has_code && lund_key_code_parse(code, config->host_code) != 0) return nullptr;
  auto* client = new (std::nothrow) lund_client;
  if (!client) return nullptr;

  conn_base_init(&client->base, config);
  // A lock may take memory when it is first held; from here on the engine takes none.
  const std::lock_guard guard(client->base.lock);
  client->has_host_key = config->has_host_key ? 1 : 0;
  if (config->has_host_key) std::memcpy(client->host_key, config->host_key, LUND_KEY_SIZE);
  client->has_code = has_code ? 1 : 0;
  std::memcpy(client->code, code, sizeof code);
  client->path_mode = config->path_mode;
  client->fast_phase_us = or_default(config->fast_phase_ms, FAST_PHASE_MS) * MS;
  client->silence_us = or_default(config->silence_ms, SILENCE_MS) * MS;
  client->hold_us = or_default(config->hold_ms, HOLD_MS) * MS;
  client->rekey_messages = or_default(config->rekey_messages, REKEY_MESSAGES);
  client->rekey_us = or_default(config->rekey_seconds, REKEY_SECONDS) * 1000 * MS;
  return client;
}

void lund_client_destroy(lund_client* client) {
  if (!client) return;
  std::destroy_at(client);
  lund_secure_wipe(client, sizeof *client);
  ::operator delete(client);
}

int lund_client_add_candidate(lund_client* client, const lund_rv_endpoint* address,
                              std::int32_t path_class) {
  if (!address || (address->family != 4 && address->family != 6) || address->port == 0) return -1;
  const std::int32_t natural = lund_addr_path_class(*address);
  if (path_class != LUND_PATH_LAN && path_class != LUND_PATH_DIRECT) path_class = natural;
  if (path_class == LUND_PATH_LAN && natural != LUND_PATH_LAN) path_class = LUND_PATH_DIRECT;

  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  const bool known = path_find(*client, *address) >= 0;
  const int index = path_add(*client, *address, path_class, -1);
  if (index < 0) return -1;
  if (!known && client->mode != LUND_CLIENT_IDLE) path_kick(*client, index, now);
  return 0;
}

int lund_client_pair(lund_client* client, const char* secret, std::uint32_t kind) {
  if (!secret || kind > LUND_KIND_PASSWORD) return -1;
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  return start_pairing(*client, secret, kind, now);
}

int lund_client_connect(lund_client* client) {
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  if (!client->has_host_key) return -1;
  if (client->mode == LUND_CLIENT_PAIRING) forget_pairing(*client);
  start_connect(*client, now);
  return 0;
}

int lund_client_open_session(lund_client* client) {
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  if (!client->has_host_key) return -1;
  for (lund_client_session& session : client->sessions) {
    if (session.state != LUND_SESSION_FREE) continue;
    session.state = LUND_SESSION_HANDSHAKING;
    session.next_hs = now;
    if (client->mode == LUND_CLIENT_IDLE) start_connect(*client, now);
    return 0;
  }
  return -1;
}

void lund_client_session_close(lund_client* client, std::uint32_t session_id) {
  const std::lock_guard guard(client->base.lock);
  bool closed = session_id == 0;
  for (lund_client_session& session : client->sessions) {
    if (session_id != 0 && session.session_id != session_id) continue;
    closed = true;
    wipe_session(session);
  }
  if (closed && no_session_left(*client)) become_idle(*client);
}

int lund_client_receive(lund_client* client, const std::uint8_t* datagram, std::size_t size,
                        const lund_rv_endpoint& from, std::uint8_t* out, std::size_t out_capacity,
                        std::size_t* out_size, lund_rx_info* rx_info) {
  if (out_size) *out_size = 0;
  if (rx_info) *rx_info = {};
  if (size < LUND_HEADER_SIZE || datagram[0] != LUND_MAGIC) return LUND_RX_NONE;
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  switch (datagram[1]) {
    case LUND_VERSION_SEALED:
      return take_sealed(*client, datagram, size, from, {out, out_capacity, out_size, rx_info},
                         now);
    case LUND_VERSION_PLAIN:
      return take_plain(*client, datagram, size, from, now);
    default:
      return LUND_RX_NONE;
  }
}

std::size_t lund_client_seal(lund_client* client, std::uint32_t session_id,
                             const std::uint8_t* plain, std::size_t plain_size, std::uint8_t* out,
                             std::size_t capacity, lund_rv_endpoint* peer_out) {
  const std::lock_guard guard(client->base.lock);
  if (client->current_path < 0) return 0;
  for (lund_client_session& session : client->sessions) {
    if (session.state != LUND_SESSION_UP) continue;
    if (session_id != 0 && session.session_id != session_id) continue;
    if (peer_out) *peer_out = client->paths[client->current_path].addr;
    return lund_seal(&session.current, plain, plain_size, out, capacity);
  }
  return 0;
}

std::uint64_t lund_client_tick(lund_client* client) {
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  Tick tick{now, now + WAIT_MAX_US};
  tick_pairing(*client, tick);
  tick_sessions(*client, tick);
  tick_servers(*client, tick);
  tick_probes(*client, tick);
  const bool up = first_session_up(*client) != nullptr;
  if (up) choose_path(*client, now);

  const bool busy = tick.urgent || (up && in_fast_phase(*client, now));
  const std::uint64_t wait = tick.wake > now ? tick.wake - now : 0;
  return std::clamp(wait, WAIT_MIN_US, busy ? WAIT_BUSY_US : WAIT_MAX_US);
}

int lund_client_poll_event(lund_client* client, lund_conn_event* event) {
  const std::lock_guard guard(client->base.lock);
  return conn_ev_pop(&client->base, event);
}

void lund_client_rekey(lund_client* client) {
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  for (lund_client_session& session : client->sessions)
    if (session.state == LUND_SESSION_UP && !session.in_flight && !session.has_pending)
      begin_rekey(session, now);
}

void lund_client_status_get(lund_client* client, lund_client_status* status) {
  *status = {};
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  if (const lund_client_session* up = first_session_up(*client)) {
    status->connected = 1;
    status->session_id = up->session_id;
  }
  if (client->current_path >= 0) {
    const lund_client_path& path = client->paths[client->current_path];
    status->path = path.path_class;
    status->rtt_us = path.rtt_us;
    status->addr = path.addr;
  }
  status->max_datagram = lund_path_max_datagram(status->path);
  status->payload = lund_path_payload(status->path);
  for (const lund_client_path& path : client->paths) {
    if (!path.used) continue;
    lund_client_path_status& entry = status->paths[status->path_count++];
    entry.path_class = path.path_class;
    entry.alive = path_alive(*client, path, now) ? 1 : 0;
    entry.server = path.server;
    entry.rtt_us = path.rtt_us;
    entry.addr = path.addr;
  }
}

void lund_client_server_resolved(lund_client* client, const char* name, std::uint16_t port,
                                 const lund_rv_endpoint* endpoint) {
  const std::lock_guard guard(client->base.lock);
  const std::uint64_t now = lund_now_us();
  restart_servers(*client, conn_server_resolved(&client->base, name, port, endpoint), now);
}
