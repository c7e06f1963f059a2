// Socket addresses and name resolution: the part of the socket layer that both platforms spell
// alike.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "connection/netsock.h"
#include "socket_types.h"

namespace {

constexpr std::size_t NAME_MAX_BYTES = 255;
constexpr std::uint8_t MAPPED_PREFIX[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

lund_rv_endpoint from_ipv4(const sockaddr_in& address) {
  lund_rv_endpoint out;
  out.family = 4;
  out.port = ntohs(address.sin_port);
  std::memcpy(out.address.data(), &address.sin_addr, sizeof(address.sin_addr));
  return out;
}

lund_rv_endpoint from_ipv6(const sockaddr_in6& address) {
  lund_rv_endpoint out;
  out.port = ntohs(address.sin6_port);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&address.sin6_addr);
  if (std::equal(std::begin(MAPPED_PREFIX), std::end(MAPPED_PREFIX), bytes)) {
    out.family = 4;
    std::copy_n(bytes + sizeof(MAPPED_PREFIX), 4, out.address.begin());
  } else {
    out.family = 6;
    std::copy_n(bytes, out.address.size(), out.address.begin());
  }
  return out;
}

template <class Sockaddr>
std::size_t copy_out(const Sockaddr& address, void* out, std::size_t capacity) {
  if (capacity < sizeof(address)) return 0;
  std::memcpy(out, &address, sizeof(address));
  return sizeof(address);
}

// The first result of family 4, or with `any_family` the first that converts at all.
bool first_result(const addrinfo* results, bool any_family, lund_rv_endpoint* out) {
  for (const addrinfo* result = results; result != nullptr; result = result->ai_next) {
    if (lund_addr_from_sockaddr(out, result->ai_addr, result->ai_addrlen) != 0) continue;
    if (any_family || out->family == 4) return true;
  }
  return false;
}

int resolve_name(const char* name, std::uint16_t port, lund_rv_endpoint* out) {
  if (lund_net_init() != 0) return -1;
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return -1;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> results(found, freeaddrinfo);
  if (!first_result(results.get(), false, out) && !first_result(results.get(), true, out)) {
    *out = {};
    return -1;
  }
  out->port = port;
  return 0;
}

}  // namespace

int lund_addr_from_sockaddr(lund_rv_endpoint* out, const sockaddr* address, std::size_t size) {
  *out = {};
  if (address == nullptr || size < sizeof(sockaddr_in)) return -1;
  sockaddr_in ipv4;
  std::memcpy(&ipv4, address, sizeof(ipv4));
  if (ipv4.sin_family == AF_INET) {
    *out = from_ipv4(ipv4);
    return 0;
  }
  sockaddr_in6 ipv6;
  if (ipv4.sin_family != AF_INET6 || size < sizeof(ipv6)) return -1;
  std::memcpy(&ipv6, address, sizeof(ipv6));
  *out = from_ipv6(ipv6);
  return 0;
}

std::size_t lund_addr_to_sockaddr(const lund_rv_endpoint& address, void* out, std::size_t capacity,
                                  bool force_ipv6) {
  if (address.family != 4 && address.family != 6) return 0;
  if (address.family == 4 && !force_ipv6) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(address.port);
    std::memcpy(&ipv4.sin_addr, address.address.data(), sizeof(ipv4.sin_addr));
    return copy_out(ipv4, out, capacity);
  }
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(address.port);
  auto* bytes = reinterpret_cast<std::uint8_t*>(&ipv6.sin6_addr);
  if (address.family == 4) {
    bytes = std::copy(std::begin(MAPPED_PREFIX), std::end(MAPPED_PREFIX), bytes);
    std::copy_n(address.address.begin(), 4, bytes);
  } else {
    std::copy(address.address.begin(), address.address.end(), bytes);
  }
  return copy_out(ipv6, out, capacity);
}

int lund_net_resolve(const char* text, std::uint16_t default_port, lund_rv_endpoint* out) {
  if (lund_addr_parse(out, text, default_port) == 0) return 0;
  if (text == nullptr) return -1;
  std::string name(text, strnlen(text, NAME_MAX_BYTES + 1));
  if (name.empty() || name.size() > NAME_MAX_BYTES) return -1;
  std::uint16_t port = default_port;
  const std::size_t colon = name.find(':');
  if (colon != name.npos && name.find(':', colon + 1) == name.npos) {
    char* end = nullptr;
    const long value = std::strtol(name.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || value < 1 || value > 65535) return -1;
    port = static_cast<std::uint16_t>(value);
    name.resize(colon);
    if (name.empty()) return -1;
  }
  return resolve_name(name.c_str(), port, out);
}
