// Rendezvous servers: the set of them, the registration with each, and what they say. A server is
// known by its address and by the tag under its net key; the two together, never one alone, let a
// message in. The servers are independent of each other.
#include <algorithm>
#include <cstring>

#include "connection/conn_host_internal.h"

namespace {

constexpr std::uint64_t REFRESH_US = 20 * SECOND_US;  // without a lease, and of a lost refresh
constexpr std::uint64_t ERROR_PAUSE_US = 5 * SECOND_US;
constexpr int BACKOFF_STEPS = 4;     // 1, 2, 4, then 8 seconds for good
constexpr int TRIES_UNTIL_LOST = 3;  // REGISTERs without an answer
constexpr int REFUSED_FOR_NOW = -1;  // last_error of a temporary refusal
constexpr int ERROR_TEMPORARY = 0;   // LUND_RV_ERROR codes
constexpr int ERROR_START_OVER = 2;

std::uint64_t backoff_us(int tries) {
  return SECOND_US << (std::clamp(tries, 1, BACKOFF_STEPS) - 1);
}

// Answers the challenge, if there is one, with a proof over the addresses that go along.
void fill_proof(const lund_host* host, lund_server_reg* registration, lund_rv_message* message) {
  if (registration->state == REG_IDLE) return;
  if (lund_rv_register_proof(message->proof, host->base.keypair.secret, registration->server_key,
                             registration->challenge, message->key, message->lan,
                             message->lan_count) != LUND_OK) {
    registration->state = REG_IDLE;  // a low-order key: as if there had been no challenge
    std::fill(std::begin(message->proof), std::end(message->proof), std::uint8_t{0});
    return;
  }
  std::memcpy(message->token, registration->challenge, sizeof message->token);
}

void send_register(lund_host* host, int server, std::uint64_t now) {
  lund_server_reg& registration = host->registrations[server];
  lund_rv_message message;
  message.type = LUND_RV_REGISTER;
  std::memcpy(message.key, host->base.keypair.public_key, sizeof message.key);
  message.lan_count = host->base.lan_count;
  std::copy_n(host->base.lan_endpoints, host->base.lan_count, message.lan);
  fill_proof(host, &registration, &message);
  conn_send_server(&host->base, server, message);
  registration.last_sent = now;
  ++registration.tries;
  if (registration.tries >= TRIES_UNTIL_LOST && registration.state == REG_REGISTERED) {
    char name[LUND_SERVER_TEXT];
    conn_log(&host->base, "server %s stopped answering",
             conn_server_str(&host->base, server, name, sizeof name));
    registration.state = REG_IDLE;
    conn_ev_push(&host->base, LUND_EV_SERVER_LOST)->server = server;
  }
  registration.next_at =
      now + (registration.state == REG_REGISTERED ? REFRESH_US : backoff_us(registration.tries));
}

void take_challenge(lund_host* host, int server, const lund_rv_message& message,
                    std::uint64_t now) {
  lund_server_reg& registration = host->registrations[server];
  registration.state = REG_CHALLENGED;
  std::memcpy(registration.server_key, message.key, sizeof registration.server_key);
  std::memcpy(registration.challenge, message.token, sizeof registration.challenge);
  registration.tries = 0;
  registration.last_error = 0;
  send_register(host, server, now);
}

void take_registered(lund_host* host, int server, const lund_rv_message& message,
                     std::uint64_t now) {
  lund_server_reg& registration = host->registrations[server];
  const bool unchanged = registration.state == REG_REGISTERED &&
                         lund_rv_endpoint_equal(registration.public_endpoint, message.observed);
  registration.state = REG_REGISTERED;
  registration.tries = 0;
  registration.last_error = 0;
  registration.public_endpoint = message.observed;
  registration.rtt_us =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(now - registration.last_sent, UINT32_MAX));
  registration.next_at =
      now + (message.lease_seconds != 0 ? message.lease_seconds * SECOND_US : REFRESH_US);
  if (unchanged) return;
  char name[LUND_SERVER_TEXT];
  char address[LUND_ADDR_TEXT];
  conn_log(&host->base, "registered with %s as %s (rtt %.1f ms)",
           conn_server_str(&host->base, server, name, sizeof name),
           conn_addr_str(message.observed, address, sizeof address), registration.rtt_us / 1000.0);
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_SERVER_UP);
  event->server = server;
  event->addr = message.observed;
  event->rtt_us = registration.rtt_us;
}

void take_error(lund_host* host, int server, const lund_rv_message& message, std::uint64_t now) {
  lund_server_reg& registration = host->registrations[server];
  char name[LUND_SERVER_TEXT];
  conn_log(&host->base, "server %s: error %d",
           conn_server_str(&host->base, server, name, sizeof name), int{message.status});
  registration.tries = 0;
  registration.last_error = message.status == ERROR_TEMPORARY ? REFUSED_FOR_NOW : message.status;
  if (message.status == ERROR_START_OVER) registration.state = REG_IDLE;
  registration.next_at = now + ERROR_PAUSE_US;
}

bool same_server(const lund_conn_server& a, const lund_conn_server& b) {
  return a.port == b.port && conn_strieq(a.host, b.host) &&
         std::memcmp(a.net_key, b.net_key, sizeof a.net_key) == 0;
}

lund_server_state state_of(const lund_conn_server& server, const lund_server_reg& registration) {
  if (server.endpoint.family == 0)
    return server.unresolved != 0 ? LUND_SERVER_NO_NAME : LUND_SERVER_RESOLVING;
  if (registration.state == REG_REGISTERED) return LUND_SERVER_REGISTERED;
  if (registration.last_error != 0) return LUND_SERVER_REFUSED;
  return registration.tries < TRIES_UNTIL_LOST ? LUND_SERVER_CONNECTING : LUND_SERVER_NO_ANSWER;
}

// A table of servers in the making, with what each keeps of the one it was in the table in use.
struct server_set {
  lund_conn_server servers[LUND_RELAYS_MAX];
  int count = 0;
  lund_server_reg registrations[LUND_RELAYS_MAX];
  std::int32_t kept[LUND_RELAYS_MAX];  // by the index in use: the new one, or -1
};

// A server that stays as it was keeps its address, and with the address its registration.
void carry_over(const lund_host* host, server_set* next) {
  bool paired[LUND_RELAYS_MAX] = {};
  std::fill(std::begin(next->kept), std::end(next->kept), -1);
  for (int i = 0; i < next->count; ++i) {
    lund_conn_server& server = next->servers[i];
    int old = 0;
    while (old < host->base.server_count &&
           (paired[old] || !same_server(host->base.servers[old], server)))
      ++old;
    if (old == host->base.server_count) continue;
    paired[old] = true;
    const lund_conn_server& before = host->base.servers[old];
    if (server.endpoint.family == 0) {
      server.endpoint = before.endpoint;
      server.unresolved = before.unresolved;
    }
    if (!lund_rv_endpoint_equal(server.endpoint, before.endpoint)) continue;
    next->registrations[i] = host->registrations[old];
    next->kept[old] = i;
  }
}

}  // namespace

void conn_host_rendezvous(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                          const lund_rv_endpoint& from, std::uint64_t now) {
  const std::uint8_t type = datagram[2];
  lund_rv_message message;
  if (type == LUND_RV_PUNCH || type == LUND_RV_PUNCH_ACK) {  // between peers, who share no key
    if (lund_rv_decode(datagram, size, nullptr, &message) == LUND_OK)
      conn_host_take_punch(host, message, from);
    return;
  }
  const int server = conn_server_index(&host->base, from);
  if (server < 0) return;
  if (lund_rv_decode(datagram, size, host->base.servers[server].net_key, &message) != LUND_OK)
    return;
  switch (message.type) {
    case LUND_RV_CHALLENGE:
      return take_challenge(host, server, message, now);
    case LUND_RV_REGISTERED:
      return take_registered(host, server, message, now);
    case LUND_RV_ERROR:
      return take_error(host, server, message, now);
    case LUND_RV_PUNCH_NOTIFY:
      return conn_host_take_notify(host, server, message, now);
    case LUND_RV_BOUND:
      return conn_host_take_bound(host, server, message, now);
    default:
      return;
  }
}

void conn_host_servers_tick(lund_host* host, std::uint64_t now, std::uint64_t* wake) {
  for (int i = 0; i < host->base.server_count; ++i) {
    if (host->base.servers[i].endpoint.family == 0) continue;
    if (now >= host->registrations[i].next_at) send_register(host, i, now);
    *wake = std::min(*wake, host->registrations[i].next_at);
  }
}

void lund_host_set_lan_endpoints(lund_host* host, const lund_rv_endpoint* endpoints, int count) {
  const std::lock_guard lock(host->base.lock);
  host->base.lan_count = std::clamp(count, 0, LUND_RV_LAN_MAX);
  std::copy_n(endpoints, host->base.lan_count, host->base.lan_endpoints);
  for (lund_server_reg& registration : host->registrations) {
    registration.next_at = 0;
    // What the server has confirmed are other addresses than these.
    if (registration.state == REG_REGISTERED) registration.state = REG_CHALLENGED;
  }
}

void lund_host_set_relay(lund_host* host, const lund_relay_config* relays) {
  server_set next;
  next.count = conn_servers_load(next.servers, relays);
  {
    const std::lock_guard lock(host->base.lock);
    carry_over(host, &next);
    conn_host_work_move(host, next.kept);
    std::copy(std::begin(next.servers), std::end(next.servers), host->base.servers);
    std::copy(std::begin(next.registrations), std::end(next.registrations), host->registrations);
    host->base.server_count = next.count;
    conn_log(&host->base, "relay servers: %d", next.count);
  }
  lund_secure_wipe(&next, sizeof next);
}

int lund_host_server_status(lund_host* host, int index, lund_server_status* status) {
  *status = {};
  const std::lock_guard lock(host->base.lock);
  if (index < 0 || index >= host->base.server_count) return -1;
  const lund_conn_server& server = host->base.servers[index];
  const lund_server_reg& registration = host->registrations[index];
  status->endpoint = server.endpoint;
  status->registered = registration.state == REG_REGISTERED ? 1 : 0;
  status->public_endpoint = registration.public_endpoint;
  status->rtt_us = registration.rtt_us;
  status->state = state_of(server, registration);
  status->error = std::max(registration.last_error, 0);
  status->port = server.port;
  std::memcpy(status->host, server.host, sizeof status->host);
  return 0;
}

void lund_host_server_resolved(lund_host* host, const char* name, std::uint16_t port,
                               const lund_rv_endpoint* endpoint) {
  const std::lock_guard lock(host->base.lock);
  const std::uint32_t moved = conn_server_resolved(&host->base, name, port, endpoint);
  for (int i = 0; i < host->base.server_count; ++i) {
    if ((moved >> i & 1) == 0) continue;
    host->registrations[i] = {};
    conn_host_work_clear(host, i);
  }
}
