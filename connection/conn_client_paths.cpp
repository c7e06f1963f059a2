// Candidates, probes, and the choice of the path on which the sessions run: for speed in the first
// seconds, for stability later.
#include <algorithm>

#include "connection/conn_client_internal.h"

namespace client_engine {

namespace {

constexpr std::uint64_t ALIVE_US = 1'500 * MS;  // three probes of a live path missed
constexpr std::uint64_t RTT_SAMPLE_MAX_US = 10'000 * MS;
constexpr std::uint32_t RTT_GAIN_MIN_US = 500;  // less is noise on a LAN

constexpr std::uint64_t PROBE_LIVE_US = 500 * MS;
constexpr std::uint64_t PROBE_SEARCH_US = 200 * MS;
constexpr std::uint64_t PROBE_LOST_US = 1'000 * MS;  // of a path that stopped answering by itself

void send_probe(lund_client& client, lund_client_session& session, const lund_client_path& path,
                bool active, std::uint64_t now) {
  std::uint8_t plain[LUND_PROBE_SIZE];
  std::uint8_t sealed[LUND_PROBE_SIZE + LUND_SEAL_OVERHEAD];
  conn_make_probe(plain, LUND_PKT_PATH_PROBE, active ? 1 : 0, client.probe_seq++, now);
  const std::size_t size = lund_seal(&session.current, plain, sizeof plain, sealed, sizeof sealed);
  conn_send(&client.base, path.addr, sealed, size);
}

std::uint64_t probe_interval(const lund_client& client, const lund_client_path& path, bool current,
                             std::uint64_t now) {
  if (current || path_alive(client, path, now)) return PROBE_LIVE_US;
  return path.alive && !in_fast_phase(client, now) ? PROBE_LOST_US : PROBE_SEARCH_US;
}

// The best of the live paths but `except`, the lowest index winning ties; -1 without one.
int best_alive(const lund_client& client, int except, std::uint64_t now) {
  int best = -1;
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    if (i == except || !path_alive(client, client.paths[i], now)) continue;
    if (best < 0 || better(client.paths[i], client.paths[best])) best = i;
  }
  return best;
}

// What to try when nothing answers: the path that asks least of the network, a relay before a
// direct one, whether it ever answered or not.
int least_demanding(const lund_client& client, int except) {
  int pick = -1;
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    if (i == except || !path_usable(client, client.paths[i])) continue;
    if (pick < 0 || client.paths[i].path_class > client.paths[pick].path_class) pick = i;
  }
  return pick;
}

void leave_silent_path(lund_client& client, std::uint64_t now) {
  int next = best_alive(client, client.current_path, now);
  if (next < 0 && now - client.path_since > client.silence_us)
    next = least_demanding(client, client.current_path);
  if (next < 0) return;
  client.paths[client.current_path].alive = 0;
  switch_path(client, next, "current path went silent", now);
}

}  // namespace

bool path_usable(const lund_client& client, const lund_client_path& path) {
  if (!path.used) return false;
  switch (client.path_mode) {
    case LUND_PATHS_RELAY:
      return path.path_class == LUND_PATH_RELAY;
    case LUND_PATHS_DIRECT:
    case LUND_PATHS_NO_SERVERS:
      return path.path_class != LUND_PATH_RELAY;
    default:
      return true;
  }
}

bool path_alive(const lund_client& client, const lund_client_path& path, std::uint64_t now) {
  return path_usable(client, path) && path.alive && now - path.last_ack < ALIVE_US;
}

int path_find(const lund_client& client, const lund_rv_endpoint& addr) {
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i)
    if (client.paths[i].used && lund_rv_endpoint_equal(client.paths[i].addr, addr)) return i;
  return -1;
}

int path_add(lund_client& client, const lund_rv_endpoint& addr, std::int32_t path_class,
             std::int32_t server) {
  if (const int known = path_find(client, addr); known >= 0) {
    lund_client_path& path = client.paths[known];
    if (path_class < path.path_class) {
      path.path_class = path_class;
      path.server = server;
    }
    return known;
  }
  lund_client_path* end = client.paths + LUND_CLIENT_PATHS;
  lund_client_path* slot =
      std::find_if(client.paths, end, [](const lund_client_path& path) { return !path.used; });
  if (slot == end) return -1;
  *slot = {};
  slot->used = 1;
  slot->path_class = path_class;
  slot->server = server;
  slot->addr = addr;
  char text[LUND_ADDR_TEXT];
  conn_log(&client.base, "path %s %s", lund_path_name(path_class),
           conn_addr_str(addr, text, sizeof text));
  return static_cast<int>(slot - client.paths);
}

void path_kick(lund_client& client, int index, std::uint64_t now) {
  if (index < 0 || index >= LUND_CLIENT_PATHS) return;
  lund_client_path& path = client.paths[index];
  if (!path_usable(client, path)) return;
  for (const lund_client_session& session : client.sessions) {
    const bool sent_before = session.init[0] == LUND_MAGIC;
    if (!session.in_flight || !sent_before) continue;
    path.last_hs_sent = now;
    conn_send(&client.base, path.addr, session.init, sizeof session.init);
  }
  if (lund_client_session* up = first_session_up(client)) {
    send_probe(client, *up, path, index == client.current_path, now);
    path.next_probe = now + PROBE_SEARCH_US;
  }
  if (client.mode == LUND_CLIENT_PAIRING && client.pairing.stage == LUND_STAGE_INFO)
    send_info_request(client, path.addr);
}

void mark_ack(lund_client_path& path, std::uint64_t sample_us, std::uint64_t now) {
  if (!path.alive || now - path.last_ack > ALIVE_US) path.stable_since = now;
  path.alive = 1;
  path.last_rx = now;
  path.last_ack = now;
  const std::uint64_t sample = std::min(sample_us, RTT_SAMPLE_MAX_US);
  path.rtt_us = static_cast<std::uint32_t>(
      path.rtt_us == 0 ? sample : (sample + 7 * std::uint64_t{path.rtt_us}) / 8);
}

// Between classes the lower wins whatever the times. Within one it takes 20 percent and half a
// millisecond, so that two equal paths don't take turns.
bool better(const lund_client_path& a, const lund_client_path& b) {
  if (a.path_class != b.path_class) return a.path_class < b.path_class;
  if (a.rtt_us == 0 || b.rtt_us == 0) return false;
  return std::uint64_t{a.rtt_us} * 5 < std::uint64_t{b.rtt_us} * 4 &&
         b.rtt_us - a.rtt_us > RTT_GAIN_MIN_US;
}

bool in_fast_phase(const lund_client& client, std::uint64_t now) {
  return client.first_up_at != 0 && now - client.first_up_at < client.fast_phase_us;
}

void switch_path(lund_client& client, int index, const char* reason, std::uint64_t now) {
  const char* former =
      client.current_path < 0 ? "?" : lund_path_name(client.paths[client.current_path].path_class);
  lund_client_path& path = client.paths[index];
  client.current_path = index;
  client.path_since = now;
  path.last_rx = now;
  path.next_probe = now + PROBE_LIVE_US;
  for (lund_client_session& session : client.sessions)
    if (session.state == LUND_SESSION_UP) send_probe(client, session, path, true, now);

  char text[LUND_ADDR_TEXT];
  conn_log(&client.base, "path %s -> %s %s (%s, rtt %.1f ms)", former,
           lund_path_name(path.path_class), conn_addr_str(path.addr, text, sizeof text), reason,
           path.rtt_us / 1000.0);
  const lund_client_session* up = first_session_up(client);
  lund_conn_event* event = conn_ev_push(&client.base, LUND_EV_PATH_CHANGED);
  event->session_id = up ? up->session_id : 0;
  event->path = path.path_class;
  event->addr = path.addr;
  event->server = path.server;
  event->rtt_us = path.rtt_us;
}

void tick_probes(lund_client& client, Tick& tick) {
  lund_client_session* up = first_session_up(client);
  if (!up) return;
  for (int i = 0; i < LUND_CLIENT_PATHS; ++i) {
    lund_client_path& path = client.paths[i];
    if (!path_usable(client, path)) continue;
    if (tick.now >= path.next_probe) {
      const bool current = i == client.current_path;
      send_probe(client, *up, path, current, tick.now);
      path.next_probe = tick.now + probe_interval(client, path, current, tick.now);
    }
    tick.due(path.next_probe);
  }
}

// Called while a session is up.
void choose_path(lund_client& client, std::uint64_t now) {
  const int best = best_alive(client, -1, now);
  if (client.current_path < 0 || !path_usable(client, client.paths[client.current_path])) {
    if (best >= 0) switch_path(client, best, "first path", now);
    return;
  }
  const lund_client_path& current = client.paths[client.current_path];
  if (now - current.last_rx > client.silence_us) {
    leave_silent_path(client, now);
    return;
  }
  if (best < 0 || best == client.current_path || !better(client.paths[best], current)) return;
  if (in_fast_phase(client, now)) {
    switch_path(client, best, "better path", now);
  } else if (client.paths[best].path_class < current.path_class &&
             now - client.paths[best].stable_since >= client.hold_us) {
    switch_path(client, best, "better path is back", now);
  }
}

}  // namespace client_engine
