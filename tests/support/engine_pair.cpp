#include "tests/support/engine_pair.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

#include "connection/conn_client_internal.h"
#include "connection/protocol.h"
#include "tests/support/virtual_time.h"

lund_rv_endpoint endpoint(const char* text) {
  lund_rv_endpoint out;
  lund_addr_parse(&out, text, 0);
  return out;
}

std::string quick_password_blob(const char* password) {
  lund_password_record record;
  std::iota(std::begin(record.salt), std::end(record.salt), std::uint8_t{0});
  record.mem_kib = 8;
  record.iterations = 1;
  lund_password_derive(record.verifier, password, record.salt, record.mem_kib, record.iterations);
  std::array<char, LUND_PASSWORD_BLOB_MAX> text{};
  lund_password_blob_format(text.data(), text.size(), &record);
  return text.data();
}

namespace {
std::vector<lund_conn_event> of_type(const std::vector<lund_conn_event>& events,
                                     std::uint32_t type) {
  std::vector<lund_conn_event> out;
  std::copy_if(events.begin(), events.end(), std::back_inserter(out),
               [type](const lund_conn_event& event) { return event.type == type; });
  return out;
}

EnginePair::Packet packet_of(const std::uint8_t* bytes, std::size_t size,
                             const lund_rx_info& info) {
  lund_packet_header header;
  lund_decode_header(bytes, size, &header);
  return {header.type, header.session_id, info, NetSim::Bytes(bytes, bytes + size)};
}

NetSim::Bytes number_packet(std::uint8_t type, std::uint32_t number) {
  const lund_packet_header header{.type = type};
  NetSim::Bytes plain(12);
  lund_encode_u32_packet(plain.data(), plain.size(), &header, number);
  return plain;
}
}  // namespace

EnginePair::EnginePair(const Options& options)
    : net((virtual_time::reset(), options.seed)), options_(options) {
  lan = net.add_network(options.lan);
  wan = net.add_network(options.wan);
  relay = net.add_network(options.relay);
  lund_keypair_generate(&host_keypair);
  lund_keypair_generate(&client_keypair);

  host_node_ = net.add_node(
      [this](const NetSim::Datagram& datagram) {
        std::uint8_t out[2048];
        std::size_t size = 0;
        lund_rx_info info;
        if (lund_host_receive(host, datagram.bytes.data(), datagram.bytes.size(), datagram.from,
                              out, sizeof out, &size, &info) == LUND_RX_OPENED)
          host_packets.push_back(packet_of(out, size, info));
      },
      [this] { return lund_host_tick(host); });
  client_node_ = net.add_node(
      [this](const NetSim::Datagram& datagram) {
        std::uint8_t out[2048];
        std::size_t size = 0;
        lund_rx_info info;
        if (lund_client_receive(client, datagram.bytes.data(), datagram.bytes.size(), datagram.from,
                                out, sizeof out, &size, &info) == LUND_RX_OPENED)
          client_packets.push_back(packet_of(out, size, info));
      },
      [this] { return lund_client_tick(client); });
  net.attach(host_node_, lan, HOST_LAN);
  net.attach(host_node_, wan, HOST_WAN);
  net.attach(host_node_, relay, HOST_RELAY);
  net.attach(client_node_, lan, CLIENT_LAN);
  net.attach(client_node_, wan, CLIENT_WAN);
  net.attach(client_node_, relay, CLIENT_RELAY);

  lund_client_list clients;
  if (options.paired) lund_client_list_add(&clients, client_keypair.public_key, "the client");
  create_host(clients);

  lund_client_config config;
  config.identity = client_keypair;
  config.name = "the client";
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
    auto* self = static_cast<EnginePair*>(user);
    self->net.send(self->client_node_, *to, bytes, size);
  };
  config.log = [](void* user, const char* text) {
    static_cast<EnginePair*>(user)->client_log.emplace_back(text);
  };
  if (options.paired) {
    config.has_host_key = 1;
    std::memcpy(config.host_key, host_keypair.public_key, LUND_KEY_SIZE);
  }
  options_.client(config);
  client = lund_client_create(&config);
}

EnginePair::~EnginePair() {
  lund_client_destroy(client);
  lund_host_destroy(host);
}

void EnginePair::create_host(const lund_client_list& clients) {
  lund_host_config config;
  config.identity = host_keypair;
  config.name = "the host";
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
    auto* self = static_cast<EnginePair*>(user);
    self->net.send(self->host_node_, *to, bytes, size);
  };
  config.log = [](void* user, const char* text) {
    static_cast<EnginePair*>(user)->host_log.emplace_back(text);
  };
  options_.host(config);
  const char* blob = options_.password_blob.empty() ? nullptr : options_.password_blob.c_str();
  host = lund_host_create(&config, &clients, blob);
}

void EnginePair::restart_host() {
  lund_client_list clients;
  lund_host_export_clients(host, &clients);
  lund_host_destroy(host);
  create_host(clients);
}

void EnginePair::add_relay() {
  const std::lock_guard guard(client->base.lock);
  const int index = client_engine::path_add(*client, HOST_RELAY, LUND_PATH_RELAY, 0);
  client_engine::path_kick(*client, index, lund_now_us());
}

bool EnginePair::connect(std::uint64_t limit_ms) {
  if (lund_client_connect(client) != 0) return false;
  return net.run_until([this] { return up(); }, limit_ms);
}

bool EnginePair::pair(const char* secret, std::uint32_t kind, std::uint64_t limit_ms) {
  if (lund_client_pair(client, secret, kind) != 0) return false;
  net.run_until([this] { return client->mode != LUND_CLIENT_PAIRING; }, limit_ms);
  return client->has_host_key && client->mode == LUND_CLIENT_CONNECTING;
}

bool EnginePair::up() {
  return status().connected != 0;
}

lund_client_status EnginePair::status() {
  lund_client_status status;
  lund_client_status_get(client, &status);
  return status;
}

std::string EnginePair::pin() {
  lund_pairing_status status;
  lund_host_pairing_status(host, &status);
  return status.pin;
}

void EnginePair::take_events() {
  lund_conn_event event;
  while (lund_client_poll_event(client, &event)) client_events_.push_back(event);
  while (lund_host_poll_event(host, &event)) host_events_.push_back(event);
}

std::vector<lund_conn_event> EnginePair::client_events(std::uint32_t type) {
  take_events();
  return of_type(client_events_, type);
}

std::vector<lund_conn_event> EnginePair::host_events(std::uint32_t type) {
  take_events();
  return of_type(host_events_, type);
}

bool EnginePair::client_logged(const std::string& part) const {
  return std::any_of(client_log.begin(), client_log.end(), [&part](const std::string& line) {
    return line.find(part) != std::string::npos;
  });
}

bool EnginePair::client_sends(const NetSim::Bytes& plain, std::uint32_t session_id) {
  NetSim::Bytes sealed(plain.size() + std::size_t{LUND_SEAL_OVERHEAD});
  lund_rv_endpoint peer;
  const std::size_t size = lund_client_seal(client, session_id, plain.data(), plain.size(),
                                            sealed.data(), sealed.size(), &peer);
  if (size > 0) net.send(client_node_, peer, sealed.data(), size);
  return size > 0;
}

bool EnginePair::host_sends(const NetSim::Bytes& plain, std::uint32_t session_id) {
  NetSim::Bytes sealed(plain.size() + std::size_t{LUND_SEAL_OVERHEAD});
  lund_rv_endpoint peer;
  const std::size_t size = lund_host_seal(host, session_id, plain.data(), plain.size(),
                                          sealed.data(), sealed.size(), &peer);
  if (size > 0) net.send(host_node_, peer, sealed.data(), size);
  return size > 0;
}

bool EnginePair::client_says(std::uint32_t number, std::uint32_t session_id) {
  return client_sends(number_packet(LUND_PKT_CURSOR_REQUEST, number), session_id);
}

bool EnginePair::host_says(std::uint32_t number, std::uint32_t session_id) {
  return host_sends(number_packet(LUND_PKT_INPUT_ACK, number), session_id);
}

void EnginePair::start_traffic(std::uint64_t interval_us) {
  talking_ = true;
  net.add_node(nullptr, [this, interval_us] {
    if (talking_) {
      if (client_says(said_by_client)) ++said_by_client;
      if (host_says(said_by_host, status().session_id)) ++said_by_host;
    }
    return interval_us;
  });
}
