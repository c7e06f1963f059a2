#include "connection/conn.h"

#include <monocypher.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "connection/byte_order.h"
#include "connection/protocol.h"

int conn_servers_load(lund_conn_server* servers, const lund_relay_config* relays) {
  int count = 0;
  const int given = std::clamp(relays->count, 0, LUND_RELAYS_MAX);
  lund_relay_server checked;
  for (int i = 0; i < given; ++i) {
    const lund_relay_server& relay = relays->servers[i];
    if (lund_relay_server_set(&checked, relay.host, relay.port, relay.key, relay.key_size) != 0)
      continue;
    lund_conn_server& server = servers[count++];
    server = {};
    std::memcpy(server.host, checked.host, sizeof server.host);
    server.port = checked.port;
    lund_rv_net_key(server.net_key, checked.key, checked.key_size);
    // A literal speaks for itself; for a name, the caller may know its address already.
    server.endpoint = checked.endpoint.family != 0 ? checked.endpoint : relay.endpoint;
    if (server.endpoint.family != 0)
      server.endpoint.port = server.port;
    else
      server.endpoint = {};
  }
  return count;
}

void conn_base_init(lund_conn_base* base, const lund_conn_config* config) {
  base->keypair = config->identity;
  conn_clean_name(base->name, config->name);
  base->send = config->send;
  base->log = config->log;
  base->user = config->user;
  base->server_count = conn_servers_load(base->servers, &config->relays);
  base->lan_count = std::clamp(config->lan_count, 0, 4);
  std::copy_n(config->lan_endpoints, base->lan_count, base->lan_endpoints);
}

lund_conn_event* conn_ev_push(lund_conn_base* base, std::uint32_t type) {
  if (base->event_count == LUND_EVENTS) {
    base->event_head = (base->event_head + 1) % LUND_EVENTS;
    --base->event_count;
  }
  lund_conn_event* event = &base->events[(base->event_head + base->event_count) % LUND_EVENTS];
  ++base->event_count;
  *event = {};
  event->type = type;
  return event;
}

int conn_ev_pop(lund_conn_base* base, lund_conn_event* event_out) {
  if (base->event_count == 0) return 0;
  *event_out = base->events[base->event_head];
  base->event_head = (base->event_head + 1) % LUND_EVENTS;
  --base->event_count;
  return 1;
}

void conn_log(lund_conn_base* base, const char* format, ...) {
  if (base->log == nullptr) return;
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  base->log(base->user, line);
}

void conn_send(lund_conn_base* base, const lund_rv_endpoint& to, const std::uint8_t* bytes,
               std::size_t size) {
  if (size == 0 || to.family == 0) return;
  base->send(base->user, &to, bytes, size);
}

std::size_t conn_send_rv(lund_conn_base* base, const lund_rv_endpoint& to,
                         const lund_rv_message& message, const std::uint8_t* key) {
  std::uint8_t datagram[LUND_RV_MESSAGE_MAX];
  const std::size_t size = lund_rv_encode(datagram, sizeof datagram, key, &message);
  conn_send(base, to, datagram, size);
  return size;
}

void conn_send_server(lund_conn_base* base, int index, const lund_rv_message& message) {
  if (index < 0 || index >= base->server_count) return;
  const lund_conn_server& server = base->servers[index];
  if (server.endpoint.family == 0) return;
  conn_send_rv(base, server.endpoint, message, server.net_key);
}

int conn_server_index(const lund_conn_base* base, const lund_rv_endpoint& address) {
  for (int i = 0; i < base->server_count; ++i) {
    const lund_rv_endpoint& endpoint = base->servers[i].endpoint;
    if (endpoint.family != 0 && lund_rv_endpoint_equal(endpoint, address)) return i;
  }
  return -1;
}

std::uint32_t conn_server_resolved(lund_conn_base* base, const char* host, std::uint16_t port,
                                   const lund_rv_endpoint* endpoint) {
  std::uint32_t moved = 0;
  for (int i = 0; i < base->server_count; ++i) {
    lund_conn_server& server = base->servers[i];
    if (server.port != port || !conn_strieq(server.host, host)) continue;
    if (endpoint == nullptr || endpoint->family == 0) {
      if (server.unresolved == 0)
        conn_log(base, "server %s:%u: name did not resolve", server.host, unsigned{server.port});
      server.unresolved = 1;
      continue;
    }
    server.unresolved = 0;
    lund_rv_endpoint resolved = *endpoint;
    resolved.port = server.port;
    if (server.endpoint.family != 0 && lund_rv_endpoint_equal(server.endpoint, resolved)) continue;
    char text[LUND_ADDR_TEXT];
    conn_log(base, "server %s:%u is at %s", server.host, unsigned{server.port},
             conn_addr_str(resolved, text, sizeof text));
    server.endpoint = resolved;
    moved |= 1U << i;
  }
  return moved;
}

const char* conn_addr_str(const lund_rv_endpoint& address, char* buffer, std::size_t size) {
  lund_addr_format(buffer, size, address);
  return buffer;
}

const char* conn_server_str(const lund_conn_base* base, int index, char* buffer, std::size_t size) {
  if (index < 0 || index >= base->server_count) {
    std::snprintf(buffer, size, "-");
    return buffer;
  }
  const lund_conn_server& server = base->servers[index];
  const bool literal6 = std::strchr(server.host, ':') != nullptr;
  std::snprintf(buffer, size, "%s%s%s:%u", literal6 ? "[" : "", server.host, literal6 ? "]" : "",
                unsigned{server.port});
  return buffer;
}

namespace {
void write_header(std::uint8_t* out, std::uint8_t type, std::uint8_t flags) {
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_PLAIN;
  out[2] = type;
  out[3] = flags;
  store_le<std::uint32_t>(out + 4, 0);
}
}  // namespace

void conn_make_probe(std::uint8_t out[LUND_PROBE_SIZE], std::uint8_t type, std::uint8_t flags,
                     std::uint32_t probe_seq, std::uint64_t now_us) {
  write_header(out, type, flags);
  store_le(out + 8, probe_seq);
  store_le(out + 12, now_us);
}

void conn_make_rekey(std::uint8_t out[LUND_REKEY_SIZE], std::uint8_t type,
                     std::uint32_t session_id) {
  write_header(out, type, 0);
  store_le(out + 8, session_id);
}

std::uint64_t conn_wall_us() {
  return lund_wall_us();
}

// A host takes only a timestamp above the last one, so two handshakes within a tick of the clock,
// or a clock that was set back, must still differ upwards.
std::uint64_t conn_hs_timestamp() {
  static std::atomic<std::uint64_t> last_us{0};
  std::uint64_t last = last_us.load();
  std::uint64_t next;
  do {
    next = std::max(conn_wall_us(), last + 1);
  } while (!last_us.compare_exchange_weak(last, next));
  return next;
}

std::uint32_t conn_random_u32() {
  std::uint8_t bytes[4] = {};
  if (lund_random_bytes(bytes, sizeof bytes) != LUND_OK) return 0;
  return load_le<std::uint32_t>(bytes);
}

void conn_blake2b16(std::uint8_t out[16], const void* bytes, std::size_t size) {
  crypto_blake2b(out, 16, static_cast<const std::uint8_t*>(bytes), size);
}

bool conn_strieq(const char* a, const char* b) {
  const auto lower = [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  };
  while (*a != '\0' && lower(*a) == lower(*b)) ++a, ++b;
  return lower(*a) == lower(*b);
}
