// Datagrams and engine events: how each finds its handler.
#include <algorithm>
#include <cstring>

#include "connection/clock.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/text.h"
#include "host/discover.h"
#include "host/server.h"

namespace {

constexpr std::size_t OPENED_MAX = 2048;
constexpr std::uint64_t DISCOVER_REPEAT_US = 500'000;
constexpr std::uint64_t DISCOVER_WINDOW_US = 1'000'000;
constexpr int DISCOVER_PER_WINDOW = 20;
constexpr std::size_t TYPE_OFFSET = 2;

// Events after which a status reader sees something new.
bool changes_status(std::uint32_t type) {
  return type == LUND_EV_PAIRED || type == LUND_EV_SESSION_UP || type == LUND_EV_PATH_CHANGED;
}

}  // namespace

void HostServer::handle(const std::uint8_t* data, std::size_t size, const Peer& peer) {
  if (size < LUND_HEADER_SIZE || data[0] != LUND_MAGIC || !host_ || peer.address.family == 0)
    return;
  std::uint8_t opened[OPENED_MAX];
  std::size_t opened_size = 0;
  lund_rx_info rx;
  const int result =
      lund_host_receive(host_, data, size, peer.address, opened, sizeof opened, &opened_size, &rx);
  if (result == LUND_RX_PLAIN && data[TYPE_OFFSET] == LUND_PKT_DISCOVER)
    handle_discover(data, size, peer);
  if (result == LUND_RX_OPENED) handle_opened(opened, opened_size, rx);
  drain_events(true);
}

void HostServer::handle_opened(const std::uint8_t* data, std::size_t size, const lund_rx_info& rx) {
  lund_packet_header header;
  if (lund_decode_header(data, size, &header) != 0) return;
  if (header.type == LUND_PKT_HELLO) return handle_hello(data, size, rx);
  if (header.type == LUND_PKT_PAIR_BACK) return handle_pair_back(data, size, rx.session_id);
  if (const SessionPtr session = find_session(rx.session_id))
    session->handle_packet(header.type, data, size);
}

// ---- Engine events

// The receive thread only tries: whoever holds the lock takes its events too.
void HostServer::drain_events(bool try_only) {
  std::unique_lock lock(events_mutex_, std::defer_lock);
  if (!try_only)
    lock.lock();
  else if (!lock.try_lock())
    return;
  lund_conn_event event;
  while (host_ && lund_host_poll_event(host_, &event)) handle_event(event);
}

void HostServer::handle_event(const lund_conn_event& event) {
  if (event.type == LUND_EV_PAIRED && !handle_paired(event)) return;
  if (event.type == LUND_EV_PATH_CHANGED) handle_path_changed(event);
  if (changes_status(event.type)) status_changed();
  if (on_event) on_event(event);
}

// False when nobody may take the device for paired: a machine-wide store that isn't written would
// forget it.
bool HostServer::handle_paired(const lund_conn_event& event) {
  if (std::equal(event.key, event.key + LUND_KEY_SIZE, public_key_)) {
    lund_host_remove_client(host_, event.key);
    hlog("refused pairing with this PC's own key (%s): connect to another computer",
         key_code_.c_str());
    return true;
  }
  if (!persist_clients()) {
    hlog("paired device persistence failed; authorization was not saved");
    return keystore::hostStoreScope() != keystore::Machine;
  }
  hlog("paired with \"%s\" (%s) using the %s; saved", event.name, code_of(event.key).c_str(),
       event.kind == LUND_KIND_PASSWORD ? "password" : "PIN");
  return true;
}

// The size only ever goes down in a session: a path that gets better leaves it alone.
void HostServer::handle_path_changed(const lund_conn_event& event) {
  const int payload = lund_path_payload(event.path);
  const SessionPtr session = find_session(event.session_id);
  if (session && session->lower_payload(payload)) {
    hlog("%spath is now %s: datagrams %d bytes (payload %d) from the next keyframe",
         session->tag().c_str(), lund_path_name(event.path), lund_path_max_datagram(event.path),
         payload);
    if (session->setup.screen == 0) clipboard_->resize(event.session_id, payload);
    session->force_keyframe(false);
  }
  std::scoped_lock lock(sessions_mutex_);
  if (event.session_id == qos_session_ && event.addr.family == 4) socket_.qos_set_peer(event.addr);
}

// ---- LAN discovery

void HostServer::handle_discover(const std::uint8_t* data, std::size_t size, const Peer& peer) {
  lund_discover discover;
  if (lund_decode_discover(data, size, &discover) != 0) return;
  if (!admit_discover(discover.nonce, peer)) return;

  const DisplayInfo shown = display();
  const bool has_size = shown.width >= 1;
  lund_discover_reply reply;
  reply.nonce = discover.nonce;
  reply.lan_id = host_id_;
  reply.port = options_.port;
  reply.width = static_cast<std::uint16_t>(has_size ? std::min(shown.width, 65'535) : 1920);
  reply.height = static_cast<std::uint16_t>(has_size ? std::min(shown.height, 65'535) : 1080);
  reply.busy = sessions().empty() ? 0 : 1;

  const lund_packet_header header;
  std::uint8_t packet[128];
  const std::size_t packet_size =
      lund_encode_discover_reply(packet, sizeof packet, &header, &reply, computer_name_.c_str());
  const std::uint32_t source = discover_source(local_ipv4_interfaces(), peer);
  if (packet_size != 0) socket_.send_from(packet, packet_size, peer.address, source);
  if (discover_count_ == 1)
    hlog("DISCOVER from %s (to %s), replied from %s", peer.str().c_str(),
         ipv4_string(peer.source_ip).c_str(),
         source != 0 ? ipv4_string(source).c_str() : "default route");
}

bool HostServer::admit_discover(std::uint32_t nonce, const Peer& peer) {
  const std::uint64_t now = lund_now_us();
  if (nonce == discover_nonce_ && lund_rv_endpoint_equal(peer.address, discover_peer_.address) &&
      now < discover_us_ + DISCOVER_REPEAT_US)
    return false;
  discover_nonce_ = nonce;
  discover_peer_ = peer;
  discover_us_ = now;
  if (now <= discover_window_us_ + DISCOVER_WINDOW_US)
    return ++discover_count_ <= DISCOVER_PER_WINDOW;
  discover_window_us_ = now;
  discover_count_ = 1;
  return true;
}
