#include "connection/netsock.h"

// The socket headers come ahead of what pulls in windows.h.
#include <winsock2.h>
#include <ws2tcpip.h>
// clang-format off
#include <mswsock.h>
// clang-format on

#include <vector>

#include "connection/netsock_internal.h"
#include "connection/windows/adapter_list.h"

namespace {

constexpr int SOCKET_BUFFER_BYTES = 0x400000;
constexpr ULONG ADAPTERS_FIRST_BYTES = 15'000;  // what the system's documentation recommends

SOCKET handle_of(lund_socket socket) {
  return static_cast<SOCKET>(socket);
}

bool set_int(SOCKET socket, int level, int option, int value) {
  return setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof(value)) ==
         0;
}

bool bind_to(SOCKET socket, bool ipv6, const lund_rv_endpoint* address, std::uint16_t port) {
  lund_rv_endpoint local;
  local.family = ipv6 ? 6 : 4;  // the wildcard
  if (address != nullptr) local = *address;
  local.port = port;
  sockaddr_storage name{};
  const std::size_t size = lund_addr_to_sockaddr(local, &name, sizeof(name), ipv6);
  return size != 0 && bind(socket, reinterpret_cast<sockaddr*>(&name), static_cast<int>(size)) == 0;
}

// Otherwise an ICMP port-unreachable for a datagram that went out fails a later receive.
bool ignore_port_unreachable(SOCKET socket) {
  BOOL report = FALSE;
  DWORD returned = 0;
  return WSAIoctl(socket, SIO_UDP_CONNRESET, &report, sizeof(report), nullptr, 0, &returned,
                  nullptr, nullptr) == 0;
}

bool prepare(SOCKET socket, bool ipv6, const lund_rv_endpoint* address, std::uint16_t port) {
  u_long non_blocking = 1;
  return (!ipv6 || set_int(socket, IPPROTO_IPV6, IPV6_V6ONLY, 0)) &&
         set_int(socket, SOL_SOCKET, SO_RCVBUF, SOCKET_BUFFER_BYTES) &&
         set_int(socket, SOL_SOCKET, SO_SNDBUF, SOCKET_BUFFER_BYTES) &&
         bind_to(socket, ipv6, address, port) &&
         ioctlsocket(socket, static_cast<long>(FIONBIO), &non_blocking) == 0 &&
         ignore_port_unreachable(socket);
}

bool local_name(lund_socket socket, sockaddr_storage* name) {
  int size = sizeof(*name);
  return getsockname(handle_of(socket), reinterpret_cast<sockaddr*>(name), &size) == 0;
}

}  // namespace

int lund_net_init() {
  static const int result = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0 ? 0 : -1;
  }();
  return result;
}

int lund_net_local_endpoints(lund_rv_endpoint* out, int max, std::uint16_t port) {
  std::vector<std::max_align_t> buffer;
  LocalEndpoints endpoints(port);
  for (const auto* adapter = read_adapters(buffer, ADAPTERS_FIRST_BYTES); adapter != nullptr;
       adapter = adapter->Next) {
    const bool up = adapter->OperStatus == IfOperStatusUp;
    if (!up || adapter->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
    for (const auto* one = adapter->FirstUnicastAddress; one != nullptr; one = one->Next) {
      lund_rv_endpoint found;
      const auto size = static_cast<std::size_t>(one->Address.iSockaddrLength);
      if (lund_addr_from_sockaddr(&found, one->Address.lpSockaddr, size) == 0) endpoints.add(found);
    }
  }
  return endpoints.hand_out(out, max);
}

lund_socket lund_udp_open(int family, const lund_rv_endpoint* bind_address, std::uint16_t port) {
  if (lund_net_init() != 0) return LUND_NO_SOCKET;
  const bool ipv6 = family == 6;
  const SOCKET opened = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (opened == INVALID_SOCKET) return LUND_NO_SOCKET;
  if (!prepare(opened, ipv6, bind_address, port)) {
    closesocket(opened);
    return LUND_NO_SOCKET;
  }
  return static_cast<lund_socket>(opened);
}

void lund_udp_close(lund_socket socket) {
  if (socket != LUND_NO_SOCKET) closesocket(handle_of(socket));
}

std::uint16_t lund_udp_local_port(lund_socket socket) {
  sockaddr_storage name{};
  lund_rv_endpoint local;
  if (!local_name(socket, &name)) return 0;
  lund_addr_from_sockaddr(&local, reinterpret_cast<sockaddr*>(&name), sizeof(name));
  return local.port;
}

int lund_udp_send(lund_socket socket, const lund_rv_endpoint& to, const void* bytes,
                  std::size_t size) {
  sockaddr_storage name{};
  if (!local_name(socket, &name)) return -1;
  sockaddr_storage target{};
  const std::size_t target_size =
      lund_addr_to_sockaddr(to, &target, sizeof(target), name.ss_family == AF_INET6);
  if (target_size == 0) return -1;
  const int sent =
      sendto(handle_of(socket), static_cast<const char*>(bytes), static_cast<int>(size), 0,
             reinterpret_cast<sockaddr*>(&target), static_cast<int>(target_size));
  return sent >= 0 && static_cast<std::size_t>(sent) == size ? 0 : -1;
}

int lund_udp_recv(lund_socket socket, void* buffer, std::size_t capacity, lund_rv_endpoint* from) {
  sockaddr_storage sender{};
  int sender_size = sizeof(sender);
  const int size =
      recvfrom(handle_of(socket), static_cast<char*>(buffer), static_cast<int>(capacity), 0,
               reinterpret_cast<sockaddr*>(&sender), &sender_size);
  *from = {};
  const bool too_long = size < 0 && WSAGetLastError() == WSAEMSGSIZE;
  if (size < 0 && !too_long) return -1;
  lund_addr_from_sockaddr(from, reinterpret_cast<sockaddr*>(&sender),
                          static_cast<std::size_t>(sender_size));
  return too_long ? 0 : size;
}

int lund_udp_wait(const lund_socket* sockets, int count, int timeout_ms) {
  fd_set readable;
  FD_ZERO(&readable);
  for (int i = 0; i < count; ++i) {
    const SOCKET one = handle_of(sockets[i]);
    FD_SET(one, &readable);  // skips duplicates, and what is beyond 64
    bool taken = false;
    for (u_int k = 0; k < readable.fd_count; ++k) taken = taken || readable.fd_array[k] == one;
    if (!taken) return -1;
  }
  const int wait_ms = timeout_ms > 0 ? timeout_ms : 0;
  timeval limit = {.tv_sec = wait_ms / 1000, .tv_usec = wait_ms % 1000 * 1000};
  const int ready = select(0, &readable, nullptr, nullptr, &limit);
  return ready == SOCKET_ERROR ? -1 : ready > 0;
}
