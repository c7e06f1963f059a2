#include "connection/conn_host.h"

#include <algorithm>
#include <new>

#include "connection/conn_host_internal.h"
#include "connection/protocol.h"

namespace {

// A caller's wait: short enough to be near each deadline, long enough not to be busy.
constexpr std::uint64_t WAKE_MIN_US = 1'000;
constexpr std::uint64_t WAKE_MAX_US = 250'000;

constexpr std::uint8_t CONTROL_FIRST = 80;

// Tells a client that has lost its session to run the handshake again.
void answer_plain_hello(lund_host* host, const lund_rv_endpoint& from, std::uint64_t now) {
  if (!conn_rate_pass(&host->hello_limit, HELLO_RATE, now)) return;
  const lund_packet_header header{};
  lund_hello_ack ack;
  ack.status = LUND_HELLO_NO_SESSION;
  std::uint8_t answer[32];
  conn_send(&host->base, from, answer, lund_encode_hello_ack(answer, sizeof answer, &header, &ack));
}

int dispatch_plain(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                   const lund_rv_endpoint& from, std::uint64_t now) {
  const std::uint8_t type = datagram[2];
  switch (type) {
    case LUND_PKT_DISCOVER:
      return LUND_RX_PLAIN;
    case LUND_PKT_PAIR_INIT:
      conn_host_pair_init(host, datagram, size, from, now);
      return LUND_RX_NONE;
    case LUND_PKT_PAIR_CONFIRM:
      conn_host_pair_confirm(host, datagram, size, from);
      return LUND_RX_NONE;
    case LUND_PKT_HOST_INFO_REQUEST:
      conn_host_info_request(host, datagram, size, from, now);
      return LUND_RX_NONE;
    case LUND_PKT_HS_INIT:
      conn_host_handshake(host, datagram, size, from, now);
      return LUND_RX_NONE;
    default:
      break;
  }
  if (type >= LUND_RV_FIRST && type <= LUND_RV_LAST) {
    conn_host_rendezvous(host, datagram, size, from, now);
    return LUND_RX_NONE;
  }
  // The rest of the control range is for clients, or travels sealed only.
  if (type >= CONTROL_FIRST && type < LUND_RV_FIRST) return LUND_RX_NONE;
  if (host->allow_plain != 0) return LUND_RX_PLAIN;
  if (type == LUND_PKT_HELLO) answer_plain_hello(host, from, now);
  return LUND_RX_NONE;
}

}  // namespace

bool conn_rate_pass(lund_rate_limit* limit, lund_rate rate, std::uint64_t now) {
  const std::uint64_t burst = rate.burst * SECOND_US;
  if (limit->last == 0)
    limit->tokens = burst;
  else
    limit->tokens = std::min(burst, limit->tokens + (now - limit->last) * rate.rate);
  limit->last = now;
  if (limit->tokens < SECOND_US) return false;
  limit->tokens -= SECOND_US;
  return true;
}

lund_host* lund_host_create(const lund_host_config* config, const lund_client_list* clients,
                            const char* password_blob) {
  if (config == nullptr || config->send == nullptr) return nullptr;
  auto* host = new (std::nothrow) lund_host;
  if (host == nullptr) return nullptr;
  conn_base_init(&host->base, config);
  const std::lock_guard lock(host->base.lock);
  host->allow_plain = config->allow_plain;
  const int loaded = conn_host_clients_load(host, clients);
  conn_host_pairing_init(host, config, password_blob, loaded > 0);
  return host;
}

void lund_host_destroy(lund_host* host) {
  if (host == nullptr) return;
  host->~lund_host();
  lund_secure_wipe(host, sizeof *host);
  ::operator delete(host);
}

int lund_host_receive(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                      const lund_rv_endpoint& from, std::uint8_t* out, std::size_t out_capacity,
                      std::size_t* out_size, lund_rx_info* rx_info) {
  if (out_size != nullptr) *out_size = 0;
  if (rx_info != nullptr) *rx_info = {};
  if (size < LUND_HEADER_SIZE || datagram[0] != LUND_MAGIC) return LUND_RX_NONE;
  const std::lock_guard lock(host->base.lock);
  const std::uint64_t now = lund_now_us();
  switch (datagram[1]) {
    case LUND_VERSION_SEALED:
      return conn_host_sealed(host, datagram, size, from, now, out, out_capacity, out_size,
                              rx_info);
    case LUND_VERSION_PLAIN:
      return dispatch_plain(host, datagram, size, from, now);
    default:
      return LUND_RX_NONE;
  }
}

std::uint64_t lund_host_tick(lund_host* host) {
  const std::lock_guard lock(host->base.lock);
  const std::uint64_t now = lund_now_us();
  conn_host_pairing_tick(host, now);
  conn_host_sessions_tick(host, now);
  std::uint64_t wake = now + WAKE_MAX_US;
  conn_host_servers_tick(host, now, &wake);
  conn_host_work_tick(host, now, &wake);
  return std::max(wake, now + WAKE_MIN_US) - now;
}

int lund_host_poll_event(lund_host* host, lund_conn_event* event) {
  const std::lock_guard lock(host->base.lock);
  return conn_ev_pop(&host->base, event);
}
