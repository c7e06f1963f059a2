// rendezvous_load: the real rendezvous server with 10,000 hosts registered relays a stream, beside
// a loop that does nothing but recvfrom and sendto; what is compared is the processor time that
// each takes for a datagram. Exit status 1 when the server does less than 60 % of what the loop
// does.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/median.h"
#include "tests/support/rendezvous_sockets.h"

namespace {

using std::chrono::seconds;
using Bytes = LoopbackSocket::Bytes;

constexpr int HOSTS = 10'000;
constexpr int ROUNDS = 5;
constexpr int DATAGRAMS = 100'000;  // a round
constexpr int BURST = 128;          // what a key frame is
constexpr double LEAST_RATIO = 0.6;

// Sends on whatever comes, until it is told to stop by a datagram of one byte.
class BareLoop {
 public:
  BareLoop(const LoopbackSocket& socket, const lund_rv_endpoint& to)
      : thread_([this, fd = static_cast<int>(socket.handle()), to] { run(fd, to); }) {}
  ~BareLoop() { thread_.join(); }
  BareLoop(const BareLoop&) = delete;
  BareLoop& operator=(const BareLoop&) = delete;

  double processor_seconds() const {
    clockid_t clock;
    timespec time{};
    pthread_getcpuclockid(const_cast<std::thread&>(thread_).native_handle(), &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

 private:
  static void run(int fd, const lund_rv_endpoint& to) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    sockaddr_in target{};
    lund_addr_to_sockaddr(to, &target, sizeof target, false);
    std::uint8_t buffer[2048];
    while (true) {
      sockaddr_in from{};
      socklen_t from_size = sizeof from;
      const ssize_t size =
          recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &from_size);
      if (size == 1) return;
      if (size > 1)
        sendto(fd, buffer, static_cast<std::size_t>(size), 0,
               reinterpret_cast<const sockaddr*>(&target), sizeof target);
    }
  }

  std::thread thread_;
};

// From one socket by way of `through` to the other, a burst at a time, each received before the
// next. How many arrived.
int stream(const LoopbackSocket& from, const lund_rv_endpoint& through, const LoopbackSocket& to) {
  Bytes record(1200);
  record[0] = 0x50;
  record[1] = 2;
  int arrived = 0;
  for (int sent = 0; sent < DATAGRAMS; sent += BURST) {
    for (int i = 0; i < BURST; ++i) from.send(through, record);
    for (int i = 0; i < BURST; ++i) arrived += to.receive(seconds(1)).has_value();
  }
  return arrived;
}

int fail(const char* text) {
  std::fprintf(stderr, "rendezvous_load: %s\n", text);
  return 1;
}

}  // namespace

int main() {
  if (!LoopbackHosts::can_open(HOSTS)) return fail("ulimit -n is below 10,100");
  RendezvousProgram server({"--relay-kbps", "0"});
  LoopbackHosts hosts(HOSTS, server);
  if (hosts.register_all(seconds(60)) != HOSTS) return fail("not all hosts registered");
  LoopbackPeer client("127.9.9.9", server);
  LoopbackPeer& host = hosts.peer_of(HOSTS / 2);
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, hosts.key(HOSTS / 2));
  const auto found = client.look_up(id, sizeof id);
  const auto notice = host.receive(LUND_RV_PUNCH_NOTIFY, seconds(5));
  if (!found || !notice || !client.bind(*found, 1) || !host.bind(*notice, 0))
    return fail("the relay wasn't bound");

  const LoopbackSocket bare_socket("127.0.0.1"), bare_from("127.9.9.10"), bare_to("127.9.9.11");
  const BareLoop bare(bare_socket, bare_to.address());
  std::vector<double> server_us, bare_us;
  bool complete = true;
  for (int round = 0; round < ROUNDS; ++round) {
    double start = server.process().processor_seconds();
    const int relayed = stream(client.socket, server.address(), host.socket);
    server_us.push_back((server.process().processor_seconds() - start) * 1e6 / relayed);
    start = bare.processor_seconds();
    const int moved = stream(bare_from, bare_socket.address(), bare_to);
    bare_us.push_back((bare.processor_seconds() - start) * 1e6 / moved);
    complete = complete && relayed >= DATAGRAMS && moved >= DATAGRAMS;
  }
  bare_from.send(bare_socket.address(), {0});
  if (!complete) return fail("datagrams were lost");
  const double ratio = median(bare_us) / median(server_us);
  std::printf(
      "rendezvous_load: with %d hosts %.2f us a datagram (%.0f a second of processor time), "
      "bare loop %.2f us (%.0f): %.0f %%\n",
      HOSTS, median(server_us), 1e6 / median(server_us), median(bare_us), 1e6 / median(bare_us),
      ratio * 100);
  return ratio >= LEAST_RATIO ? 0 : fail("less than 60 % of the bare loop");
}
