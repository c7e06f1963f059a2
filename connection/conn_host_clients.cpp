// The authorized clients. Entries don't move, so that sessions can name theirs by index.
#include <algorithm>
#include <cstring>

#include "connection/conn_host_internal.h"

int conn_host_clients_load(lund_host* host, const lund_client_list* clients) {
  if (clients == nullptr) return 0;
  const int count = std::clamp(clients->count, 0, LUND_CLIENTS_MAX);
  for (int i = 0; i < count; ++i) {
    const lund_client_entry& entry = clients->entries[i];
    lund_authorized_client& client = host->clients[i];
    client.used = 1;
    std::memcpy(client.public_key, entry.key, sizeof client.public_key);
    conn_clean_name(client.name, entry.name);
    client.added_at = entry.added_at;
  }
  return count;
}

int conn_host_client_find(const lund_host* host, const std::uint8_t key[LUND_KEY_SIZE]) {
  for (int i = 0; i < LUND_CLIENTS_MAX; ++i) {
    const lund_authorized_client& client = host->clients[i];
    if (client.used != 0 && std::memcmp(client.public_key, key, LUND_KEY_SIZE) == 0) return i;
  }
  return -1;
}

int conn_host_client_add(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE], const char* name) {
  int index = conn_host_client_find(host, key);
  if (index < 0) {
    const auto* free_entry = std::find_if(std::begin(host->clients), std::end(host->clients),
                                          [](const auto& client) { return client.used == 0; });
    if (free_entry == std::end(host->clients)) return -1;
    index = static_cast<int>(free_entry - host->clients);
    lund_authorized_client& client = host->clients[index];
    client.used = 1;
    std::memcpy(client.public_key, key, LUND_KEY_SIZE);
    client.added_at = conn_wall_us() / SECOND_US;
  }
  conn_clean_name(host->clients[index].name, name);
  return index;
}

void conn_host_event_key(lund_conn_event* event, const std::uint8_t key[LUND_KEY_SIZE]) {
  std::memcpy(event->key, key, LUND_KEY_SIZE);
  lund_key_id(event->key_id, key);
}

void lund_host_export_clients(lund_host* host, lund_client_list* list) {
  *list = {};
  const std::lock_guard lock(host->base.lock);
  for (const lund_authorized_client& client : host->clients) {
    if (client.used == 0) continue;
    lund_client_entry& entry = list->entries[list->count++];
    std::memcpy(entry.key, client.public_key, sizeof entry.key);
    std::memcpy(entry.name, client.name, sizeof entry.name);
    entry.added_at = client.added_at;
  }
}

int lund_host_add_client(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE], const char* name) {
  const std::lock_guard lock(host->base.lock);
  if (conn_host_client_add(host, key, name) < 0) return -1;
  conn_log(&host->base, "client authorized without pairing (two-way pairing)");
  // A window without a deadline stands open only for the host's first device.
  if (host->pairing.pairing_open != 0 && host->pairing.pairing_deadline == 0)
    conn_host_pairing_close(host, "a device was authorized");
  return 0;
}

int lund_host_remove_client(lund_host* host, const std::uint8_t key[LUND_KEY_SIZE]) {
  const std::lock_guard lock(host->base.lock);
  const int index = conn_host_client_find(host, key);
  if (index < 0) return -1;
  conn_host_sessions_end(host, index);
  host->clients[index] = {};
  return 0;
}
