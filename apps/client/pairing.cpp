#include "apps/client/pairing.h"

#include <algorithm>
#include <cstring>

#include "apps/client/obstacles.h"
#include "connection/clock.h"
#include "control/pair_back.h"
#include "control/sysinfo.h"

namespace {

constexpr std::uint64_t SESSION_TIMEOUT_US = 10'000'000;
constexpr std::uint64_t OFFER_PERIOD_US = 500'000;
constexpr std::uint64_t OFFER_TIMEOUT_US = 30'000'000;  // a person has to come and look

// `addr` is where the pairing went: a relay's address says nothing about the host's.
void note_address(HostLink& link, const lund_rv_endpoint& addr, lund_host_entry* host) {
  lund_client_status status;
  lund_client_status_get(link.engine(), &status);
  std::int32_t path_class = lund_addr_path_class(addr);
  for (int i = 0; i < status.path_count; ++i)
    if (lund_rv_endpoint_equal(status.paths[i].addr, addr)) path_class = status.paths[i].path_class;
  if (path_class == LUND_PATH_LAN)
    host->lan_endpoint = addr;
  else if (path_class != LUND_PATH_RELAY)
    host->wan_endpoint = addr;
}

// The exchange's failure in words for a person.
PairEnd explain_failure(const lund_conn_event& event, const std::string& unreached,
                        std::string* text) {
  switch (event.status) {
    case 1:
      *text = "wrong PIN or password";
      return PairEnd::WrongSecret;
    case 2:
      *text = "too many attempts: the host has locked pairing or has a new PIN";
      return PairEnd::Locked;
    case 3:
      *text = event.kind == LUND_KIND_PIN ? "the host is not in pairing mode"
                                          : "the host has no password";
      return PairEnd::NotAvailable;
    case 4:
      *text = "the host's key does not match the code";
      return PairEnd::NotAvailable;
    default:
      *text = unreached;
      return PairEnd::NoAnswer;
  }
}

std::size_t encode_offer(const std::string& own_name, std::uint16_t port, std::uint8_t* packet,
                         std::size_t capacity) {
  lund_rv_endpoint own[LUND_BACK_MAX];
  lund_pair_back offer;
  offer.back_value = port;
  offer.back_count = static_cast<std::uint8_t>(lund_net_local_endpoints(own, LUND_BACK_MAX, port));
  for (int i = 0; i < offer.back_count; ++i) offer.back_values[i] = pair_back_value(own[i]);
  const lund_packet_header header;
  return lund_encode_pair_back(packet, capacity, &header, &offer, own_name.c_str());
}

}  // namespace

PairEnd pair_with_host(HostLink& link, const PairRequest& request, lund_host_entry* host,
                       std::string* text) {
  if (lund_client_pair(link.engine(), request.secret.c_str(), request.kind) != 0) {
    *text = "the PIN or password must have 1 to 255 characters";
    return PairEnd::WrongSecret;
  }
  bool decided = false;
  PairEnd end = PairEnd::NoAnswer;
  Obstacles obstacles;
  auto on_event = [&](const lund_conn_event& event) {
    obstacles.note(event, lund_now_us());
    if (event.type == LUND_EV_CLIENT_PAIRED) {
      std::memcpy(host->key, event.key, sizeof host->key);
      std::memcpy(host->name, event.name, sizeof host->name);
      note_address(link, event.addr, host);
      end = PairEnd::Paired;
      decided = true;
    } else if (event.type == LUND_EV_CLIENT_PAIR_FAILED) {
      end = explain_failure(event, obstacles.why_unreached(request.nobody), text);
      decided = true;
    }
  };
  const auto stopped = [&] { return request.stop && *request.stop; };
  link.run(
      UINT64_MAX, [](const std::uint8_t*, std::size_t, const PacketOrder&) {}, on_event,
      [&] { return decided || stopped(); });
  if (!decided) *text = "stopped";
  return decided ? end : PairEnd::Stopped;
}

BackEnd offer_way_back(HostLink& link, const std::string& own_name, std::uint16_t port,
                       const std::atomic<bool>& stop) {
  std::uint8_t packet[128];
  const std::size_t size = encode_offer(own_name, port, packet, sizeof packet);
  bool session_up = false;
  bool accepted = false;
  std::uint64_t deadline = lund_now_us() + SESSION_TIMEOUT_US;
  std::uint64_t next_us = 0;
  auto on_packet = [&](const std::uint8_t* received, std::size_t received_size,
                       const PacketOrder&) {
    std::uint8_t answer = 0;
    if (received[2] == LUND_PKT_PAIR_BACK_ACK &&
        lund_decode_pair_back_ack(received, received_size, &answer) == 0 && answer == 1)
      accepted = true;
  };
  auto on_event = [&](const lund_conn_event& event) {
    if (event.type != LUND_EV_CLIENT_SESSION_UP || session_up) return;
    session_up = true;
    deadline = lund_now_us() + OFFER_TIMEOUT_US;
  };
  auto step = [&] {
    const std::uint64_t now = lund_now_us();
    if (session_up && now >= next_us) {
      next_us = now + OFFER_PERIOD_US;
      link.send(0, packet, size);
    }
    return accepted || stop || now >= deadline;
  };
  link.run(UINT64_MAX, on_packet, on_event, step);
  return accepted ? BackEnd::Accepted : stop ? BackEnd::Stopped : BackEnd::NoAnswer;
}

std::vector<FoundHost> discover_hosts(std::uint16_t port, int wait_ms, std::string* error) {
  std::vector<FoundHost> found;
  const lund_socket socket = lund_net_init() == 0 ? lund_udp_open(4, nullptr, 0) : LUND_NO_SOCKET;
  if (socket == LUND_NO_SOCKET) {
    *error = "no UDP socket could be opened";
    return found;
  }
  std::uint8_t packet[64];
  const lund_packet_header header;
  const lund_discover question{random_u32()};
  const std::size_t size = lund_encode_discover(packet, sizeof packet, &header, &question);
  for (const auto& target : discover_targets(port)) lund_udp_send(socket, target, packet, size);

  const std::uint64_t deadline = lund_now_us() + static_cast<std::uint64_t>(wait_ms) * 1000;
  for (std::uint64_t now; (now = lund_now_us()) < deadline;) {
    if (lund_udp_wait(&socket, 1, static_cast<int>((deadline - now) / 1000) + 1) <= 0) break;
    std::uint8_t datagram[256];
    lund_rv_endpoint from;
    const int length = lund_udp_recv(socket, datagram, sizeof datagram, &from);
    if (length > 0)
      take_discover_reply(&found, question.nonce, datagram, static_cast<std::size_t>(length), from);
  }
  lund_udp_close(socket);
  return found;
}
