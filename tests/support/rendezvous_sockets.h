// Hosts and clients that speak to a real rendezvous server over loopback, from addresses in
// 127.0.0.0/8; and the server's program itself. What is lost is sent again, as engines do.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection/lists.h"
#include "connection/rendezvous.h"
#include "connection/secure.h"
#include "tests/support/child_process.h"
#include "tests/support/loopback_socket.h"
#include "tests/support/temp_directory.h"

// The program on a port of its own, with a key of the test's.
class RendezvousProgram {
 public:
  static constexpr char KEY[] = "0123456789abcdef";
  static const int REPORT_SIGNAL;

  // Waits until it listens; the test goes on without a port when it doesn't.
  explicit RendezvousProgram(const std::vector<std::string>& arguments = {});

  ChildProcess& process() { return *process_; }
  lund_rv_endpoint address() const;  // by loopback
  const std::uint8_t* net_key() const { return net_key_; }
  // What it prints when it is asked to report, since the last call.
  std::string statistics();

 private:
  TempDirectory directory_;
  std::unique_ptr<ChildProcess> process_;
  std::uint16_t port_ = 0;
  std::uint8_t net_key_[LUND_KEY_SIZE];
};

// One party before the server.
class LoopbackPeer {
 public:
  LoopbackPeer(const std::string& address, const RendezvousProgram& server);

  void send(const lund_rv_message& message) const;
  // The next message of this type; others are thrown away.
  std::optional<lund_rv_message> receive(std::uint8_t type, std::chrono::milliseconds deadline);
  // Sends it each 300 ms until a message of this type comes, or an error.
  std::optional<lund_rv_message> ask(const lund_rv_message& message, std::uint8_t type,
                                     std::chrono::milliseconds deadline = std::chrono::seconds(10));
  bool bind(const lund_rv_message& told, std::uint8_t side);
  std::optional<lund_rv_message> look_up(const std::uint8_t* target, std::size_t size);

  LoopbackSocket socket;

 private:
  const lund_rv_endpoint server_;
  std::uint8_t net_key_[LUND_KEY_SIZE];
};

// Many hosts, each with a socket of its own.
class LoopbackHosts {
 public:
  // Raises this process' limit of open files, if there is one, as far as it is needed; false when
  // it can't be.
  static bool can_open(int count);

  // All with this address; without one each has its own.
  LoopbackHosts(int count, const RendezvousProgram& server, const std::string& address = {});
  ~LoopbackHosts();

  // Registers them all, or refreshes; how many the server has confirmed by the deadline.
  int register_all(std::chrono::seconds deadline);

  LoopbackPeer& peer_of(int host);
  const std::uint8_t* key(int host) const;

 private:
  struct Host;
  // Some hosts together, until all are confirmed.
  void register_some(std::size_t begin, std::size_t end,
                     std::chrono::steady_clock::time_point deadline);

  std::vector<Host> hosts_;
};
