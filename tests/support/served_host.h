// A host engine with two rendezvous servers played by hand, on the virtual clock. Both have an
// address from the start. The host knows client 2 and announces two LAN addresses.
#pragma once

#include <vector>

#include "tests/support/host_rig.h"
#include "tests/support/server_peer.h"
#include "tests/support/virtual_time.h"

class served_host {
 public:
  served_host() : rig(clients(), nullptr, config()) {}  // the clock begins anew

  // What the host has said to a server since the last call for any, with the server's tag.
  std::vector<lund_rv_message> take(const server_peer& server) {
    std::vector<lund_rv_message> list;
    for (const sent_datagram& sent : rig.sent)
      if (const auto message = server.read(sent.data);
          message && lund_rv_endpoint_equal(sent.to, server.address))
        list.push_back(*message);
    rig.sent.clear();
    return list;
  }
  // The same of what goes to peers, untagged.
  struct to_peer {
    lund_rv_endpoint to;
    lund_rv_message message;
  };
  std::vector<to_peer> take_punches() {
    std::vector<to_peer> list;
    for (const sent_datagram& sent : rig.sent) {
      to_peer one{sent.to, {}};
      if (lund_rv_decode(sent.data.data(), sent.data.size(), nullptr, &one.message) == LUND_OK)
        list.push_back(one);
    }
    rig.sent.clear();
    return list;
  }

  void hear(const server_peer& server, const peer::bytes& datagram) {
    rig.receive(datagram, server.address);
  }
  void register_with(const server_peer& server, std::uint16_t lease_seconds = 0) {
    hear(server, server.challenge());
    hear(server, server.registered(PUBLIC, lease_seconds));
    forget();
  }
  void forget() {
    rig.sent.clear();
    rig.lines.clear();
    rig.events();
  }
  lund_server_status status(int index) const {
    lund_server_status status;
    lund_host_server_status(rig.host, index, &status);
    return status;
  }
  // Ticks every `step_us`, as a connection thread does; after each, `seen(elapsed)`.
  template <class Seen>
  void run_us(std::uint64_t us, std::uint64_t step_us, Seen seen) {
    for (std::uint64_t elapsed = step_us; elapsed <= us; elapsed += step_us) {
      rig.wait_us(step_us);
      seen(elapsed);
    }
  }

  static inline const lund_rv_endpoint PUBLIC = peer::at("203.0.113.50:9876");

  server_peer a{"a.example", "198.51.100.1:9877", 0xA1};
  server_peer b{"b.example", "198.51.100.2:9877", 0xB2};
  host_rig rig;

 private:
  static lund_client_list clients() {
    virtual_time::reset();
    return clients_of({2});
  }
  lund_host_config config() const {
    lund_host_config config;
    config.relays = peer::relays_of({a, b});
    config.lan_count = 2;
    config.lan_endpoints[0] = peer::at("192.168.1.5:9876");
    config.lan_endpoints[1] = peer::at("10.0.0.5:9876");
    return config;
  }
};

// An engine with the same servers whose wire only counts: for tests of what it allocates.
class counted_host {
 public:
  explicit counted_host(const lund_relay_config& relays) {
    lund_host_config config;
    config.identity = peer::keypair_of(HOST_SEED);
    config.relays = relays;
    config.user = this;
    config.send = [](void* user, const lund_rv_endpoint*, const std::uint8_t*, std::size_t) {
      ++static_cast<counted_host*>(user)->sent;
    };
    config.log = [](void*, const char*) {};
    host = lund_host_create(&config, nullptr, nullptr);
  }
  ~counted_host() { lund_host_destroy(host); }
  counted_host(const counted_host&) = delete;
  counted_host& operator=(const counted_host&) = delete;

  void receive(const peer::bytes& datagram, const lund_rv_endpoint& from) {
    lund_host_receive(host, datagram.data(), datagram.size(), from, nullptr, 0, nullptr, nullptr);
  }

  lund_host* host = nullptr;
  int sent = 0;
};
