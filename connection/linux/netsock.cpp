#include "connection/netsock.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "connection/clock.h"
#include "connection/netsock_internal.h"

namespace {

constexpr int SOCKET_BUFFER_BYTES = 0x400000;
constexpr std::size_t WAIT_MAX = 64;

int fd_of(lund_socket socket) {
  return static_cast<int>(socket);
}

bool set_int(int fd, int level, int option, int value) {
  return setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

// The forced option passes the administrator's limit, which is far below a video burst by default;
// it needs CAP_NET_ADMIN. The plain one is silently cut to that limit.
bool set_buffer(int fd, int forced_option, int option) {
  return set_int(fd, SOL_SOCKET, forced_option, SOCKET_BUFFER_BYTES) ||
         set_int(fd, SOL_SOCKET, option, SOCKET_BUFFER_BYTES);
}

bool bind_to(int fd, bool ipv6, const lund_rv_endpoint* address, std::uint16_t port) {
  lund_rv_endpoint local;
  local.family = ipv6 ? 6 : 4;  // the wildcard
  if (address != nullptr) local = *address;
  local.port = port;
  sockaddr_storage name{};
  const std::size_t size = lund_addr_to_sockaddr(local, &name, sizeof(name), ipv6);
  return size != 0 &&
         bind(fd, reinterpret_cast<sockaddr*>(&name), static_cast<socklen_t>(size)) == 0;
}

// ICMP errors reach a receive only on a connected socket or with IP_RECVERR; this is neither.
bool prepare(int fd, bool ipv6, const lund_rv_endpoint* address, std::uint16_t port) {
  return (!ipv6 || set_int(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0)) &&
         set_buffer(fd, SO_RCVBUFFORCE, SO_RCVBUF) && set_buffer(fd, SO_SNDBUFFORCE, SO_SNDBUF) &&
         bind_to(fd, ipv6, address, port);
}

bool local_name(int fd, sockaddr_storage* name) {
  socklen_t size = sizeof(*name);
  return getsockname(fd, reinterpret_cast<sockaddr*>(name), &size) == 0;
}

}  // namespace

int lund_net_init() {
  return 0;
}

int lund_net_local_endpoints(lund_rv_endpoint* out, int max, std::uint16_t port) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return 0;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> interfaces(list, freeifaddrs);
  LocalEndpoints endpoints(port);
  for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
    constexpr unsigned OPERATIONAL = IFF_UP | IFF_RUNNING;
    const bool up = (one->ifa_flags & OPERATIONAL) == OPERATIONAL;
    if (!up || (one->ifa_flags & IFF_LOOPBACK) != 0) continue;
    if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET) continue;
    lund_rv_endpoint found;
    if (lund_addr_from_sockaddr(&found, one->ifa_addr, sizeof(sockaddr_in)) == 0)
      endpoints.add(found);
  }
  return endpoints.hand_out(out, max);
}

lund_socket lund_udp_open(int family, const lund_rv_endpoint* bind_address, std::uint16_t port) {
  const bool ipv6 = family == 6;
  const int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return LUND_NO_SOCKET;
  if (!prepare(fd, ipv6, bind_address, port)) {
    close(fd);
    return LUND_NO_SOCKET;
  }
  return fd;
}

void lund_udp_close(lund_socket socket) {
  if (socket != LUND_NO_SOCKET) close(fd_of(socket));
}

std::uint16_t lund_udp_local_port(lund_socket socket) {
  sockaddr_storage name{};
  lund_rv_endpoint local;
  if (!local_name(fd_of(socket), &name)) return 0;
  lund_addr_from_sockaddr(&local, reinterpret_cast<sockaddr*>(&name), sizeof(name));
  return local.port;
}

int lund_udp_send(lund_socket socket, const lund_rv_endpoint& to, const void* bytes,
                  std::size_t size) {
  sockaddr_storage name{};
  if (!local_name(fd_of(socket), &name)) return -1;
  sockaddr_storage target{};
  const std::size_t target_size =
      lund_addr_to_sockaddr(to, &target, sizeof(target), name.ss_family == AF_INET6);
  if (target_size == 0) return -1;
  const ssize_t sent =
      sendto(fd_of(socket), bytes, size, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&target),
             static_cast<socklen_t>(target_size));
  return sent >= 0 && static_cast<std::size_t>(sent) == size ? 0 : -1;
}

int lund_udp_recv(lund_socket socket, void* buffer, std::size_t capacity, lund_rv_endpoint* from) {
  sockaddr_storage sender{};
  socklen_t sender_size = sizeof(sender);
  const ssize_t size = recvfrom(fd_of(socket), buffer, capacity, MSG_TRUNC,
                                reinterpret_cast<sockaddr*>(&sender), &sender_size);
  *from = {};
  if (size < 0) return -1;
  lund_addr_from_sockaddr(from, reinterpret_cast<sockaddr*>(&sender), sender_size);
  return static_cast<std::size_t>(size) > capacity ? 0 : static_cast<int>(size);
}

int lund_udp_wait(const lund_socket* sockets, int count, int timeout_ms) {
  std::array<pollfd, WAIT_MAX> polled;
  std::size_t distinct = 0;
  for (int i = 0; i < count; ++i) {
    const auto end = polled.begin() + distinct;
    const auto same = [&](const pollfd& p) { return p.fd == fd_of(sockets[i]); };
    if (std::any_of(polled.begin(), end, same)) continue;
    // poll skips negative descriptors instead of refusing them.
    if (distinct == WAIT_MAX || sockets[i] < 0) return -1;
    polled[distinct++] = {.fd = fd_of(sockets[i]), .events = POLLIN, .revents = 0};
  }
  if (distinct == 0) return -1;

  const std::uint64_t start_us = lund_now_us();
  const std::int64_t limit_ms = std::max(timeout_ms, 0);
  int ready = 0;
  do {  // a signal doesn't shorten the wait
    const auto passed_ms = static_cast<std::int64_t>((lund_now_us() - start_us) / 1000);
    const auto left_ms = static_cast<int>(std::max<std::int64_t>(limit_ms - passed_ms, 0));
    ready = poll(polled.data(), distinct, left_ms);
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) return ready;
  const auto invalid = [](const pollfd& p) { return (p.revents & POLLNVAL) != 0; };
  return std::any_of(polled.begin(), polled.begin() + distinct, invalid) ? -1 : 1;
}
