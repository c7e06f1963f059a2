#include "connection/netsock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "connection/netsock_internal.h"

namespace {

constexpr std::size_t IPV4_BYTES = 4;
constexpr int IPV6_GROUPS = 8;
constexpr int DATAGRAM_LAN_BYTES = 1400;    // an Ethernet frame with room for a tunnel's headers
constexpr int DATAGRAM_OTHER_BYTES = 1200;  // what practically every route carries whole

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

int hex_value(char c) {
  if (is_digit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

using Ipv4 = std::array<std::uint8_t, IPV4_BYTES>;
using Ipv6 = std::array<std::uint8_t, 16>;

std::optional<Ipv4> parse_ipv4(std::string_view text) {
  Ipv4 bytes{};
  for (std::size_t part = 0; part < IPV4_BYTES; ++part) {
    if (part > 0) {
      if (!text.starts_with('.')) return std::nullopt;
      text.remove_prefix(1);
    }
    int value = 0;
    std::size_t digits = 0;
    for (; digits < text.size() && is_digit(text[digits]); ++digits) {
      if (digits == 3) return std::nullopt;
      value = value * 10 + (text[digits] - '0');
    }
    if (digits == 0 || value > 255) return std::nullopt;
    bytes[part] = static_cast<std::uint8_t>(value);
    text.remove_prefix(digits);
  }
  if (!text.empty()) return std::nullopt;
  return bytes;
}

// The groups of an IPv6 text as they stand, and where its "::" splits them.
struct Ipv6Groups {
  std::uint16_t groups[IPV6_GROUPS] = {};
  int count = 0;
  int gap = -1;  // index of the first group behind "::", -1 without one

  bool add(unsigned value) {
    if (count == IPV6_GROUPS) return false;
    groups[count++] = static_cast<std::uint16_t>(value);
    return true;
  }

  // One part between colons: a group, or at the text's end a dotted IPv4 address for two.
  bool add_part(std::string_view part, bool last) {
    if (last && part.find('.') != part.npos) {
      const std::optional<Ipv4> ipv4 = parse_ipv4(part);
      if (!ipv4) return false;
      const Ipv4& b = *ipv4;
      return add(b[0] * 256u + b[1]) && add(b[2] * 256u + b[3]);
    }
    if (part.empty() || part.size() > 4) return false;
    unsigned value = 0;
    for (const char c : part) {
      if (hex_value(c) < 0) return false;
      value = value * 16 + static_cast<unsigned>(hex_value(c));
    }
    return add(value);
  }

  // The address; none when the groups are neither complete nor shortened by at least one.
  std::optional<Ipv6> expand() const {
    if (gap < 0 ? count != IPV6_GROUPS : count == IPV6_GROUPS) return std::nullopt;
    Ipv6 bytes{};
    for (int i = 0; i < count; ++i) {
      const int place = gap < 0 || i < gap ? i : i + IPV6_GROUPS - count;
      bytes[static_cast<std::size_t>(2 * place)] = static_cast<std::uint8_t>(groups[i] >> 8);
      bytes[static_cast<std::size_t>(2 * place + 1)] = static_cast<std::uint8_t>(groups[i]);
    }
    return bytes;
  }
};

std::optional<Ipv6> parse_ipv6(std::string_view text) {
  Ipv6Groups parsed;
  if (text.starts_with("::")) {
    parsed.gap = 0;
    text.remove_prefix(2);
    if (text.empty()) return Ipv6{};
  }
  while (true) {
    const std::size_t colon = text.find(':');
    const bool last = colon == text.npos;
    if (!parsed.add_part(text.substr(0, colon), last)) return std::nullopt;
    if (last) return parsed.expand();
    text.remove_prefix(colon + 1);
    if (text.starts_with(':')) {
      if (parsed.gap >= 0) return std::nullopt;
      parsed.gap = parsed.count;
      text.remove_prefix(1);
      if (text.empty()) return parsed.expand();
    }
  }
}

// 1 to 65535; 0 for anything else.
std::uint16_t parse_port(std::string_view text) {
  if (text.empty()) return 0;
  unsigned value = 0;
  for (const char c : text) {
    if (!is_digit(c)) return 0;
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > 65535) return 0;
  }
  return static_cast<std::uint16_t>(value);
}

bool set_ipv4(lund_rv_endpoint* out, std::string_view text) {
  const std::optional<Ipv4> bytes = parse_ipv4(text);
  if (!bytes) return false;
  out->family = 4;
  std::copy(bytes->begin(), bytes->end(), out->address.begin());
  return true;
}

bool set_ipv6(lund_rv_endpoint* out, std::string_view text) {
  const std::optional<Ipv6> bytes = parse_ipv6(text);
  if (!bytes) return false;
  out->family = 6;
  out->address = *bytes;
  return true;
}

// Splits off the port, if the form has one, and parses the rest; false for anything else.
bool parse_with_port(lund_rv_endpoint* out, std::string_view text) {
  const std::size_t colon = text.find(':');
  if (text.starts_with('[')) {
    const std::size_t bracket = text.find(']');
    if (bracket == text.npos || !set_ipv6(out, text.substr(1, bracket - 1))) return false;
    const std::string_view behind = text.substr(bracket + 1);
    if (behind.empty()) return true;
    out->port = behind.front() == ':' ? parse_port(behind.substr(1)) : std::uint16_t{0};
    return out->port != 0;
  }
  if (colon == text.npos) return set_ipv4(out, text);
  if (text.find(':', colon + 1) != text.npos) return set_ipv6(out, text);
  out->port = parse_port(text.substr(colon + 1));
  return out->port != 0 && set_ipv4(out, text.substr(0, colon));
}

std::uint16_t group_of(const Ipv6& address, int index) {
  const auto at = static_cast<std::size_t>(2 * index);
  return static_cast<std::uint16_t>(address[at] << 8 | address[at + 1]);
}

// The longest run of two or more zero groups, the first of equals; length 0 when there is none.
struct ZeroRun {
  int start = 0;
  int length = 0;
};
ZeroRun longest_zero_run(const Ipv6& address) {
  ZeroRun best;
  for (int i = 0; i < IPV6_GROUPS;) {
    int end = i;
    while (end < IPV6_GROUPS && group_of(address, end) == 0) ++end;
    if (end - i >= 2 && end - i > best.length) best = {i, end - i};
    i = std::max(end, i + 1);
  }
  return best;
}

// A line of text of bounded length, long enough for every address.
class Text {
 public:
  template <class... Values>
  void add(const char* format, Values... values) {
    const int n = std::snprintf(text_ + size_, sizeof(text_) - size_, format, values...);
    size_ += static_cast<std::size_t>(n);
  }
  std::size_t copy_to(char* out, std::size_t capacity) const {
    if (capacity == 0) return 0;
    const std::size_t length = std::min(size_, capacity - 1);
    std::memcpy(out, text_, length);
    out[length] = '\0';
    return length;
  }

 private:
  char text_[LUND_ADDR_TEXT] = {};
  std::size_t size_ = 0;
};

void add_ipv6(Text& text, const Ipv6& address) {
  const ZeroRun run = longest_zero_run(address);
  for (int i = 0; i < IPV6_GROUPS; ++i) {
    if (run.length > 0 && i == run.start) {
      text.add("%s", "::");
      i += run.length - 1;
      continue;
    }
    const bool first = i == 0 || (run.length > 0 && i == run.start + run.length);
    text.add(first ? "%x" : ":%x", group_of(address, i));
  }
}

}  // namespace

void LocalEndpoints::add(const lund_rv_endpoint& address) {
  const auto& a = address.address;
  const bool no_use = a[0] == 0 || a[0] == 127 || (a[0] == 169 && a[1] == 254);
  if (address.family != 4 || no_use || count_ == MAX) return;
  lund_rv_endpoint found = address;
  found.port = port_;
  const auto end = found_.begin() + count_;
  const auto same = [&](const lund_rv_endpoint& e) { return lund_rv_endpoint_equal(e, found); };
  if (std::none_of(found_.begin(), end, same)) found_[static_cast<std::size_t>(count_++)] = found;
}

int LocalEndpoints::hand_out(lund_rv_endpoint* out, int max) {
  const auto end = found_.begin() + count_;
  std::stable_partition(found_.begin(), end, lund_addr_is_private);
  const int handed = std::clamp(max, 0, count_);
  std::copy_n(found_.begin(), handed, out);
  return handed;
}

int lund_addr_parse_ip(lund_rv_endpoint* out, std::string_view text) {
  *out = {};
  return set_ipv4(out, text) || set_ipv6(out, text) ? 0 : -1;
}

int lund_addr_parse(lund_rv_endpoint* out, const char* text, std::uint16_t default_port) {
  *out = {};
  if (text == nullptr) return -1;
  lund_rv_endpoint parsed;
  parsed.port = default_port;
  if (!parse_with_port(&parsed, text)) return -1;
  *out = parsed;
  return 0;
}

std::size_t lund_addr_format(char* out, std::size_t capacity, const lund_rv_endpoint& address) {
  Text text;
  const auto& a = address.address;
  if (address.family == 4) {
    text.add("%u.%u.%u.%u:%u", a[0], a[1], a[2], a[3], address.port);
  } else if (address.family == 6) {
    text.add("%s", "[");
    add_ipv6(text, a);
    text.add("]:%u", address.port);
  } else {
    text.add("%s", "-");
  }
  return text.copy_to(out, capacity);
}

bool lund_addr_is_private(const lund_rv_endpoint& address) {
  const auto& a = address.address;
  if (address.family == 4) {
    return a[0] == 10 || a[0] == 127 || (a[0] == 172 && a[1] >> 4 == 1) ||
           (a[0] == 192 && a[1] == 168) || (a[0] == 169 && a[1] == 254);
  }
  if (address.family != 6) return false;
  constexpr Ipv6 LOOPBACK = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const bool unique_local = (a[0] & 0xFE) == 0xFC;
  const bool link_local = a[0] == 0xFE && (a[1] & 0xC0) == 0x80;
  return a == LOOPBACK || unique_local || link_local;
}

bool lund_addr_is_tailscale(const lund_rv_endpoint& address) {
  const auto& a = address.address;
  if (address.family == 4) return a[0] == 100 && a[1] >> 6 == 1;
  constexpr std::uint8_t PREFIX[] = {0xFD, 0x7A, 0x11, 0x5C, 0xA1, 0xE0};
  return address.family == 6 && std::equal(std::begin(PREFIX), std::end(PREFIX), a.begin());
}

std::int32_t lund_addr_path_class(const lund_rv_endpoint& address) {
  return lund_addr_is_private(address) && !lund_addr_is_tailscale(address) ? LUND_PATH_LAN
                                                                           : LUND_PATH_DIRECT;
}

const char* lund_path_name(std::int32_t path) {
  switch (path) {
    case LUND_PATH_LAN:
      return "LAN";
    case LUND_PATH_DIRECT:
      return "Direct";
    case LUND_PATH_P2P:
      return "P2P";
    case LUND_PATH_RELAY:
      return "Relay";
    default:
      return "-";
  }
}

int lund_path_max_datagram(std::int32_t path) {
  return path == LUND_PATH_LAN ? DATAGRAM_LAN_BYTES : DATAGRAM_OTHER_BYTES;
}

int lund_path_payload(std::int32_t path) {
  return lund_path_max_datagram(path) - LUND_SEAL_OVERHEAD;
}

bool lund_rv_endpoint_equal(const lund_rv_endpoint& a, const lund_rv_endpoint& b) {
  const std::size_t size = a.family == 4 ? IPV4_BYTES : a.address.size();
  return a.family == b.family && a.port == b.port &&
         std::equal(a.address.begin(), a.address.begin() + size, b.address.begin());
}
