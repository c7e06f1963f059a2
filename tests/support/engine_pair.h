// A real host engine and a real client engine on a simulated network, with everything that the
// tests of both look at: events, log lines, delivered packets, what went over the wire.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "connection/conn_client.h"
#include "connection/conn_host.h"
#include "tests/support/netsim.h"

lund_rv_endpoint endpoint(const char* text);  // "192.168.1.10:9876"

// The text of a stored password that is quick to derive: 8 KiB, one pass.
std::string quick_password_blob(const char* password);

class EnginePair {
 public:
  struct Options {
    std::uint64_t seed = 1;
    bool paired = true;         // the host lists the client, and the client knows the host's key
    std::string password_blob;  // the host's; empty for none
    NetSim::Link lan{.delay_us = 1'000, .jitter_us = 200};
    NetSim::Link wan{.delay_us = 15'000, .jitter_us = 2'000};
    NetSim::Link relay{.delay_us = 40'000, .jitter_us = 2'000};
    std::function<void(lund_client_config&)> client = [](lund_client_config&) {};
    std::function<void(lund_host_config&)> host = [](lund_host_config&) {};
  };

  struct Packet {
    std::uint8_t type;
    std::uint32_t session_id;  // as the header has it
    lund_rx_info info;
    NetSim::Bytes bytes;
  };

  // Where the two see each other on each network.
  static inline const lund_rv_endpoint HOST_LAN = endpoint("192.168.1.10:9876");
  static inline const lund_rv_endpoint HOST_WAN = endpoint("198.51.100.7:9876");
  static inline const lund_rv_endpoint HOST_RELAY = endpoint("203.0.113.99:9877");
  static inline const lund_rv_endpoint CLIENT_LAN = endpoint("192.168.1.20:50000");
  static inline const lund_rv_endpoint CLIENT_WAN = endpoint("203.0.113.20:50000");
  static inline const lund_rv_endpoint CLIENT_RELAY = endpoint("203.0.113.99:9878");

  EnginePair() : EnginePair(Options{}) {}
  explicit EnginePair(const Options& options);  // resets the virtual clock
  ~EnginePair();
  EnginePair(const EnginePair&) = delete;
  EnginePair& operator=(const EnginePair&) = delete;

  void add_lan() { lund_client_add_candidate(client, &HOST_LAN, LUND_PATH_NONE); }
  void add_wan() { lund_client_add_candidate(client, &HOST_WAN, LUND_PATH_NONE); }
  void add_relay();  // as a server's allocation gives it
  // Starts to connect and runs until the session is up; false if that takes over `limit_ms`.
  bool connect(std::uint64_t limit_ms = 5'000);
  bool pair(const char* secret, std::uint32_t kind = 0, std::uint64_t limit_ms = 40'000);
  void restart_host();  // forgets all but its identity, its devices and its password

  bool up();
  lund_client_status status();
  std::string pin();
  std::vector<lund_conn_event> client_events(std::uint32_t type);
  std::vector<lund_conn_event> host_events(std::uint32_t type);
  bool client_logged(const std::string& part) const;

  // A packet of the application, sealed and sent.
  bool client_sends(const NetSim::Bytes& plain, std::uint32_t session_id);
  bool host_sends(const NetSim::Bytes& plain, std::uint32_t session_id);
  // One small packet of the application with a number in it, sealed and sent.
  bool client_says(std::uint32_t number, std::uint32_t session_id = 0);
  bool host_says(std::uint32_t number, std::uint32_t session_id);
  // Both sides talk from now on, each every `interval_us`; the numbers said are counted.
  void start_traffic(std::uint64_t interval_us);
  void stop_traffic() { talking_ = false; }
  std::uint32_t said_by_client = 0, said_by_host = 0;

  NetSim net;
  int lan, wan, relay;
  lund_keypair host_keypair, client_keypair;
  lund_host* host = nullptr;
  lund_client* client = nullptr;
  std::vector<Packet> client_packets, host_packets;  // delivered to the applications
  std::vector<std::string> client_log, host_log;

 private:
  void create_host(const lund_client_list& clients);
  void take_events();

  Options options_;
  int host_node_, client_node_;
  bool talking_ = false;
  std::vector<lund_conn_event> client_events_, host_events_;
};
