// The client engine on a UDP socket, driven by one thread: datagrams in, events and opened packets
// out. Any thread may send. Keeps the names of its relay servers resolved (a thread of the
// resolver's), and looks for the host on the LAN from the engine's own socket while no session is
// on a LAN path. Loses datagrams on purpose when asked to, before the engine sees them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "apps/client/lan_search.h"
#include "apps/client/packet_order.h"
#include "connection/conn_client.h"
#include "connection/resolver.h"

class HostLink {
 public:
  // A plain packet, its session's id in the header.
  using PacketHandler =
      std::function<void(const std::uint8_t* packet, std::size_t size, const PacketOrder& order)>;
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
  // every batch of datagrams and at least every 50 ms, or sooner if it has called ask_within.
  void run(std::uint64_t deadline_us, const PacketHandler& packet, const EventHandler& event,
           const std::function<bool()>& stop);

  // From within `stop`: to be asked again after this time at the latest.
  void ask_within(std::uint64_t us) { ask_within_us_ = std::min(us, ASK_PERIOD_US); }

  // Seals and sends a plain packet on a session; 0: the first that is up. Any thread.
  bool send(std::uint32_t session, const std::uint8_t* plain, std::size_t size);

  lund_client* engine() { return engine_; }
  std::uint64_t dropped_on_purpose() const { return dropped_; }

 private:
  static constexpr std::uint64_t ASK_PERIOD_US = 50'000;
  void receive_all(const PacketHandler& packet);
  void drain_events(const EventHandler& event);
  void search_lan();

  lund_client* engine_ = nullptr;
  lund_resolver* resolver_ = nullptr;
  lund_socket socket_ = LUND_NO_SOCKET;
  LanSearch lan_search_;
  std::uint64_t ask_within_us_ = ASK_PERIOD_US;
  double drop_percent_ = 0;
  std::mt19937 random_;
  std::uint64_t dropped_ = 0;
};
