#include "tests/support/client_rig.h"

#include <cstring>

#include "connection/byte_order.h"
#include "tests/support/virtual_time.h"

ClientRig::ClientRig(const std::function<void(lund_client_config&)>& adjust) {
  virtual_time::reset();
  lund_keypair_generate(&host_keypair);
  lund_client_config config;
  lund_keypair_generate(&config.identity);
  config.name = "the client";
  config.has_host_key = 1;
  std::memcpy(config.host_key, host_keypair.public_key, LUND_KEY_SIZE);
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
    static_cast<ClientRig*>(user)->sent.push_back({*to, Bytes(bytes, bytes + size)});
  };
  config.log = [](void* user, const char* text) {
    static_cast<ClientRig*>(user)->log.emplace_back(text);
  };
  if (adjust) adjust(config);
  client = lund_client_create(&config);
}

void ClientRig::tick_for_ms(std::uint64_t ms) {
  for (std::uint64_t i = 0; i < ms; ++i) {
    virtual_time::advance_ms(1);
    tick();
  }
}

std::vector<ClientRig::Sent> ClientRig::take(std::uint8_t type) {
  std::vector<Sent> taken;
  for (const Sent& datagram : sent)
    if (datagram.bytes[2] == type) taken.push_back(datagram);
  std::erase_if(sent, [type](const Sent& datagram) { return datagram.bytes[2] == type; });
  return taken;
}

int ClientRig::receive(const lund_rv_endpoint& from, const Bytes& bytes) {
  out.assign(2048, 0);
  std::size_t size = 0;
  const int result = lund_client_receive(client, bytes.data(), bytes.size(), from, out.data(),
                                         out.size(), &size, &rx_info);
  out.resize(size);
  return result;
}

std::vector<lund_conn_event> ClientRig::events() {
  std::vector<lund_conn_event> all;
  lund_conn_event event;
  while (lund_client_poll_event(client, &event)) all.push_back(event);
  return all;
}

lund_client_status ClientRig::status() {
  lund_client_status status;
  lund_client_status_get(client, &status);
  return status;
}

ClientRig::Bytes ClientRig::answer(const Bytes& hs_init, lund_session* session) {
  lund_noise_ik state;
  std::uint8_t client_key[LUND_KEY_SIZE];
  std::uint64_t timestamp = 0;
  if (lund_hs_host_read(&state, &host_keypair, hs_init.data(), hs_init.size(), client_key,
                        &timestamp) != LUND_OK)
    return {};
  Bytes response(LUND_HS_RESP_SIZE);
  std::size_t size = 0;
  lund_hs_host_respond(&state, 0, response.data(), response.size(), &size, session);
  response.resize(size);
  return response;
}

ClientRig::Bytes ClientRig::seal(lund_session& session, const Bytes& plain) {
  Bytes sealed(plain.size() + LUND_SEAL_OVERHEAD);
  sealed.resize(lund_seal(&session, plain.data(), plain.size(), sealed.data(), sealed.size()));
  return sealed;
}

ClientRig::Bytes ClientRig::seal(lund_session& session, std::uint8_t type, std::size_t body_size) {
  Bytes plain(LUND_HEADER_SIZE + body_size);
  lund_packet_header header;
  header.type = type;
  lund_encode_header(plain.data(), plain.size(), &header);
  return seal(session, plain);
}

ClientRig::Bytes ClientRig::open(lund_session& session, const Bytes& sealed) {
  Bytes plain(sealed.size());
  std::size_t size = 0;
  lund_open(&session, sealed.data(), sealed.size(), plain.data(), plain.size(), &size);
  plain.resize(size);
  return plain;
}

ClientRig::Bytes ClientRig::probe_ack(lund_session& session, const Bytes& sealed_probe) {
  Bytes plain = open(session, sealed_probe);
  if (plain.size() != LUND_PROBE_SIZE) return {};
  plain[2] = LUND_PKT_PATH_PROBE_ACK;
  plain[3] = 0;
  return seal(session, plain);
}

std::uint32_t ClientRig::bring_up(const lund_rv_endpoint& from, lund_session* session,
                                  std::uint64_t rtt_us) {
  lund_client_connect(client);
  tick();
  const std::vector<Sent> inits = take(LUND_PKT_HS_INIT);
  if (inits.empty()) return 0;
  virtual_time::advance_us(rtt_us);
  receive(from, answer(inits.back().bytes, session));
  return status().session_id;
}

void ClientRig::offer_rekey(const lund_rv_endpoint& from, lund_session* session) {
  lund_client_rekey(client);
  tick();
  const std::vector<Sent> inits = take(LUND_PKT_HS_INIT);
  if (!inits.empty()) receive(from, answer(inits.back().bytes, session));
}

ClientRig::Bytes ClientRig::host_info(std::uint32_t nonce, std::uint8_t capabilities,
                                      std::uint32_t mem_kib, std::uint32_t iterations) {
  const std::string name = "the host";
  Bytes info(70);
  lund_packet_header header;
  header.type = LUND_PKT_HOST_INFO;
  lund_encode_header(info.data(), info.size(), &header);
  store_le(info.data() + 8, nonce);
  info[12] = capabilities;
  store_le(info.data() + 13, mem_kib);
  store_le(info.data() + 17, iterations);
  std::memcpy(info.data() + 37, host_keypair.public_key, LUND_KEY_SIZE);
  info[69] = static_cast<std::uint8_t>(name.size());
  info.insert(info.end(), name.begin(), name.end());
  return info;
}
