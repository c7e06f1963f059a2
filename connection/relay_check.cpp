// Look-ups and the reachability check for a user interface: on the caller's thread, with a socket
// of their own.
#include <algorithm>
#include <cstring>

#include "connection/clock.h"
#include "connection/lists_internal.h"
#include "connection/rendezvous.h"
#include "connection/resolver.h"

namespace {

constexpr std::uint32_t ATTEMPTS = 3;
constexpr int DEFAULT_TIMEOUT_MS = 1'500;
constexpr std::size_t DATAGRAM_BYTES = 2048;

class UdpSocketOwner {
 public:
  explicit UdpSocketOwner(int family) : handle_(lund_udp_open(family, nullptr, 0)) {}
  ~UdpSocketOwner() { lund_udp_close(handle_); }
  UdpSocketOwner(const UdpSocketOwner&) = delete;
  UdpSocketOwner& operator=(const UdpSocketOwner&) = delete;
  lund_socket handle() const { return handle_; }

 private:
  const lund_socket handle_;
};

// One server, asked for nobody's address: whatever it answers under its net key proves that it
// holds the same one.
class RelayProbe {
 public:
  RelayProbe(const lund_rv_endpoint& server, const std::uint8_t* net_key)
      : server_(server), net_key_(net_key), socket_(server.family) {}

  lund_relay_check_result run(std::uint64_t timeout_us, std::uint64_t* rtt_us_out);

 private:
  bool send_attempt();
  bool take_answer(std::uint64_t* rtt_us_out);

  const lund_rv_endpoint server_;
  const std::uint8_t* const net_key_;
  const UdpSocketOwner socket_;
  lund_rv_message lookup_;
  std::uint32_t base_nonce_ = 0;
  std::uint32_t sent_ = 0;
  std::uint64_t sent_at_us_[ATTEMPTS] = {};
};

bool RelayProbe::send_attempt() {
  lookup_.nonce = base_nonce_ + sent_;
  sent_at_us_[sent_++] = lund_now_us();
  std::uint8_t datagram[LUND_RV_MESSAGE_MAX];
  const std::size_t size = lund_rv_encode(datagram, sizeof datagram, net_key_, &lookup_);
  return size != 0 && lund_udp_send(socket_.handle(), server_, datagram, size) == 0;
}

// One datagram; the round trip is that of the attempt that it answers.
bool RelayProbe::take_answer(std::uint64_t* rtt_us_out) {
  std::uint8_t datagram[DATAGRAM_BYTES];
  lund_rv_endpoint from;
  const int size = lund_udp_recv(socket_.handle(), datagram, sizeof datagram, &from);
  const std::uint64_t now_us = lund_now_us();
  if (size < 0 || !lund_rv_endpoint_equal(from, server_)) return false;
  lund_rv_message answer;
  if (lund_rv_decode(datagram, static_cast<std::size_t>(size), net_key_, &answer) != LUND_OK)
    return false;
  const std::uint32_t attempt = answer.nonce - base_nonce_;
  if (answer.type != LUND_RV_LOOKUP_RESULT && answer.type != LUND_RV_ERROR) return false;
  if (attempt >= sent_) return false;
  *rtt_us_out = now_us - sent_at_us_[attempt];
  return true;
}

lund_relay_check_result RelayProbe::run(std::uint64_t timeout_us, std::uint64_t* rtt_us_out) {
  lookup_.type = LUND_RV_LOOKUP;
  lookup_.target_size = sizeof lookup_.target;
  if (socket_.handle() == LUND_NO_SOCKET ||
      lund_random_bytes(lookup_.target, sizeof lookup_.target) != LUND_OK ||
      lund_random_bytes(&base_nonce_, sizeof base_nonce_) != LUND_OK)
    return LUND_RELAY_LOCAL_FAILURE;

  const std::uint64_t start_us = lund_now_us();
  for (;;) {
    const std::uint64_t passed_us = lund_now_us() - start_us;
    if (passed_us >= timeout_us) return LUND_RELAY_NO_ANSWER;
    const std::uint64_t next_us = sent_ < ATTEMPTS ? timeout_us * sent_ / ATTEMPTS : timeout_us;
    if (passed_us >= next_us) {
      if (!send_attempt()) return LUND_RELAY_LOCAL_FAILURE;
      continue;
    }
    // Rounded up: a wait of 0 would spin.
    const auto wait_ms = static_cast<int>((next_us - passed_us + 999) / 1000);
    const lund_socket socket = socket_.handle();
    const int readable = lund_udp_wait(&socket, 1, wait_ms);
    if (readable < 0) return LUND_RELAY_LOCAL_FAILURE;
    if (readable > 0 && take_answer(rtt_us_out)) return LUND_RELAY_REACHABLE;
  }
}

}  // namespace

int lund_relay_resolve(lund_relay_server* server) {
  lund_rv_endpoint found;
  if (lund_net_resolve(server->host, server->port, &found) != 0) return -1;
  server->endpoint = found;
  return 0;
}

int lund_relay_config_resolve(lund_relay_config* config) {
  int count = 0;
  for (int i = 0; i < std::clamp(config->count, 0, LUND_RELAYS_MAX); ++i) {
    lund_relay_resolve(&config->servers[i]);
    if (config->servers[i].endpoint.family != 0) ++count;
  }
  return count;
}

int lund_relay_check(const lund_relay_server* server, int timeout_ms, std::uint64_t* rtt_us_out) {
  *rtt_us_out = 0;
  if (server == nullptr || server->key_size < 1 || server->key_size > LUND_RELAY_KEY_MAX)
    return LUND_RELAY_LOCAL_FAILURE;
  lund_rv_endpoint endpoint;
  Wiped<std::uint8_t[32]> net_key;
  {
    lund_relay_server copy = *server;
    if (lund_relay_resolve(&copy) != 0) return LUND_RELAY_NO_NAME;
    endpoint = copy.endpoint;
    lund_rv_net_key(net_key.value, copy.key, copy.key_size);
  }
  const int limit_ms = timeout_ms > 0 ? timeout_ms : DEFAULT_TIMEOUT_MS;
  return RelayProbe(endpoint, net_key.value)
      .run(static_cast<std::uint64_t>(limit_ms) * 1000, rtt_us_out);
}
