// The rendezvous server with 10,000 hosts registered: look-ups and relaying of the core alone, and
// relaying through real sockets beside a loop that does nothing but receive and send.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "apps/rendezvous/serve.h"
#include "apps/rendezvous/server.h"
#include "connection/byte_order.h"
#include "connection/clock.h"
#include "connection/protocol.h"
#include "connection/secure.h"

namespace {

constexpr std::uint32_t HOSTS = 10'000;
constexpr std::size_t RECORD_BYTES = 1200;  // a sealed record off the LAN
constexpr std::uint8_t KEY[] = {'k', 'e', 'y'};

lund_rv_endpoint address_of(std::uint32_t number, std::uint16_t port) {
  lund_rv_endpoint out;
  out.family = 4;
  out.port = port;
  store_le(out.address.data(), 0x0000000A | number << 8);  // 10.x.y.z
  return out;
}

RendezvousLimits unlimited() {
  RendezvousLimits limits;
  limits.requests_per_second = limits.proofs_per_second = 1'000'000'000;
  limits.relay_bytes_per_second = 0;
  return limits;
}

// A server whose answers the benchmark reads, so as to register hosts and bind a relay in it.
struct FullServer {
  FullServer(const RendezvousServer::Send& forward = nullptr)
      : server(KEY, sizeof KEY, unlimited(),
               [this, forward](const lund_rv_endpoint& to, const std::uint8_t* bytes,
                               std::size_t size) {
                 if (relaying && forward) return forward(to, bytes, size);
                 if (relaying) return true;
                 lund_rv_message answer;
                 if (lund_rv_decode(bytes, size, net_key, &answer) == LUND_OK)
                   (answer.type == LUND_RV_PUNCH_NOTIFY ? notice : last) = answer;
                 return true;
               }) {
    lund_rv_net_key(net_key, KEY, sizeof KEY);
    for (std::uint32_t i = 0; i < HOSTS; ++i) register_host(i, address_of(i, 9876));
  }

  std::vector<std::uint8_t> encode(const lund_rv_message& message) const {
    std::vector<std::uint8_t> out(LUND_RV_MESSAGE_MAX);
    out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
    return out;
  }
  void receive(const lund_rv_message& message, const lund_rv_endpoint& from) {
    const std::vector<std::uint8_t> bytes = encode(message);
    server.receive(bytes.data(), bytes.size(), from);
  }

  static lund_keypair keys_of(std::uint32_t number) {
    std::uint8_t secret[LUND_KEY_SIZE] = {};
    store_le(secret + 1, number + 1);
    lund_keypair keys;
    lund_keypair_from_secret(&keys, secret);
    return keys;
  }
  void register_host(std::uint32_t number, const lund_rv_endpoint& from) {
    const lund_keypair keys = keys_of(number);
    lund_rv_message message;
    message.type = LUND_RV_REGISTER;
    std::memcpy(message.key, keys.public_key, sizeof message.key);
    receive(message, from);
    std::memcpy(message.token, last.token, sizeof message.token);
    lund_rv_register_proof(message.proof, keys.secret, last.key, message.token, keys.public_key,
                           nullptr, 0);
    receive(message, from);
  }
  lund_rv_message look_up_of(std::uint32_t number) const {
    lund_rv_message message;
    message.type = LUND_RV_LOOKUP;
    message.target_size = 16;
    lund_key_id(message.target, keys_of(number).public_key);
    return message;
  }
  // Between the host of that number, at that address, and a client.
  void bind_relay(std::uint32_t number, const lund_rv_endpoint& host,
                  const lund_rv_endpoint& client) {
    register_host(number, host);
    receive(look_up_of(number), client);
    bind(last, 1, client);
    bind(notice, 0, host);
    relaying = true;
  }
  void bind(const lund_rv_message& told, std::uint8_t side, const lund_rv_endpoint& from) {
    lund_rv_message message;
    message.type = LUND_RV_BIND;
    message.allocation = told.allocation;
    std::memcpy(message.token, told.token, sizeof message.token);
    message.side = side;
    receive(message, from);
  }

  std::uint8_t net_key[LUND_KEY_SIZE];
  bool relaying = false;
  lund_rv_message last, notice;
  RendezvousServer server;
};

std::vector<std::uint8_t> record() {
  std::vector<std::uint8_t> out(RECORD_BYTES);
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_SEALED;
  return out;
}

// Each from another client, for another host: the answer, and at times the notification.
void LookUp(benchmark::State& state) {
  FullServer full;
  std::vector<std::vector<std::uint8_t>> look_ups;
  for (std::uint32_t i = 0; i < HOSTS; i += 10) look_ups.push_back(full.encode(full.look_up_of(i)));
  full.relaying = true;  // nothing is read any more
  std::uint32_t i = 0;
  for (auto _ : state) {
    const auto& bytes = look_ups[i % look_ups.size()];
    full.server.receive(bytes.data(), bytes.size(), address_of(65536 + i++ % 1'000'000, 5000));
  }
  if (full.server.statistics().found != static_cast<std::uint64_t>(state.iterations()))
    state.SkipWithError(statistics_text(full.server.statistics()).c_str());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LookUp);

// What stands between a flood and everything else.
void LookUpUnderAWrongKey(benchmark::State& state) {
  FullServer full;
  std::vector<std::uint8_t> bytes = full.encode(full.look_up_of(1));
  bytes.back() ^= 1;
  for (auto _ : state) full.server.receive(bytes.data(), bytes.size(), address_of(1, 5000));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LookUpUnderAWrongKey);

void Refresh(benchmark::State& state) {
  FullServer full;
  full.register_host(1, address_of(1, 9876));
  const lund_keypair keys = FullServer::keys_of(1);
  lund_rv_message message;
  message.type = LUND_RV_REGISTER;
  std::memcpy(message.key, keys.public_key, sizeof message.key);
  full.receive(message, address_of(1, 9876));
  std::memcpy(message.token, full.last.token, sizeof message.token);
  lund_rv_register_proof(message.proof, keys.secret, full.last.key, message.token, keys.public_key,
                         nullptr, 0);
  const std::vector<std::uint8_t> bytes = full.encode(message);
  for (auto _ : state) full.server.receive(bytes.data(), bytes.size(), address_of(1, 9876));
  if (full.server.statistics().refreshes < static_cast<std::uint64_t>(state.iterations()))
    state.SkipWithError("not refreshed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Refresh);

void Forward(benchmark::State& state) {
  FullServer full;
  const lund_rv_endpoint client = address_of(1, 5000);
  full.bind_relay(HOSTS / 2, address_of(HOSTS / 2, 9876), client);
  const std::vector<std::uint8_t> bytes = record();
  for (auto _ : state) full.server.receive(bytes.data(), bytes.size(), client);
  if (full.server.statistics().relayed != static_cast<std::uint64_t>(state.iterations()))
    state.SkipWithError("not relayed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Forward);

class Socket {
 public:
  explicit Socket(const char* address) {
    lund_addr_parse(&endpoint, address, 0);
    handle = lund_udp_open(4, &endpoint, 0);
    endpoint.port = lund_udp_local_port(handle);
  }
  ~Socket() { lund_udp_close(handle); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void send(const lund_rv_endpoint& to, const std::vector<std::uint8_t>& bytes) const {
    lund_udp_send(handle, to, bytes.data(), bytes.size());
  }
  int drain() const {
    std::uint8_t buffer[2048];
    lund_rv_endpoint from;
    int received = 0;
    while (lund_udp_recv(handle, buffer, sizeof buffer, &from) >= 0) ++received;
    return received;
  }

  lund_rv_endpoint endpoint;
  lund_socket handle;
};

// What there is to receive and send, and no more. How many datagrams there were.
int bare_forward(lund_socket socket, const lund_rv_endpoint& to) {
  const int fd = static_cast<int>(socket);
  sockaddr_in target{};
  lund_addr_to_sockaddr(to, &target, sizeof target, false);
  std::uint8_t buffer[2048];
  for (int moved = 0;; ++moved) {
    sockaddr_in from{};
    socklen_t from_size = sizeof from;
    const ssize_t size = recvfrom(fd, buffer, sizeof buffer, MSG_TRUNC,
                                  reinterpret_cast<sockaddr*>(&from), &from_size);
    if (size < 0) return moved;
    sendto(fd, buffer, static_cast<std::size_t>(size), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&target), sizeof target);
  }
}

// Batches of datagrams wait in the socket; timed is what takes them out and sends them on, first by
// the server, then by the bare loop, in turn. Loopback delivers within the send, so the kernel's
// work is the same in both.
void ForwardOverSocketsBesideABareLoop(benchmark::State& state) {
  constexpr int BATCH = 256;  // 300 KB, far less than the socket's buffer
  Socket socket("127.0.0.1"), client("127.0.0.2"), host("127.0.0.3");
  FullServer full(send_by(socket.handle));
  full.bind_relay(HOSTS / 2, host.endpoint, client.endpoint);
  const std::vector<std::uint8_t> bytes = record();
  double server_s = 0, bare_s = 0;
  for (auto _ : state) {
    for (int i = 0; i < BATCH; ++i) client.send(socket.endpoint, bytes);
    std::uint64_t start = lund_now_ns();
    while (receive_some(socket.handle, full.server)) {
    }
    const std::uint64_t server_ns = lund_now_ns() - start;
    if (host.drain() != BATCH) return state.SkipWithError("not relayed");

    for (int i = 0; i < BATCH; ++i) client.send(socket.endpoint, bytes);
    start = lund_now_ns();
    const int moved = bare_forward(socket.handle, host.endpoint);
    bare_s += static_cast<double>(lund_now_ns() - start) * 1e-9;
    if (moved != BATCH || host.drain() != BATCH) return state.SkipWithError("not sent on");
    server_s += static_cast<double>(server_ns) * 1e-9;
    state.SetIterationTime(static_cast<double>(server_ns) * 1e-9);
  }
  const double datagrams = static_cast<double>(state.iterations()) * BATCH;
  state.counters["server_per_s"] = datagrams / server_s;
  state.counters["bare_per_s"] = datagrams / bare_s;
  state.counters["ratio"] = bare_s / server_s;
}
BENCHMARK(ForwardOverSocketsBesideABareLoop)->UseManualTime();

}  // namespace
