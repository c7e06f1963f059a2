// A host and a client far from each other, in a lab: the host's site, the client's site or none,
// and a server on the internet by which they find each other. The client also has a cable to the
// host's LAN ("home"), by which it pairs, and which is down otherwise.
#pragma once

#include <chrono>
#include <optional>

#include "tests/support/linux/net_lab.h"
#include "tests/system/system_support.h"

namespace system_test {

// From its making.
class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
  }

 private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

class ReachTest : public SystemTest {
 protected:
  // The routers' public addresses are in one network, the servers' in the other, so that no port
  // that a symmetric router drew for a server is, by luck, the right one for a peer.
  static constexpr char HOST_PUBLIC[] = "198.51.100.1";
  static constexpr char HOST_LAN[] = "192.168.1.10";
  static constexpr char CLIENT_PUBLIC[] = "198.51.100.2";
  static constexpr char CLIENT_LAN[] = "192.168.2.20";
  static constexpr char CLIENT_AT_HOME[] = "192.168.1.20";
  static constexpr char SERVER[] = "203.0.113.10";

  void SetUp() override;
  void TearDown() override;

  // Who is where; a client without a router has a public address of its own.
  void build(Nat host, std::optional<Nat> client);

  void take_places();  // the programs' places are the nodes "host" and "client"

  // `name` is what links call it by. Its statistics are what it prints at the end.
  void start_server(const std::string& name = SERVER,
                    const std::vector<std::string>& arguments = {});
  void kill_server();
  std::string stop_server();

  // A small desktop with something moving on it, and a host there that has the server's link.
  void launch_host(const std::vector<std::string>& more = {});
  // The same; it has registered when this returns.
  void start_registered_host(const std::vector<std::string>& more = {});
  std::string link() const { return "lunderhaze-relay://" + server_name_ + "#" + KEY; }

  void pair_at_home();
  void plug_in_at_home();  // the client, while it is away: now there is a path over the LAN
  void leave_home();

  // The client streams by key code and server until it is told to stop. It has a path when this
  // returns, and perhaps not yet the best one.
  void connect(const std::string& path = "all", const std::vector<std::string>& more = {});
  // Waits for a line "path: CLASS ..." at or behind this place of its output.
  void await_path(const std::string& path_class, std::size_t from = 0);
  // Waits for this many more lines of measurement, one of which comes each second of stream.
  void await_lines(int lines);
  std::size_t said() const { return receiver_->output().size(); }
  // When the client logged the last line with this text, in seconds of its day; fails without one.
  double logged_at(const std::string& text) const;
  nlohmann::json end_stream();  // its report

  std::string host_status();
  std::string key_code() const;
  // For pairing and connecting, what it is called by from afar.
  std::string host_address() const override { return key_code(); }

  static constexpr char KEY[] = "a-key-for-the-lab";
  std::optional<NetLab> lab_;
  std::unique_ptr<ChildProcess> screen_;
  std::unique_ptr<ChildProcess> server_;
  std::string server_name_ = SERVER;
};

}  // namespace system_test
