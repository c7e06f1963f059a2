// Admission: a client that proves the static key of an authorized device gets a half-open key set.
// Whatever fails before that proof is met with silence.
#include <cstring>

#include "connection/conn_host_internal.h"

namespace {

void send_reject(lund_host* host, const lund_rv_endpoint& from, std::uint8_t reason,
                 std::uint64_t now) {
  if (!conn_rate_pass(&host->reject_limit, REJECT_RATE, now)) return;
  std::uint8_t reject[LUND_HS_REJECT_SIZE];
  conn_send(&host->base, from, reject, lund_hs_encode_reject(reject, sizeof reject, reason));
}

void reject_unknown(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE],
                    const lund_rv_endpoint& from, std::uint64_t now) {
  send_reject(host, from, LUND_REJECT_UNKNOWN_DEVICE, now);
  if (!conn_rate_pass(&host->reject_log_limit, REJECT_LOG_RATE, now)) return;
  char code[LUND_KEY_CODE_TEXT];
  char address[LUND_ADDR_TEXT];
  lund_key_code(code, key);
  conn_log(&host->base, "handshake from unknown device %s at %s: rejected", code,
           conn_addr_str(from, address, sizeof address));
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_UNKNOWN_DEVICE);
  event->status = 1;
  event->addr = from;
  conn_host_event_key(event, key);
}

const lund_authorized_client* find_answered(const lund_host* host, const std::uint8_t hash[16]) {
  for (const lund_authorized_client& client : host->clients)
    if (client.used != 0 && client.resp_cached != 0 && std::memcmp(client.init_hash, hash, 16) == 0)
      return &client;
  return nullptr;
}

// An active session isn't evicted by another client; its own is free to come again.
bool busy_for(const lund_host* host, int client, std::uint64_t now) {
  for (const lund_host_link& link : host->links)
    if (link.used != 0 && link.client != client && now - link.last_activity <= BUSY_US) return true;
  return false;
}

// A free slot, otherwise the oldest half-open one; null when all are bound.
lund_crypto_slot* take_slot(lund_host* host) {
  lund_crypto_slot* oldest = nullptr;
  for (lund_crypto_slot& slot : host->slots) {
    if (slot.state == SLOT_FREE) return &slot;
    if (slot.state == SLOT_HALF_OPEN && (oldest == nullptr || slot.created_at < oldest->created_at))
      oldest = &slot;
  }
  return oldest;
}

// 0 when the random source fails.
std::uint32_t new_session_id(const lund_host* host) {
  // Collisions are one in 2^27 at most: a second draw is rare, a third means a broken source.
  constexpr int DRAWS = 8;
  for (int i = 0; i < DRAWS; ++i) {
    const std::uint32_t id = conn_random_u32();
    if (id != 0 && !conn_host_session_id_used(host, id)) return id;
  }
  return 0;
}

void admit(lund_host* host, int client_index, lund_noise_ik* state, std::uint64_t timestamp,
           const std::uint8_t hash[16], const lund_rv_endpoint& from, std::uint64_t now) {
  lund_authorized_client& client = host->clients[client_index];
  if (timestamp <= client.last_timestamp) return;  // no answer to a replay
  lund_crypto_slot* slot = nullptr;
  if (busy_for(host, client_index, now) || (slot = take_slot(host)) == nullptr) {
    send_reject(host, from, LUND_REJECT_BUSY, now);
    return;
  }
  conn_host_slot_free(slot);
  const std::uint32_t session_id = new_session_id(host);
  if (session_id == 0) return;
  std::uint8_t answer[192];
  std::size_t answer_size = 0;
  if (lund_hs_host_respond(state, session_id, answer, sizeof answer, &answer_size,
                           &slot->session) != LUND_OK) {
    conn_host_slot_free(slot);
    return;
  }
  slot->state = SLOT_HALF_OPEN;
  slot->client = client_index;
  slot->created_at = now;
  client.last_timestamp = timestamp;
  std::memcpy(client.init_hash, hash, sizeof client.init_hash);
  std::memcpy(client.resp_cache, answer, sizeof client.resp_cache);
  client.resp_cached = 1;
  conn_send(&host->base, from, answer, answer_size);
}

}  // namespace

void conn_host_handshake(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                         const lund_rv_endpoint& from, std::uint64_t now) {
  if (size != LUND_HS_INIT_SIZE) return;
  std::uint8_t hash[16];
  conn_blake2b16(hash, datagram, size);
  if (const lund_authorized_client* answered = find_answered(host, hash)) {
    conn_send(&host->base, from, answered->resp_cache, sizeof answered->resp_cache);
    return;
  }
  if (!conn_rate_pass(&host->hs_limit, HS_RATE, now)) return;
  lund_noise_ik state;
  std::uint8_t key[LUND_KEY_SIZE];
  std::uint64_t timestamp = 0;
  if (lund_hs_host_read(&state, &host->base.keypair, datagram, size, key, &timestamp) == LUND_OK) {
    const int client = conn_host_client_find(host, key);
    if (client < 0)
      reject_unknown(host, key, from, now);
    else
      admit(host, client, &state, timestamp, hash, from, now);
  }
  lund_secure_wipe(&state, sizeof state);
}
