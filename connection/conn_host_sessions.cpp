// Key sets (slots), logical sessions (links), and the paths to them. A link has one or two bound
// slots: the current one, and for a few seconds after a rekey the previous one. A bound slot names
// its link and the link names the slot.
#include <cstring>

#include "connection/byte_order.h"
#include "connection/conn_host_internal.h"
#include "connection/protocol.h"

namespace {

constexpr std::uint8_t PROBE_ACTIVE = 1;  // the probe's path is the sender's active one

// One opened record and where it came from.
struct record {
  lund_crypto_slot* slot;
  std::uint8_t* packet;
  std::size_t size;
  std::uint64_t counter;
  const lund_rv_endpoint& from;
  std::uint64_t now;

  std::uint8_t type() const { return packet[2]; }
  std::uint8_t flags() const { return packet[3]; }
};

int slot_index(const lund_host* host, const lund_crypto_slot* slot) {
  return static_cast<int>(slot - host->slots);
}

lund_crypto_slot* find_slot(lund_host* host, std::uint32_t session_id) {
  for (lund_crypto_slot& slot : host->slots)
    if (slot.state != SLOT_FREE && slot.session.session_id == session_id) return &slot;
  return nullptr;
}

lund_host_link* find_link(lund_host* host, std::uint32_t session_id) {
  for (lund_host_link& link : host->links)
    if (link.used != 0 && link.session_id == session_id) return &link;
  return nullptr;
}

void free_slot_at(lund_host* host, std::int32_t* index) {
  if (*index >= 0) conn_host_slot_free(&host->slots[*index]);
  *index = -1;
}

void bind_slot(lund_host* host, lund_crypto_slot* slot, const lund_host_link* link) {
  slot->state = SLOT_BOUND;
  slot->link = static_cast<std::int32_t>(link - host->links);
}

void send_sealed(lund_host* host, lund_crypto_slot* slot, const std::uint8_t* plain,
                 std::size_t size, const lund_rv_endpoint& to) {
  std::uint8_t sealed[LUND_PROBE_SIZE + LUND_SEAL_OVERHEAD];
  conn_send(&host->base, to, sealed, lund_seal(&slot->session, plain, size, sealed, sizeof sealed));
}

void send_rekey_ack(lund_host* host, lund_crypto_slot* slot, std::uint32_t session_id,
                    const lund_rv_endpoint& to) {
  std::uint8_t ack[LUND_REKEY_SIZE];
  conn_make_rekey(ack, LUND_PKT_REKEY_ACK, session_id);
  send_sealed(host, slot, ack, sizeof ack, to);
}

std::int32_t classify_path(const lund_host* host, const lund_rv_endpoint& source) {
  if (conn_server_index(&host->base, source) >= 0) return LUND_PATH_RELAY;
  const std::int32_t by_address = lund_addr_path_class(source);
  if (by_address == LUND_PATH_LAN) return LUND_PATH_LAN;
  return conn_host_is_candidate(host, source) ? LUND_PATH_P2P : by_address;
}

// Makes the record's source the session's peer. Unless forced, only a record newer than the one
// that set the path last may do so: a reordered one can't drag the session back to an address it
// has left.
void update_path(lund_host* host, lund_host_link* link, const record& rx, bool force) {
  const auto slot = static_cast<std::uint32_t>(slot_index(host, rx.slot));
  if (!force && link->path_slot == slot && link->path_counter >= rx.counter) return;
  link->path_slot = slot;
  link->path_counter = rx.counter;
  if (lund_rv_endpoint_equal(rx.from, link->peer)) return;
  const bool had_peer = link->peer.family != 0;
  link->peer = rx.from;
  link->path = classify_path(host, rx.from);
  if (!had_peer) return;
  char address[LUND_ADDR_TEXT];
  conn_log(&host->base, "session %08x: path -> %s %s", link->session_id, lund_path_name(link->path),
           conn_addr_str(rx.from, address, sizeof address));
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_PATH_CHANGED);
  event->session_id = link->session_id;
  event->path = link->path;
  event->addr = rx.from;
}

// A free link, otherwise that of the session quiet for longest.
lund_host_link* take_link(lund_host* host) {
  lund_host_link* quietest = nullptr;
  for (lund_host_link& link : host->links) {
    if (link.used == 0) return &link;
    if (quietest == nullptr || link.last_activity < quietest->last_activity) quietest = &link;
  }
  conn_host_link_free(host, quietest);
  return quietest;
}

// The first sealed packet of a key set proves that the client got the answer to its handshake.
void bind_session(lund_host* host, const record& rx) {
  lund_host_link* link = take_link(host);
  link->used = 1;
  link->session_id = rx.slot->session.session_id;
  link->client = rx.slot->client;
  link->current_slot = slot_index(host, rx.slot);
  link->last_activity = rx.now;
  bind_slot(host, rx.slot, link);
  update_path(host, link, rx, true);

  const lund_authorized_client& client = host->clients[link->client];
  char code[LUND_KEY_CODE_TEXT];
  char address[LUND_ADDR_TEXT];
  lund_key_code(code, client.public_key);
  conn_log(&host->base, "session %08x: \"%s\" (%s) connected via %s %s", link->session_id,
           client.name, code, lund_path_name(link->path),
           conn_addr_str(rx.from, address, sizeof address));
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_SESSION_UP);
  event->session_id = link->session_id;
  event->path = link->path;
  event->addr = rx.from;
  conn_host_event_key(event, client.public_key);
  std::memcpy(event->name, client.name, sizeof event->name);
}

// A client can only rekey a session of its own.
void bind_rekey(lund_host* host, const record& rx) {
  const std::uint32_t session_id =
      rx.size >= LUND_REKEY_SIZE ? load_le<std::uint32_t>(rx.packet + 8) : 0;
  lund_host_link* link = find_link(host, session_id);
  if (link == nullptr || link->client != rx.slot->client) {
    conn_host_slot_free(rx.slot);
    return;
  }
  free_slot_at(host, &link->previous_slot);
  link->previous_slot = link->current_slot;
  link->current_slot = slot_index(host, rx.slot);
  link->previous_until = rx.now + REKEY_GRACE_US;
  bind_slot(host, rx.slot, link);
  update_path(host, link, rx, true);
  link->last_activity = rx.now;
  send_rekey_ack(host, rx.slot, session_id, rx.from);
  conn_log(&host->base, "session %08x rekeyed (crypto session %08x)", session_id,
           rx.slot->session.session_id);
  conn_ev_push(&host->base, LUND_EV_REKEYED)->session_id = session_id;
}

void answer_probe(lund_host* host, lund_host_link* link, bool current, const record& rx) {
  if (rx.size < LUND_PROBE_SIZE) return;
  std::uint8_t ack[LUND_PROBE_SIZE];
  std::memcpy(ack, rx.packet, sizeof ack);
  ack[2] = LUND_PKT_PATH_PROBE_ACK;
  ack[3] = 0;
  send_sealed(host, rx.slot, ack, sizeof ack, rx.from);
  if ((rx.flags() & PROBE_ACTIVE) != 0 && current) update_path(host, link, rx, false);
}

// A record on a bound slot. True when it is for the application.
bool handle_bound(lund_host* host, lund_host_link* link, const record& rx) {
  const bool current = link->current_slot == slot_index(host, rx.slot);
  link->last_activity = rx.now;
  switch (rx.type()) {
    case LUND_PKT_REKEY:  // the acknowledgement was lost
      if (current && rx.size >= LUND_REKEY_SIZE)
        send_rekey_ack(host, rx.slot, link->session_id, rx.from);
      return false;
    case LUND_PKT_PATH_PROBE:
      answer_probe(host, link, current, rx);
      return false;
    case LUND_PKT_PATH_PROBE_ACK:
    case LUND_PKT_REKEY_ACK:
      return false;
    default:
      // The previous keys still deliver during the grace period, but can't move the path.
      if (current) update_path(host, link, rx, false);
      return true;
  }
}

}  // namespace

int conn_host_sealed(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                     const lund_rv_endpoint& from, std::uint64_t now, std::uint8_t* out,
                     std::size_t out_capacity, std::size_t* out_size, lund_rx_info* rx_info) {
  if (size < LUND_HEADER_SIZE + LUND_SEAL_OVERHEAD) return LUND_RX_NONE;
  lund_crypto_slot* slot = find_slot(host, load_le<std::uint32_t>(datagram + 4));
  if (slot == nullptr) return LUND_RX_NONE;
  // Read first: `out` may be the datagram's own buffer.
  const auto counter = load_le<std::uint64_t>(datagram + 8);
  std::size_t opened = 0;
  if (lund_open(&slot->session, datagram, size, out, out_capacity, &opened) != LUND_OK)
    return LUND_RX_NONE;
  const record rx{slot, out, opened, counter, from, now};
  if (slot->state == SLOT_HALF_OPEN) {
    if (rx.type() == LUND_PKT_REKEY) {
      bind_rekey(host, rx);
      return LUND_RX_NONE;
    }
    bind_session(host, rx);
  }
  if (slot->link < 0) return LUND_RX_NONE;
  lund_host_link* link = &host->links[slot->link];
  if (!handle_bound(host, link, rx)) return LUND_RX_NONE;
  store_le(out + 4, link->session_id);
  if (out_size != nullptr) *out_size = opened;
  if (rx_info != nullptr)
    *rx_info = {link->session_id, link->got_traffic == 0 ? 1U : 0U, link->path};
  link->got_traffic = 1;
  return LUND_RX_OPENED;
}

void conn_host_slot_free(lund_crypto_slot* slot) {
  lund_secure_wipe(slot, sizeof *slot);
  slot->link = -1;
}

void conn_host_link_free(lund_host* host, lund_host_link* link) {
  free_slot_at(host, &link->current_slot);
  free_slot_at(host, &link->previous_slot);
  *link = {};
}

bool conn_host_session_id_used(const lund_host* host, std::uint32_t session_id) {
  for (const lund_crypto_slot& slot : host->slots)
    if (slot.state != SLOT_FREE && slot.session.session_id == session_id) return true;
  for (const lund_host_link& link : host->links)
    if (link.used != 0 && link.session_id == session_id) return true;
  return false;
}

void conn_host_sessions_tick(lund_host* host, std::uint64_t now) {
  for (lund_crypto_slot& slot : host->slots)
    if (slot.state == SLOT_HALF_OPEN && now - slot.created_at > HALF_OPEN_LIFE_US)
      conn_host_slot_free(&slot);
  for (lund_host_link& link : host->links) {
    if (link.used == 0) continue;
    if (link.previous_slot >= 0 && now >= link.previous_until)
      free_slot_at(host, &link.previous_slot);
    if (now - link.last_activity > LINK_IDLE_US) {
      conn_log(&host->base, "session %08x expired (idle)", link.session_id);
      conn_host_link_free(host, &link);
    }
  }
}

void conn_host_sessions_end(lund_host* host, int client) {
  for (lund_host_link& link : host->links)
    if (link.used != 0 && link.client == client) conn_host_link_free(host, &link);
  for (lund_crypto_slot& slot : host->slots)
    if (slot.state != SLOT_FREE && slot.client == client) conn_host_slot_free(&slot);
}

std::size_t lund_host_seal(lund_host* host, std::uint32_t session_id, const std::uint8_t* plain,
                           std::size_t plain_size, std::uint8_t* out, std::size_t capacity,
                           lund_rv_endpoint* peer_out) {
  const std::lock_guard lock(host->base.lock);
  const lund_host_link* link = find_link(host, session_id);
  if (link == nullptr) return 0;
  if (peer_out != nullptr) *peer_out = link->peer;
  return lund_seal(&host->slots[link->current_slot].session, plain, plain_size, out, capacity);
}

int lund_host_session_info_get(lund_host* host, std::uint32_t session_id, lund_session_info* info) {
  *info = {};
  const std::lock_guard lock(host->base.lock);
  const lund_host_link* link = find_link(host, session_id);
  if (link == nullptr) return -1;
  const lund_authorized_client& client = host->clients[link->client];
  info->session_id = session_id;
  info->path = link->path;
  info->peer = link->peer;
  std::memcpy(info->client_key, client.public_key, sizeof info->client_key);
  std::memcpy(info->client_name, client.name, sizeof info->client_name);
  info->last_activity = link->last_activity;
  return 0;
}

void lund_host_session_close(lund_host* host, std::uint32_t session_id) {
  const std::lock_guard lock(host->base.lock);
  if (lund_host_link* link = find_link(host, session_id)) conn_host_link_free(host, link);
}
