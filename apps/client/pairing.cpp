#include "apps/client/pairing.h"

#include <algorithm>
#include <cstring>

#include "connection/clock.h"
#include "control/sysinfo.h"

PairEnd pair_with_host(HostLink& link, const std::string& secret, std::uint32_t kind,
                       lund_host_entry* host, std::string* text) {
  if (lund_client_pair(link.engine(), secret.c_str(), kind) != 0) {
    *text = "the PIN or password must have 1 to 255 characters";
    return PairEnd::WrongSecret;
  }
  bool decided = false;
  PairEnd end = PairEnd::NoAnswer;
  auto on_event = [&](const lund_conn_event& event) {
    if (event.type == LUND_EV_CLIENT_PAIRED) {
      std::memcpy(host->key, event.key, sizeof host->key);
      std::memcpy(host->name, event.name, sizeof host->name);
      host->lan_endpoint = event.addr;
      end = PairEnd::Paired;
      decided = true;
    } else if (event.type == LUND_EV_CLIENT_PAIR_FAILED) {
      decided = true;
      switch (event.status) {
        case 1:
          end = PairEnd::WrongSecret;
          *text = "wrong PIN or password";
          return;
        case 2:
          end = PairEnd::Locked;
          *text = "too many attempts: the host has locked pairing or has a new PIN";
          return;
        case 3:
          end = PairEnd::NotAvailable;
          *text = event.kind == LUND_KIND_PIN ? "the host is not in pairing mode"
                                              : "the host has no password";
          return;
        case 4:
          end = PairEnd::NotAvailable;
          *text = "the host's key does not match the code";
          return;
        default:
          *text = "no host answered at this address";
          return;
      }
    }
  };
  link.run(
      UINT64_MAX, [](const std::uint8_t*, std::size_t) {}, on_event, [&] { return decided; });
  return end;
}

std::vector<FoundHost> discover_hosts(std::uint16_t port, int wait_ms, std::string* error) {
  std::vector<FoundHost> found;
  const lund_socket socket = lund_net_init() == 0 ? lund_udp_open(4, nullptr, 0) : LUND_NO_SOCKET;
  if (socket == LUND_NO_SOCKET) {
    *error = "no UDP socket could be opened";
    return found;
  }
  std::vector<lund_rv_endpoint> targets;
  auto add_target = [&](std::uint32_t network_order) {
    lund_rv_endpoint target;
    target.family = 4;
    target.port = port;
    std::memcpy(target.address.data(), &network_order, 4);
    const bool known = std::any_of(targets.begin(), targets.end(), [&](const auto& other) {
      return lund_rv_endpoint_equal(other, target);
    });
    if (!known) targets.push_back(target);
  };
  add_target(0xFFFFFFFF);
  for (const LocalInterface& local : local_ipv4_interfaces()) {
    if (local.mask != 0) add_target(local.address | ~local.mask);
  }
  lund_rv_endpoint own;
  lund_addr_parse(&own, "127.0.0.1", port);
  targets.push_back(own);

  std::uint8_t packet[64];
  const lund_packet_header header;
  const lund_discover question{random_u32()};
  const std::size_t size = lund_encode_discover(packet, sizeof packet, &header, &question);
  for (const auto& target : targets) lund_udp_send(socket, target, packet, size);

  const std::uint64_t deadline = lund_now_us() + static_cast<std::uint64_t>(wait_ms) * 1000;
  for (std::uint64_t now; (now = lund_now_us()) < deadline;) {
    if (lund_udp_wait(&socket, 1, static_cast<int>((deadline - now) / 1000) + 1) <= 0) break;
    std::uint8_t datagram[256];
    FoundHost host;
    const int length = lund_udp_recv(socket, datagram, sizeof datagram, &host.address);
    if (length < 0 ||
        lund_decode_discover_reply(datagram, static_cast<std::size_t>(length), &host.reply) != 0 ||
        host.reply.nonce != question.nonce)
      continue;
    host.address.port = host.reply.port;
    const auto same = std::find_if(found.begin(), found.end(), [&](const FoundHost& other) {
      return other.reply.lan_id == host.reply.lan_id;
    });
    // A host on this very computer also answers on its loopback; its network address says more.
    if (same == found.end())
      found.push_back(host);
    else if (same->address.address[0] == 127)
      same->address = host.address;
  }
  lund_udp_close(socket);
  return found;
}
