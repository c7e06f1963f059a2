#include "apps/client/host_link.h"

#include <algorithm>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "control/log.h"

namespace {

constexpr std::size_t DATAGRAM_BYTES = 2048;

void send_callback(void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
  lund_udp_send(*static_cast<lund_socket*>(user), *to, bytes, size);
}

// Of a datagram that has been opened: a sealed record's header names keys and counter in clear.
PacketOrder order_of(const std::uint8_t* record) {
  return {load_le<std::uint32_t>(record + 4), load_le<std::uint64_t>(record + LUND_HEADER_SIZE)};
}

void log_callback(void*, const char* text) {
  hlog("conn: %s", text);
}

}  // namespace

HostLink::~HostLink() {
  lund_resolver_stop(resolver_);  // it calls the engine
  lund_client_destroy(engine_);
  if (socket_ != LUND_NO_SOCKET) lund_udp_close(socket_);
}

bool HostLink::open(const lund_client_config& wanted, std::string* error) {
  if (lund_net_init() != 0 || (socket_ = lund_udp_open(4, nullptr, 0)) == LUND_NO_SOCKET) {
    *error = "no UDP socket could be opened";
    return false;
  }
  lund_client_config config = wanted;
  config.lan_count = lund_net_local_endpoints(config.lan_endpoints,
                                              static_cast<int>(std::size(config.lan_endpoints)),
                                              lund_udp_local_port(socket_));
  config.send = send_callback;
  config.log = log_callback;
  config.user = &socket_;
  engine_ = lund_client_create(&config);
  if (!engine_) {
    *error = "the connection layer could not start";
    return false;
  }
  resolver_ = lund_resolver_start_client(engine_, &wanted.relays);
  return true;
}

void HostLink::set_drop(double percent, std::uint32_t seed) {
  drop_percent_ = percent;
  random_.seed(seed);
}

bool HostLink::send(std::uint32_t session, const std::uint8_t* plain, std::size_t size) {
  std::uint8_t sealed[DATAGRAM_BYTES];
  lund_rv_endpoint peer;
  const std::size_t length =
      lund_client_seal(engine_, session, plain, size, sealed, sizeof sealed, &peer);
  return length != 0 && lund_udp_send(socket_, peer, sealed, length) == 0;
}

void HostLink::receive_all(const PacketHandler& packet) {
  std::uint8_t datagram[DATAGRAM_BYTES];
  std::uint8_t opened[DATAGRAM_BYTES];
  // Bounded, so that a flood can't keep the engine from its timers.
  for (int i = 0; i < 256; ++i) {
    lund_rv_endpoint from;
    const int size = lund_udp_recv(socket_, datagram, sizeof datagram, &from);
    if (size < 0) return;
    if (drop_percent_ > 0 &&
        std::uniform_real_distribution<double>(0, 100)(random_) < drop_percent_) {
      ++dropped_;
      continue;
    }
    std::size_t opened_size = 0;
    const int result = lund_client_receive(engine_, datagram, static_cast<std::size_t>(size), from,
                                           opened, sizeof opened, &opened_size, nullptr);
    if (result == LUND_RX_OPENED) packet(opened, opened_size, order_of(datagram));
    if (result != LUND_RX_PLAIN) continue;
    const lund_rv_endpoint* host = lan_search_.take(datagram, static_cast<std::size_t>(size), from);
    if (host) lund_client_add_candidate(engine_, host, 0);
  }
}

void HostLink::search_lan() {
  const std::uint64_t now = lund_now_us();
  if (!lan_search_.due(now)) return;
  lund_client_status status;
  lund_client_status_get(engine_, &status);
  if (status.connected && status.path == LUND_PATH_LAN) return lan_search_.skip(now);
  std::uint8_t packet[64];
  const std::size_t size = lan_search_.ask(now, packet, sizeof packet);
  for (const lund_rv_endpoint& target : discover_targets(lan_search_.port()))
    lund_udp_send(socket_, target, packet, size);
}

void HostLink::drain_events(const EventHandler& event) {
  lund_conn_event next;
  while (lund_client_poll_event(engine_, &next)) event(next);
}

void HostLink::run(std::uint64_t deadline_us, const PacketHandler& packet,
                   const EventHandler& event, const std::function<bool()>& stop) {
  while (lund_now_us() < deadline_us) {
    search_lan();
    const std::uint64_t tick_us = lund_client_tick(engine_);
    drain_events(event);
    if (stop()) return;
    const std::uint64_t wait_us = std::min(tick_us, ask_within_us_);
    // Rounded up, so that the next tick finds its time come.
    if (lund_udp_wait(&socket_, 1, static_cast<int>((wait_us + 999) / 1000)) > 0)
      receive_all(packet);
    drain_events(event);
    if (stop()) return;
  }
}
