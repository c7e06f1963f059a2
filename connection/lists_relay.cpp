// Relay servers: the link's syntax and the stored list. Their keys are secrets, so every text that
// held one and every failed output is wiped.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "connection/lists.h"
#include "connection/lists_internal.h"
#include "default_relay.h"

namespace {

constexpr std::string_view SCHEME = "lunderhaze-relay://";
constexpr std::string_view FIRST_LINE = "lunderhaze-relays-v1";
constexpr std::size_t LINK_MIN = 20;  // characters of a trimmed link
constexpr std::size_t LINK_MAX = 671;
constexpr std::size_t LINE_CHARS = 679;  // characters of a stored line
constexpr std::size_t HOST_MAX = 253;    // of a DNS name, RFC 1035
constexpr std::size_t LABEL_MAX = 63;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equal_without_case(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view host_of(const lund_relay_server& server) {
  return {server.host, strnlen(server.host, sizeof(server.host))};
}

bool is_label(std::string_view label) {
  return !label.empty() && label.size() <= LABEL_MAX && label.front() != '-' &&
         label.back() != '-' && std::all_of(label.begin(), label.end(), [](char c) {
           return is_letter(c) || is_digit(c) || c == '-' || c == '_';
         });
}

// A last label of digits alone would be a mistyped IPv4 address.
bool is_host_name(std::string_view text) {
  while (true) {
    const std::size_t dot = text.find('.');
    const std::string_view label = text.substr(0, dot);
    if (!is_label(label)) return false;
    if (dot == text.npos) return !std::all_of(label.begin(), label.end(), is_digit);
    text.remove_prefix(dot + 1);
  }
}

// Sets host and, of a literal, the endpoint; the port must be set already.
bool relay_set_host(lund_relay_server* out, std::string_view host) {
  if (host.empty() || host.size() > HOST_MAX) return false;
  if (lund_addr_parse_ip(&out->endpoint, host) == 0) {
    out->endpoint.port = out->port;
  } else if (!is_host_name(host)) {
    return false;
  }
  std::memcpy(out->host, host.data(), host.size());
  out->host[host.size()] = '\0';
  return true;
}

// 1 to 5 digits, 1 to 65535; 0 for anything else.
std::uint16_t parse_port(std::string_view digits) {
  if (digits.empty() || digits.size() > 5) return 0;
  unsigned value = 0;
  for (const char c : digits) {
    if (!is_digit(c)) return 0;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  return value <= 65535 ? static_cast<std::uint16_t>(value) : std::uint16_t{0};
}

// "host", "host:port", "[v6]" or "[v6]:port" into host, without brackets, and port.
struct HostAndPort {
  std::string_view host;
  std::uint16_t port = LUND_RELAY_PORT;
};
std::optional<HostAndPort> split_host_and_port(std::string_view text) {
  HostAndPort out;
  std::string_view behind;  // the host: nothing, or ":" and the port
  if (text.starts_with('[')) {
    const std::size_t bracket = text.find(']');
    if (bracket == text.npos) return std::nullopt;
    out.host = text.substr(1, bracket - 1);
    if (out.host.find(':') == out.host.npos) return std::nullopt;
    behind = text.substr(bracket + 1);
  } else {
    out.host = text.substr(0, text.find(':'));
    behind = text.substr(out.host.size());
  }
  if (behind.empty()) return out;
  if (behind.front() != ':') return std::nullopt;
  out.port = parse_port(behind.substr(1));
  if (out.port == 0) return std::nullopt;
  return out;
}

int hex_value(char c) {
  if (is_digit(c)) return c - '0';
  const char l = lower(c);
  return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

// Takes one byte of a key off its text: itself, or %XX. -1 for anything else.
int next_key_byte(std::string_view& text) {
  const char c = text.front();
  if (c < '!' || c > '~' || c == '#') return -1;
  if (c != '%') {
    text.remove_prefix(1);
    return c;
  }
  if (text.size() < 3 || hex_value(text[1]) < 0 || hex_value(text[2]) < 0) return -1;
  const int byte = hex_value(text[1]) * 16 + hex_value(text[2]);
  text.remove_prefix(3);
  return byte;
}

bool decode_key(lund_relay_server* out, std::string_view text) {
  out->key_size = 0;
  while (!text.empty()) {
    const int byte = next_key_byte(text);
    if (byte < 0 || out->key_size == LUND_RELAY_KEY_MAX) return false;
    out->key[out->key_size++] = static_cast<std::uint8_t>(byte);
  }
  return out->key_size > 0;
}

bool parse_link(lund_relay_server* out, std::string_view text) {
  text = trim(text);
  if (text.size() < LINK_MIN || text.size() > LINK_MAX) return false;
  if (!equal_without_case(text.substr(0, SCHEME.size()), SCHEME)) return false;
  text.remove_prefix(SCHEME.size());
  const std::size_t hash = text.find('#');
  if (hash == text.npos) return false;
  std::string_view authority = text.substr(0, hash);
  if (authority.ends_with('/')) authority.remove_suffix(1);
  const std::optional<HostAndPort> parts = split_host_and_port(authority);
  if (!parts || parts->host.find_first_of("%/?@") != parts->host.npos) return false;
  out->port = parts->port;
  return relay_set_host(out, parts->host) && decode_key(out, text.substr(hash + 1));
}

bool goes_as_itself(char c) {
  return is_letter(c) || is_digit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool formattable(const lund_relay_server& server) {
  const std::size_t host = host_of(server).size();
  return host >= 1 && host <= HOST_MAX && server.port != 0 && server.key_size >= 1 &&
         server.key_size <= LUND_RELAY_KEY_MAX;
}

void wipe_config(lund_relay_config* config) {
  lund_secure_wipe(config, sizeof(*config));
  *config = {};
}

bool load_lines(lund_relay_config* config, const char* bytes, std::size_t size) {
  LineReader<LINE_CHARS> reader(bytes, size);
  if (!reader.next() || reader.was_cut() || trim(reader.line()) != FIRST_LINE) return false;
  while (reader.next()) {
    if (reader.was_cut() || reader.line().find('\0') != std::string_view::npos) return false;
    if (trim(reader.line()).empty()) continue;
    lund_relay_server server;
    if (!parse_link(&server, reader.line())) return false;
    if (lund_relay_config_add(config, &server) < 0) return false;
  }
  return true;
}

}  // namespace

int lund_relay_server_set(lund_relay_server* out, const char* host_text, std::uint16_t port,
                          const std::uint8_t* key, std::size_t key_size) {
  if (out == nullptr || host_text == nullptr || key == nullptr) return -1;
  if (key_size < 1 || key_size > LUND_RELAY_KEY_MAX) return -1;
  std::string_view host = trim(host_text);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
    if (host.find(':') == host.npos) return -1;
  }
  lund_relay_server server;
  server.port = port != 0 ? port : LUND_RELAY_PORT;
  if (!relay_set_host(&server, host)) return -1;
  std::memcpy(server.key, key, key_size);
  server.key_size = key_size;
  *out = server;
  return 0;
}

int lund_relay_link_parse(lund_relay_server* out, const char* text) {
  lund_relay_server server;
  if (out == nullptr || text == nullptr || !parse_link(&server, text)) return -1;
  *out = server;
  return 0;
}

std::size_t lund_relay_server_name(char* out, std::size_t capacity,
                                   const lund_relay_server* server) {
  const std::string_view host = host_of(*server);
  const bool literal = host.find(':') != host.npos;
  char port[8];
  std::snprintf(port, sizeof(port), ":%u", server->port);
  TextWriter text(out, capacity);
  if (literal) text.add("[");
  text.add(host);
  if (literal) text.add("]");
  text.add(port);
  return text.finish();
}

std::size_t lund_relay_link_format(char* out, std::size_t capacity,
                                   const lund_relay_server* server) {
  if (!formattable(*server)) return 0;
  char name[HOST_MAX + 16];
  const std::size_t name_size = lund_relay_server_name(name, sizeof(name), server);
  constexpr std::size_t HASH_AND_END = 2;
  if (capacity < SCHEME.size() + name_size + 3 * server->key_size + HASH_AND_END) return 0;
  TextWriter text(out, capacity);
  text.add(SCHEME);
  text.add({name, name_size});
  text.add("#");
  for (std::size_t i = 0; i < server->key_size; ++i) {
    const auto c = static_cast<char>(server->key[i]);
    constexpr char DIGITS[] = "0123456789ABCDEF";
    const char escaped[] = {'%', DIGITS[server->key[i] >> 4], DIGITS[server->key[i] & 15]};
    text.add(goes_as_itself(c) ? std::string_view(&c, 1) : std::string_view(escaped, 3));
  }
  return text.finish();
}

bool lund_relay_server_same(const lund_relay_server* a, const lund_relay_server* b) {
  return a->port == b->port && equal_without_case(host_of(*a), host_of(*b));
}

int lund_relay_config_add(lund_relay_config* config, const lund_relay_server* server) {
  if (host_of(*server).size() > HOST_MAX) return -1;
  lund_relay_server entry;
  if (lund_relay_server_set(&entry, server->host, server->port, server->key, server->key_size) != 0)
    return -1;
  if (entry.endpoint.family == 0) entry.endpoint = server->endpoint;
  int index = 0;
  while (index < config->count && !lund_relay_server_same(&config->servers[index], &entry)) ++index;
  if (index == LUND_RELAYS_MAX) return -1;
  config->servers[index] = entry;
  config->count = std::max(config->count, index + 1);
  return index;
}

int lund_relay_config_add_link(lund_relay_config* config, const char* text) {
  lund_relay_server server;
  if (lund_relay_link_parse(&server, text) != 0) return -1;
  return lund_relay_config_add(config, &server);
}

int lund_relay_config_remove(lund_relay_config* config, int index) {
  if (index < 0 || index >= config->count) return -1;
  lund_relay_server* first = config->servers + index;
  std::move(first + 1, config->servers + config->count, first);
  --config->count;
  lund_secure_wipe(config->servers + config->count, sizeof(lund_relay_server));
  config->servers[config->count] = {};
  return 0;
}

std::size_t lund_relay_config_save(const lund_relay_config* config, char* out,
                                   std::size_t capacity) {
  TextWriter text(out, capacity);
  text.add(FIRST_LINE);
  text.add("\n");
  for (int i = 0; i < config->count; ++i) {
    Wiped<char[LINE_CHARS + 1]> link;
    const std::size_t size =
        lund_relay_link_format(link.value, sizeof(link.value), &config->servers[i]);
    if (size == 0) text.fail();
    text.add({link.value, size});
    text.add("\n");
  }
  return text.finish();
}

int lund_relay_config_load(lund_relay_config* config, const char* bytes, std::size_t size) {
  wipe_config(config);
  if (bytes != nullptr && load_lines(config, bytes, size)) return 0;
  wipe_config(config);
  return -1;
}

int lund_relay_config_load_stored(lund_relay_config* config, const char* bytes, std::size_t size,
                                  int stored_state) {
  if (stored_state == 1) return lund_relay_config_load(config, bytes, size);
  wipe_config(config);
  if (stored_state != 0) return -1;
  return lund_relay_config_add_default(config, LUND_DEFAULT_RELAY_LINK);
}

int lund_relay_config_add_default(lund_relay_config* config, const char* link) {
  if (*link == '\0') return 0;
  return lund_relay_config_add_link(config, link) >= 0 ? 0 : -1;
}
