// The client engine on a UDP socket, driven by one thread: datagrams in, events and opened packets
// out. Keeps the names of its relay servers resolved (a thread of the resolver's), and looks for
// the host on the LAN from the engine's own socket while no session is on a LAN path. Loses
// datagrams on purpose when asked to, before the engine sees them.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "apps/client/lan_search.h"
#include "connection/conn_client.h"
#include "connection/resolver.h"

class HostLink {
 public:
  using PacketHandler = std::function<void(const std::uint8_t* packet, std::size_t size)>;
  using EventHandler = std::function<void(const lund_conn_event&)>;

  HostLink() = default;
  ~HostLink();
  HostLink(const HostLink&) = delete;
  HostLink& operator=(const HostLink&) = delete;

  // Fills in the callbacks and the own LAN addresses of `wanted`, and opens the socket. False with
  // `error`.
  bool open(const lund_client_config& wanted, std::string* error);

  void look_for(LanWanted wanted) { lan_search_ = LanSearch(std::move(wanted), lund_now_us()); }
  const LanSearch& lan_search() const { return lan_search_; }

  // Datagrams received from now on are lost with this probability, by a seeded generator.
  void set_drop(double percent, std::uint32_t seed);

  // Receives and ticks until `deadline_us` or until `stop` answers true; `stop` is asked after
  // every batch of datagrams and at least every 50 ms.
  void run(std::uint64_t deadline_us, const PacketHandler& packet, const EventHandler& event,
           const std::function<bool()>& stop);

  // Seals and sends a plain packet on the first session that is up.
  bool send(const std::uint8_t* plain, std::size_t size);

  lund_client* engine() { return engine_; }
  std::uint64_t dropped_on_purpose() const { return dropped_; }

 private:
  void receive_all(const PacketHandler& packet);
  void drain_events(const EventHandler& event);
  void search_lan();

  lund_client* engine_ = nullptr;
  lund_resolver* resolver_ = nullptr;
  lund_socket socket_ = LUND_NO_SOCKET;
  LanSearch lan_search_;
  double drop_percent_ = 0;
  std::mt19937 random_;
  std::uint64_t dropped_ = 0;
};
