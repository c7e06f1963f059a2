#include "tests/support/host_rig.h"

#include <algorithm>
#include <cstring>

#include "connection/protocol.h"
#include "tests/support/virtual_time.h"

lund_client_list clients_of(std::initializer_list<std::uint8_t> seeds) {
  lund_client_list list;
  for (const std::uint8_t seed : seeds)
    lund_client_list_add(&list, peer::keypair_of(seed).public_key,
                         ("client " + std::to_string(seed)).c_str());
  return list;
}

host_rig::host_rig(const lund_client_list& clients, const char* password_blob,
                   lund_host_config config) {
  config.identity = keys;
  if (config.name == nullptr) config.name = "Desk";
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* data,
                   std::size_t size) {
    static_cast<host_rig*>(user)->sent.push_back({*to, peer::bytes(data, data + size)});
  };
  config.log = [](void* user, const char* text) {
    static_cast<host_rig*>(user)->lines.emplace_back(text);
  };
  host = lund_host_create(&config, &clients, password_blob);
}

int host_rig::receive(const peer::bytes& datagram, const lund_rv_endpoint& from) {
  out.assign(2048, 0);
  std::size_t size = 0;
  const int result = lund_host_receive(host, datagram.data(), datagram.size(), from, out.data(),
                                       out.size(), &size, &rx);
  out.resize(size);
  return result;
}

peer::bytes host_rig::answer(const peer::bytes& datagram, const lund_rv_endpoint& from) {
  sent.clear();
  receive(datagram, from);
  if (sent.size() != 1 || !lund_rv_endpoint_equal(sent[0].to, from)) return {};
  return sent[0].data;
}

void host_rig::wait_us(std::uint64_t us) {
  virtual_time::advance_us(us);
  lund_host_tick(host);
}

bool host_rig::handshake(engine_peer& client, const lund_rv_endpoint& from) {
  return client.hs_finish(answer(client.hs_init(), from));
}

bool host_rig::connect(engine_peer& client, const lund_rv_endpoint& from) {
  return handshake(client, from) &&
         receive(client.seal(peer::packet(LUND_PKT_PING, 0, peer::bytes(12))), from) ==
             LUND_RX_OPENED;
}

std::vector<lund_conn_event> host_rig::events() {
  std::vector<lund_conn_event> list;
  lund_conn_event event;
  while (lund_host_poll_event(host, &event) != 0) list.push_back(event);
  return list;
}

bool host_rig::logged(const std::string& part) const {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

lund_rv_endpoint host_rig::peer_of(std::uint32_t session_id) const {
  lund_session_info info;
  lund_host_session_info_get(host, session_id, &info);
  return info.peer;
}

int host_rig::slots(std::uint32_t state) const {
  return static_cast<int>(
      std::count_if(std::begin(host->slots), std::end(host->slots),
                    [&](const lund_crypto_slot& slot) { return slot.state == state; }));
}

int host_rig::links() const {
  return static_cast<int>(std::count_if(std::begin(host->links), std::end(host->links),
                                        [](const lund_host_link& link) { return link.used != 0; }));
}

lund_pairing_status host_rig::pairing() const {
  lund_pairing_status status;
  lund_host_pairing_status(host, &status);
  return status;
}
