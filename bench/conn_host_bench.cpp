// The host engine's paths that a stranger or a stream can load: admission, a replayed first
// message, and a sealed record through the dispatcher beside the bare opening of the same record;
// and the tick of a full host beside an empty one's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "connection/conn_host.h"
#include "connection/conn_host_internal.h"
#include "connection/protocol.h"

namespace {

const lund_rv_endpoint CLIENT_ADDRESS = [] {
  lund_rv_endpoint address;
  lund_addr_parse(&address, "192.168.1.20:5000", 0);
  return address;
}();

lund_relay_config servers(int count) {
  lund_relay_config relays;
  relays.count = count;
  for (int i = 0; i < count; ++i) {
    lund_relay_server& relay = relays.servers[i];
    std::snprintf(relay.host, sizeof relay.host, "198.51.100.%d", i + 1);
    relay.key_size = 16;
    std::memset(relay.key, i, relay.key_size);
  }
  return relays;
}

struct bench_host {
  explicit bench_host(const lund_relay_config& relays = {}) {
    lund_keypair_generate(&host_keys);
    lund_keypair_generate(&client_keys);
    lund_client_list clients;
    lund_client_list_add(&clients, client_keys.public_key, "bench");
    lund_host_config config;
    config.identity = host_keys;
    config.relays = relays;
    config.user = this;
    config.send = [](void* user, const lund_rv_endpoint*, const std::uint8_t* bytes,
                     std::size_t size) {
      auto* self = static_cast<bench_host*>(user);
      std::memcpy(self->answer, bytes, size);
      self->answer_size = size;
    };
    host = lund_host_create(&config, &clients, nullptr);
  }
  ~bench_host() { lund_host_destroy(host); }
  bench_host(const bench_host&) = delete;
  bench_host& operator=(const bench_host&) = delete;

  int receive(const std::uint8_t* datagram, std::size_t size) {
    return lund_host_receive(host, datagram, size, CLIENT_ADDRESS, out, sizeof out, nullptr,
                             nullptr);
  }
  void start(std::uint8_t init[LUND_HS_INIT_SIZE]) {
    std::size_t size = 0;
    lund_hs_client_start(&noise, &client_keys, host_keys.public_key, conn_hs_timestamp(), init,
                         LUND_HS_INIT_SIZE, &size);
  }
  void connect() {
    std::uint8_t init[LUND_HS_INIT_SIZE];
    start(init);
    receive(init, sizeof init);
    lund_hs_client_finish(&noise, answer, answer_size, &session);
  }
  // From the handshake to a first packet, which makes a session of it.
  void open_session() {
    connect();
    std::uint8_t plain[LUND_HEADER_SIZE];
    const lund_packet_header header{LUND_PKT_PING, 0, 0};
    lund_encode_header(plain, sizeof plain, &header);
    std::uint8_t sealed[sizeof plain + LUND_SEAL_OVERHEAD];
    lund_seal(&session, plain, sizeof plain, sealed, sizeof sealed);
    receive(sealed, sizeof sealed);
  }
  // A server says that the host is registered, for as long as it can.
  void register_with(int server) {
    lund_rv_message message;
    message.type = LUND_RV_REGISTERED;
    message.observed = CLIENT_ADDRESS;
    message.lease_seconds = UINT16_MAX;
    std::uint8_t datagram[LUND_RV_MESSAGE_MAX];
    const lund_conn_server& from = host->base.servers[server];
    lund_host_receive(host, datagram,
                      lund_rv_encode(datagram, sizeof datagram, from.net_key, &message),
                      from.endpoint, nullptr, 0, nullptr, nullptr);
  }

  lund_keypair host_keys;
  lund_keypair client_keys;
  lund_noise_ik noise;
  lund_session session;
  lund_host* host = nullptr;
  std::uint8_t out[2048];
  std::uint8_t answer[256];
  std::size_t answer_size = 0;
};

// Records sealed ahead of the measuring, each opened once.
std::vector<std::vector<std::uint8_t>> seal_records(lund_session& session, std::size_t size,
                                                    std::size_t count) {
  std::vector<std::uint8_t> plain(size);
  const lund_packet_header header{LUND_PKT_AUDIO, 0, 0};
  lund_encode_header(plain.data(), plain.size(), &header);
  std::vector<std::vector<std::uint8_t>> records(count);
  for (auto& record : records) {
    record.resize(size + LUND_SEAL_OVERHEAD);
    lund_seal(&session, plain.data(), size, record.data(), record.size());
  }
  return records;
}

constexpr std::size_t BATCH = 1024;

void HandshakeAdmitted(benchmark::State& state) {
  bench_host bench;
  std::uint8_t init[LUND_HS_INIT_SIZE];
  for (auto _ : state) {
    state.PauseTiming();
    bench.start(init);
    bench.host->hs_limit = {};  // the cost behind the limit is wanted
    bench.answer_size = 0;
    state.ResumeTiming();
    bench.receive(init, sizeof init);
    if (bench.answer_size != LUND_HS_RESP_SIZE) state.SkipWithError("not admitted");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(HandshakeAdmitted);

void HandshakeReplayed(benchmark::State& state) {
  bench_host bench;
  std::uint8_t init[LUND_HS_INIT_SIZE];
  bench.start(init);
  bench.receive(init, sizeof init);
  for (auto _ : state) bench.receive(init, sizeof init);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(HandshakeReplayed);

void HandshakeOverTheLimit(benchmark::State& state) {
  bench_host bench;
  std::uint8_t junk[LUND_HS_INIT_SIZE] = {LUND_MAGIC, LUND_VERSION_PLAIN, LUND_PKT_HS_INIT};
  for (int i = 0; i < 100; ++i) bench.receive(junk, sizeof junk);
  for (auto _ : state) {
    bench.host->hs_limit = {lund_now_us(), 0};
    bench.receive(junk, sizeof junk);
  }
}
BENCHMARK(HandshakeOverTheLimit);

void TickEmpty(benchmark::State& state) {
  bench_host bench;
  for (auto _ : state) benchmark::DoNotOptimize(lund_host_tick(bench.host));
}
BENCHMARK(TickEmpty);

void TickOfEightSessionsAndEightRegisteredServers(benchmark::State& state) {
  bench_host bench(servers(LUND_RELAYS_MAX));
  for (int i = 0; i < HOST_LINKS; ++i) bench.open_session();
  for (int i = 0; i < LUND_RELAYS_MAX; ++i) bench.register_with(i);
  int sessions = 0;
  for (const lund_host_link& link : bench.host->links) sessions += link.used != 0 ? 1 : 0;
  int registered = 0;
  for (int i = 0; i < LUND_RELAYS_MAX; ++i) {
    lund_server_status status;
    lund_host_server_status(bench.host, i, &status);
    registered += static_cast<int>(status.registered);
  }
  if (sessions != HOST_LINKS || registered != LUND_RELAYS_MAX) state.SkipWithError("not full");
  for (auto _ : state) benchmark::DoNotOptimize(lund_host_tick(bench.host));
}
BENCHMARK(TickOfEightSessionsAndEightRegisteredServers);

void RecordThroughTheEngine(benchmark::State& state) {
  bench_host bench;
  bench.connect();
  const auto size = static_cast<std::size_t>(state.range(0));
  std::vector<std::vector<std::uint8_t>> records;
  std::size_t next = 0;
  for (auto _ : state) {
    if (next == records.size()) {
      state.PauseTiming();
      records = seal_records(bench.session, size, BATCH);
      next = 0;
      state.ResumeTiming();
    }
    const auto& record = records[next++];
    if (bench.receive(record.data(), record.size()) != LUND_RX_OPENED)
      state.SkipWithError("not opened");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RecordThroughTheEngine)->Arg(64)->Arg(1376);

void RecordOpenedBare(benchmark::State& state) {
  lund_session sender;
  sender.session_id = 7;
  lund_random_bytes(sender.send_key, sizeof sender.send_key);
  lund_session receiver = sender;
  std::memcpy(receiver.recv_key, sender.send_key, sizeof receiver.recv_key);
  const auto size = static_cast<std::size_t>(state.range(0));
  std::vector<std::vector<std::uint8_t>> records;
  std::size_t next = 0;
  std::uint8_t out[2048];
  for (auto _ : state) {
    if (next == records.size()) {
      state.PauseTiming();
      records = seal_records(sender, size, BATCH);
      next = 0;
      state.ResumeTiming();
    }
    const auto& record = records[next++];
    std::size_t opened = 0;
    if (lund_open(&receiver, record.data(), record.size(), out, sizeof out, &opened) != LUND_OK)
      state.SkipWithError("not opened");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RecordOpenedBare)->Arg(64)->Arg(1376);

}  // namespace
