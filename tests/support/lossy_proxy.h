// A bad network before a host on this computer: clients send to the proxy's port on loopback, it
// passes their datagrams on from a socket for each client's address, and the answers back. What it
// does to each way's datagrams is decided from the seed by their order alone, so the same sequence
// meets the same fate. Questions of LAN discovery end here: the answer would name the host's own
// port, and with it the way around the proxy.
//
// A thread of its own has the sockets from the constructor to the destructor, which waits for no
// datagram. Any thread may ask for the counts, which one lock guards.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "connection/netsock.h"
#include "tests/support/network_link.h"

class LossyProxy {
 public:
  // Of one way. What has come in is lost, or passed on, or still on its way.
  struct Counts {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t held_back = 0;
    std::uint64_t passed_on = 0;  // copies included
    std::uint64_t on_its_way = 0;

    std::string text() const;
    bool operator==(const Counts&) const = default;
  };

  // Fails the test when there is no socket to be had. Delays are whole milliseconds or a little
  // more.
  LossyProxy(const lund_rv_endpoint& host, const NetworkLink& to_host, const NetworkLink& to_client,
             std::uint64_t seed);
  ~LossyProxy();
  LossyProxy(const LossyProxy&) = delete;
  LossyProxy& operator=(const LossyProxy&) = delete;

  const lund_rv_endpoint& address() const { return address_; }  // what clients are to call the host
  Counts to_host() const;
  Counts to_client() const;

 private:
  struct Client {
    lund_rv_endpoint address;
    lund_socket socket;  // towards the host
  };
  struct InFlight {
    std::uint64_t at_us;
    std::uint64_t order;
    lund_socket socket;  // from which it goes on
    lund_rv_endpoint to;
    std::vector<std::uint8_t> bytes;
    Counts* counts;
    bool operator>(const InFlight& other) const {
      return at_us != other.at_us ? at_us > other.at_us : order > other.order;
    }
  };
  struct Way {
    Way(const NetworkLink& link_, std::uint64_t seed) : link(link_), random(seed) {}
    const NetworkLink link;
    SeededRandom random;
    NetworkQueue queue;
    Counts counts;  // the lock's
  };

  void run();
  void wait() const;
  void receive_from_clients();
  void receive_from_host(const Client& client);
  void take(Way& way, lund_socket socket, const lund_rv_endpoint& to, const std::uint8_t* bytes,
            std::size_t size);
  void send_what_is_due();
  const Client* client_at(const lund_rv_endpoint& address);  // null: there are too many

  const lund_rv_endpoint host_;
  lund_rv_endpoint address_;
  lund_socket socket_ = LUND_NO_SOCKET;
  std::vector<Client> clients_;
  std::priority_queue<InFlight, std::vector<InFlight>, std::greater<>> in_flight_;
  std::uint64_t order_ = 0;
  mutable std::mutex mutex_;
  bool leave_ = false;  // the lock's
  Way to_host_;
  Way to_client_;
  std::thread thread_;
};
