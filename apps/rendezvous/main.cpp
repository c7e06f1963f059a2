// lunderhaze-rendezvous: the server at which hosts register and clients find them, and which relays
// between two that can't reach each other. Runs until Ctrl+C.
#include <CLI/CLI.hpp>

#include <array>
#include <atomic>
#include <cstdio>

#include "apps/rendezvous/options.h"
#include "apps/rendezvous/serve.h"
#include "apps/rendezvous/server.h"
#include "apps/terminal/path_option.h"
#include "apps/terminal/requests.h"
#include "apps/terminal/utf8_console.h"
#include "apps/version.h"
#include "connection/clock.h"
#include "connection/netsock.h"
#include "control/sysinfo.h"
#include "control/text.h"

namespace {

// What the program returns; scripts rely on these.
enum ExitStatus : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_SOCKET = 2,
  EXIT_LOCAL = 3,
};

constexpr std::uint64_t TICK_US = 100'000;
constexpr int WAIT_MS = 100;

std::atomic<bool> stop_requested{false};
std::atomic<bool> statistics_requested{false};

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-rendezvous: %s\n", text.c_str());
  return status;
}

void tell(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

class Socket {
 public:
  // At all addresses, both families go through one socket where there is IPv6.
  explicit Socket(const lund_rv_endpoint& at) {
    if (at.family != 0) {
      socket_ = lund_udp_open(at.family, &at, at.port);
      return;
    }
    socket_ = lund_udp_open(6, nullptr, at.port);
    if (socket_ == LUND_NO_SOCKET) socket_ = lund_udp_open(4, nullptr, at.port);
  }
  ~Socket() { lund_udp_close(socket_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  lund_socket get() const { return socket_; }

 private:
  lund_socket socket_;
};

// This computer as others on its network reach it.
std::string own_host() {
  lund_rv_endpoint local;
  if (lund_net_local_endpoints(&local, 1, 0) != 1) return computer_name_utf8();
  const std::string text = addr_string(local);
  return text.substr(0, text.rfind(':'));
}

int serve(lund_socket socket, RendezvousServer& server) {
  std::uint64_t next_tick = 0;
  while (!stop_requested) {
    if (lund_now_us() >= next_tick) {
      server.tick();
      next_tick = lund_now_us() + TICK_US;
    }
    if (statistics_requested.exchange(false)) tell(statistics_text(server.statistics()));
    if (!receive_some(socket, server) && lund_udp_wait(&socket, 1, WAIT_MS) < 0)
      return fail(EXIT_SOCKET, "the socket failed");
  }
  return EXIT_OK;
}

void tell_link(const lund_relay_server& server) {
  std::array<char, 1024> link{};
  lund_relay_link_format(link.data(), link.size(), &server);
  tell(std::string("Relay link to hand out: ") + link.data() + "\n");
  lund_secure_wipe(link.data(), link.size());
}

int run(const RendezvousOptions& options) {
  RendezvousSetup setup;
  std::string error;
  if (!set_up(options, own_host(), &setup, &error)) return fail(EXIT_USAGE, error);
  if (lund_net_init() != 0) return fail(EXIT_LOCAL, "no network");
  const Socket socket(setup.listen);
  if (socket.get() == LUND_NO_SOCKET)
    return fail(EXIT_SOCKET, "cannot listen on UDP port " + std::to_string(setup.listen.port) +
                                 (options.bind.empty() ? "" : " of " + options.bind) +
                                 ": it is in use, or not permitted");
  const std::uint16_t port = lund_udp_local_port(socket.get());
  if (!setup.from_link) setup.server.port = port;

  RendezvousServer server(setup.server.key, setup.server.key_size, options.limits,
                          send_by(socket.get()));
  if (!server.ready()) return fail(EXIT_LOCAL, "the system's random source failed");
  watch_requests({[] { stop_requested = true; }, [] { statistics_requested = true; }});
  if (!options.hide_link) tell_link(setup.server);
  tell("Listening on UDP port " + std::to_string(port) + ". Ctrl+C stops.\n");
  const int status = serve(socket.get(), server);
  tell(statistics_text(server.statistics()));
  return status;
}

int run_program(int argc, char** argv) {
  RendezvousOptions options;
  RendezvousLimits& limits = options.limits;
  std::uint64_t relay_kbps = limits.relay_bytes_per_second * 8 / 1000;
  CLI::App app{
      "Lets Lunderhaze clients find hosts from anywhere, and relays between them.\n"
      "Whoever has the relay link that it prints may use it."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  app.add_option("--port", options.port,
                 "UDP port to listen on; 0: any. Otherwise 9877, or the "
                 "link's");
  app.add_option("--bind", options.bind,
                 "Local address to listen on and answer from, where there are several");
  auto* key = app.add_option("--key", options.key,
                             "The shared key as in a link. Other users of this computer can see it "
                             "on the command line: prefer --key-file");
  auto* key_file = add_path_option(app, "--key-file", options.key_file,
                                   "File whose first line is the key, or a whole link; without any "
                                   "key a random one is made");
  auto* link = app.add_option("--link", options.link,
                              "Host, port and key by a relay link; seen by "
                              "other users as --key is");
  key->excludes(key_file)->excludes(link);
  key_file->excludes(link);
  app.add_option("--host", options.host,
                 "Name or address of this server in the link; otherwise "
                 "its first local address");
  app.add_flag("--hide-link", options.hide_link,
               "Don't print the relay link, which holds the key; for output that goes into a log");
  app.add_option("--max-hosts", limits.hosts, "Hosts registered at a time")
      ->check(CLI::Range(1, 10'000'000))
      ->capture_default_str();
  app.add_option("--max-allocations", limits.allocations, "Pairs of host and client at a time")
      ->check(CLI::Range(1, 10'000'000))
      ->capture_default_str();
  app.add_option("--rate", limits.requests_per_second, "Requests a second from one address")
      ->check(CLI::Range(1, 1'000'000))
      ->capture_default_str();
  app.add_option("--relay-kbps", relay_kbps,
                 "Relayed for one pair of host and client, each way, kbit/s; 0: no limit")
      ->check(CLI::Range(0, 100'000'000))
      ->capture_default_str();
  app.footer(
      std::string("Statistics are printed on ") + REPORT_REQUEST +
      " and at the end.\n"
      "Exit status: 0 stopped, 1 wrong arguments or key, 2 no socket, 3 another failure here.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
  }
  limits.relay_bytes_per_second = relay_kbps * 1000 / 8;
  return run(options);
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {
    return fail(EXIT_LOCAL, error.what());
  }
}
