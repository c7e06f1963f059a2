// Addresses as values that stand in records and on the wire, their path classes, and plain UDP
// sockets. The address functions are pure; the socket functions may be called from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// 20 bytes. `family` is 0 (none), 4 or 6; `address` in network byte order, an IPv4 address in its
// first 4 bytes and the rest zero; `port` in host order.
struct lund_rv_endpoint {
  std::uint8_t family = 0;
  std::uint8_t reserved = 0;
  std::uint16_t port = 0;
  std::array<std::uint8_t, 16> address{};
};
static_assert(sizeof(lund_rv_endpoint) == 20);

// Path classes in order of preference, the lower the better.
enum lund_path : std::int32_t {
  LUND_PATH_NONE = 0,
  LUND_PATH_LAN = 1,
  LUND_PATH_DIRECT = 2,  // a public address, or an overlay network's
  LUND_PATH_P2P = 3,     // reached by hole punching
  LUND_PATH_RELAY = 4,
};

// Bytes that a sealed record adds to its plain packet.
inline constexpr int LUND_SEAL_OVERHEAD = 24;

// Parses "1.2.3.4", "1.2.3.4:5", "::1", "[::1]" or "[::1]:5" into `out`, which is zeroed first.
// 0, or -1 for anything else, a null text, and ports outside 1..65535.
int lund_addr_parse(lund_rv_endpoint* out, const char* text, std::uint16_t default_port);

// A bare literal of either family, no brackets and no port; the port becomes 0. 0 or -1.
int lund_addr_parse_ip(lund_rv_endpoint* out, std::string_view text);

// Writes "1.2.3.4:5", "[::1]:5" (RFC 5952's shortening), or "-" for family 0. Returns the text's
// length, cut to capacity - 1; 0 for capacity 0.
std::size_t lund_addr_format(char* out, std::size_t capacity, const lund_rv_endpoint& address);
inline constexpr std::size_t LUND_ADDR_TEXT = 64;  // room that every address's text fits

bool lund_addr_is_private(const lund_rv_endpoint& address);  // RFC 1918, 4193, link-local, loopback
bool lund_addr_is_tailscale(const lund_rv_endpoint& address);  // 100.64/10, fd7a:115c:a1e0::/48

// LUND_PATH_LAN for a private address outside the overlay ranges, otherwise LUND_PATH_DIRECT.
std::int32_t lund_addr_path_class(const lund_rv_endpoint& address);

const char* lund_path_name(std::int32_t path);  // "LAN", "Direct", "P2P", "Relay", else "-"
int lund_path_max_datagram(std::int32_t path);  // bytes on the wire: 1400 on the LAN, else 1200
int lund_path_payload(std::int32_t path);       // the same less the sealing overhead

// Equal family, port and address bytes: 4 of them for family 4, otherwise 16.
bool lund_rv_endpoint_equal(const lund_rv_endpoint& a, const lund_rv_endpoint& b);

struct sockaddr;

// From AF_INET (size >= 16) or AF_INET6 (size >= 28); an IPv4-mapped address becomes family 4.
// 0, or -1 with `out` zeroed.
int lund_addr_from_sockaddr(lund_rv_endpoint* out, const sockaddr* address, std::size_t size);

// Writes a sockaddr_in (16 bytes), or, for family 6 and with `force_ipv6`, a sockaddr_in6 (28
// bytes, IPv4-mapped for family 4). Returns the size written, 0 when it doesn't fit or family is 0.
std::size_t lund_addr_to_sockaddr(const lund_rv_endpoint& address, void* out, std::size_t capacity,
                                  bool force_ipv6);

// A socket handle as both platforms have it; -1 is none.
using lund_socket = std::intptr_t;
inline constexpr lund_socket LUND_NO_SOCKET = -1;

int lund_net_init();  // once a process where the platform needs it; 0 or -1

// Resolves a literal or a name of 1..255 bytes, "name" or "name:port"; IPv4 is preferred. Blocks on
// the system's resolver. 0 or -1.
int lund_net_resolve(const char* text, std::uint16_t default_port, lund_rv_endpoint* out);

// This computer's IPv4 addresses with `port`: interfaces that are up, no loopback, no link-local;
// private ones first; at most 16 are looked at, at most `max` returned. Returns the count.
int lund_net_local_endpoints(lund_rv_endpoint* out, int max, std::uint16_t port);

// Non-blocking UDP socket with 4 MiB buffers. Family 6 is dual-stack. `bind_address` may be null
// for the wildcard. LUND_NO_SOCKET on failure.
lund_socket lund_udp_open(int family, const lund_rv_endpoint* bind_address, std::uint16_t port);
void lund_udp_close(lund_socket socket);
std::uint16_t lund_udp_local_port(lund_socket socket);  // 0 on failure

// 0 only if the whole datagram went out, otherwise -1.
int lund_udp_send(lund_socket socket, const lund_rv_endpoint& to, const void* bytes,
                  std::size_t size);

// The datagram's length, or -1 when there is none or on an error. A datagram longer than the buffer
// is dropped and gives 0. A sender that can't be converted leaves `from` zeroed.
int lund_udp_recv(lund_socket socket, void* buffer, std::size_t capacity, lund_rv_endpoint* from);

// 1 when one of up to 64 sockets is readable, 0 on time-out, -1 on an error. Duplicates are
// skipped.
int lund_udp_wait(const lund_socket* sockets, int count, int timeout_ms);
