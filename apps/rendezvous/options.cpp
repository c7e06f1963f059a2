#include "apps/rendezvous/options.h"

#include <array>
#include <fstream>

#include "connection/wiped.h"

namespace {

constexpr std::size_t RANDOM_KEY_BYTES = 24;

// A key in a link's writing, decoded by the link's parser behind a host of no meaning.
bool parse_key(const std::string& text, lund_relay_server* out) {
  const Wiped link("lunderhaze-relay://host#" + text);
  return lund_relay_link_parse(out, link.value.c_str()) == 0;
}

bool draw_key(lund_relay_server* out, std::string* error) {
  Wiped<std::array<std::uint8_t, RANDOM_KEY_BYTES>> bytes;
  if (lund_random_bytes(bytes.value.data(), RANDOM_KEY_BYTES) != LUND_OK) {
    *error = "the system's random source failed";
    return false;
  }
  Wiped<std::array<char, 2 * RANDOM_KEY_BYTES + 1>> hex;
  lund_hex_encode(hex.value.data(), bytes.value.data(), RANDOM_KEY_BYTES);
  return parse_key(hex.value.data(), out);
}

bool no_key(const std::string& where, std::string* error) {
  *error = where + ": a key is 1 to 128 bytes, each as itself or as %XX, without blanks";
  return false;
}

bool read_key_file(const std::filesystem::path& path, RendezvousSetup* setup, std::string* error) {
  std::ifstream file(path);
  Wiped<std::string> read;
  std::string& line = read.value;
  if (!std::getline(file, line)) {
    *error = "cannot read a key from " + path.string();
    return false;
  }
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
  setup->from_link = lund_relay_link_parse(&setup->server, line.c_str()) == 0;
  return setup->from_link || parse_key(line, &setup->server) || no_key(path.string(), error);
}

bool take_key(const RendezvousOptions& options, RendezvousSetup* setup, std::string* error) {
  if (options.link) {
    setup->from_link = lund_relay_link_parse(&setup->server, options.link->c_str()) == 0;
    if (!setup->from_link) *error = "--link: a relay link is lunderhaze-relay://HOST[:PORT]#KEY";
    return setup->from_link;
  }
  if (options.key_file) return read_key_file(*options.key_file, setup, error);
  if (options.key) return parse_key(*options.key, &setup->server) || no_key("--key", error);
  return draw_key(&setup->server, error);
}

}  // namespace

bool set_up(const RendezvousOptions& options, const std::string& own_host, RendezvousSetup* setup,
            std::string* error) {
  if (!take_key(options, setup, error)) return false;
  lund_relay_server& server = setup->server;
  if (!options.bind.empty() && lund_addr_parse_ip(&setup->listen, options.bind) != 0) {
    *error = "\"" + options.bind + "\" is no address of this computer";
    return false;
  }
  setup->listen.port = options.port.value_or(server.port);
  const std::string here = options.bind.empty() ? own_host : options.bind;
  const std::string named = setup->from_link ? server.host : here;
  const std::string host = options.host.empty() ? named : options.host;
  const std::uint16_t port = setup->from_link ? server.port : setup->listen.port;
  RendezvousSetup valid;
  if (lund_relay_server_set(&valid.server, host.c_str(), port, server.key, server.key_size) != 0) {
    *error = "\"" + host + "\" is no host name or address: say by --host how others reach this one";
    return false;
  }
  server = valid.server;
  return true;
}
