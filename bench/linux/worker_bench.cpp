// The worker under its service. Status of a host with 4 screens and 32 devices, through the
// worker's threads and a real pair of pipes, and its making alone, beside a bare socket that echoes
// as many bytes each way: what the kernel takes of it. And what the real worker costs while nobody
// is connected: its processor time, in seconds a second, and its resident memory.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "connection/protocol.h"
#include "control/keystore.h"
#include "control/security.h"
#include "host/server.h"
#include "tests/support/engine_peer.h"
#include "tests/support/fake_platform.h"
#include "tests/support/linux/machine_lab.h"
#include "tests/support/small_service.h"
#include "tests/support/temporary_store.h"
#include "tests/support/xvfb.h"
#include "worker/admin_commands.h"
#include "worker/worker_channel.h"

namespace {

using host_service::Verb;

constexpr int SCREEN_COUNT = 4;
constexpr std::uint32_t PATIENCE_MS = 10'000;
constexpr std::chrono::seconds IDLE_WINDOW{5};

// A client whose datagrams go straight into the host, and whose answers come by the loopback
// device.
class Client {
 public:
  Client() : socket_(lund_udp_open(4, nullptr, 0)) {
    lund_addr_parse(&from_.address, "127.0.0.1", lund_udp_local_port(socket_));
  }
  ~Client() { lund_udp_close(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Of a client that the host knows; the capture is a fake one.
  bool stream(HostServer& host, const std::uint8_t* host_key, std::uint8_t seed, int screen) {
    engine_peer peer(seed, host_key);
    give(host, peer.hs_init());
    std::uint8_t answer[2'048];
    lund_rv_endpoint sender;
    if (lund_udp_wait(&socket_, 1, PATIENCE_MS) != 1) return false;
    const int size = lund_udp_recv(socket_, answer, sizeof answer, &sender);
    if (size <= 0 || !peer.hs_finish({answer, answer + size})) return false;
    lund_hello hello;
    hello.screen = static_cast<std::uint8_t>(screen);
    const lund_packet_header header;
    peer::bytes packet(64);
    packet.resize(lund_encode_hello(packet.data(), packet.size(), &header, &hello));
    give(host, peer.seal(packet));
    while (host.setup_step()) {
    }
    while (lund_udp_wait(&socket_, 1, 0) == 1)
      lund_udp_recv(socket_, answer, sizeof answer, &sender);
    return true;
  }

 private:
  void give(HostServer& host, const peer::bytes& datagram) {
    host.handle(datagram.data(), datagram.size(), from_);
  }

  lund_socket socket_;
  Peer from_;
};

// Without the host's own threads, so that its sessions stay as they are.
class FullHost {
 public:
  FullHost() {
    const lund_keypair identity = keystore::load_or_create_identity(nullptr);
    lund_client_list clients;
    for (std::uint8_t seed = 1; seed <= LUND_CLIENTS_MAX; ++seed)
      lund_client_list_add(&clients, peer::keypair_of(seed).public_key,
                           ("Device number " + std::to_string(seed)).c_str());
    keystore::save_clients(clients);
    for (int screen = 0; screen < SCREEN_COUNT; ++screen)
      platform_.add_display("DP-" + std::to_string(screen), screen * 1'920);
    HostOptions options;
    options.port = 0;
    server_.emplace(options, platform_.displays[0], platform_.record());
    ok_ = server_->open(nullptr);
    for (int screen = 0; screen < SCREEN_COUNT; ++screen)
      ok_ = ok_ && client_.stream(*server_, identity.public_key, 1, screen);
    ok_ = ok_ && server_->status().screens.size() == SCREEN_COUNT;
  }
  bool ok() const { return ok_; }
  HostServer& server() { return *server_; }

 private:
  TemporaryStore store_;
  FakePlatform platform_;
  Client client_;
  std::optional<HostServer> server_;
  bool ok_ = false;
};

void status_made(benchmark::State& state) {
  FullHost host;
  if (!host.ok()) return state.SkipWithError("the host has not got its screens");
  std::size_t bytes = 0;
  for (auto _ : state) {
    bool stop = false;
    bytes = host_app::execute(host.server(), {Verb::Status, {}}, &stop).text.size();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(status_made)->UseRealTime();

void status_through_pipes(benchmark::State& state) {
  FullHost host;
  if (!host.ok()) return state.SkipWithError("the host has not got its screens");
  const TempDirectory directory;
  std::filesystem::permissions(directory.path(), std::filesystem::perms::owner_all);
  const std::string name = directory / "channel";
  SmallService service(name);
  if (!service.serves()) return state.SkipWithError("only the system may serve pipes");
  WakeEvent stop(WakeEvent::Reset::Manual);
  host_app::WorkerChannel channel(
      host_service::open_pipe(name, nullptr, PATIENCE_MS),
      host_service::open_pipe(name + host_service::EVENTS_SUFFIX, nullptr, PATIENCE_MS), stop,
      host_service::Process::current().id());
  service.meet();
  channel.start(host.server());
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto result = service.ask(Verb::Status);
    if (!result) return state.SkipWithError("no answer");
    bytes = result->text.size();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(status_through_pipes)->UseRealTime();

bool move_all(int socket, std::vector<char>& bytes, bool out) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t size = out ? send(socket, &bytes[done], bytes.size() - done, MSG_NOSIGNAL)
                             : recv(socket, &bytes[done], bytes.size() - done, 0);
    if (size <= 0) return false;
    done += static_cast<std::size_t>(size);
  }
  return true;
}

// A request's bytes there, an answer's bytes back.
void echo_through_a_bare_socket(benchmark::State& state) {
  FullHost host;
  bool ignored = false;
  const std::size_t answer_bytes =
      host_service::HEADER_BYTES + sizeof(std::uint32_t) +
      host_app::execute(host.server(), {Verb::Status, {}}, &ignored).text.size();
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return state.SkipWithError("no sockets");
  std::vector<char> asked(host_service::HEADER_BYTES), answered(answer_bytes);
  std::thread other([&] {
    std::vector<char> request(asked.size()), answer(answer_bytes);
    while (move_all(ends[1], request, false) && move_all(ends[1], answer, true)) {
    }
  });
  for (auto _ : state) {
    if (!move_all(ends[0], asked, true) || !move_all(ends[0], answered, false)) break;
  }
  state.SetItemsProcessed(state.iterations());
  shutdown(ends[0], SHUT_RDWR);
  other.join();
  for (const int end : ends) close(end);
}
BENCHMARK(echo_through_a_bare_socket)->UseRealTime();

// ---- The real one, idle

class IdleWorker {
 public:
  IdleWorker() : desktop_(1'280, 720) {
    const std::string channel =
        std::string(host_service::WORKER_PIPE_PREFIX) + "00112233445566778899aabbccddeeff";
    lab_.call([&] { service_.emplace(channel); });
    worker_ = std::make_unique<ChildProcess>(
        lab_.inside({std::string(LUND_BIN_DIR) + "/lunderhaze-worker", "--supervisor",
                     std::to_string(getpid()), "--channel", channel}));
    ok_ = service_->meet(PATIENCE_MS) && service_->wait_heartbeats(10);
  }
  ~IdleWorker() {
    lab_.call([this] { service_.reset(); });
    worker_->wait(std::chrono::seconds(10));
  }
  IdleWorker(const IdleWorker&) = delete;
  IdleWorker& operator=(const IdleWorker&) = delete;

  bool ok() const { return ok_; }
  double processor_seconds() const {
    clockid_t clock{};
    timespec time{};
    clock_getcpuclockid(worker_->pid(), &clock);
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }
  double resident_mib() const {
    std::ifstream status("/proc/" + std::to_string(worker_->pid()) + "/status");
    for (std::string word; status >> word;) {
      double kib = 0;
      if (word == "VmRSS:" && status >> kib) return kib / 1'024;
    }
    return 0;
  }

 private:
  Xvfb desktop_;
  MachineLab lab_;
  std::optional<SmallService> service_;
  std::unique_ptr<ChildProcess> worker_;
  bool ok_ = false;
};

void idle_worker(benchmark::State& state) {
  if (!MachineLab::missing().empty()) return state.SkipWithError(MachineLab::missing().c_str());
  const IdleWorker worker;
  if (!worker.ok()) return state.SkipWithError("the worker doesn't run");
  for (auto _ : state) {
    const double before = worker.processor_seconds();
    std::this_thread::sleep_for(IDLE_WINDOW);
    const double used = worker.processor_seconds() - before;
    state.SetIterationTime(used);
    state.counters["core_%"] = 100 * used / std::chrono::duration<double>(IDLE_WINDOW).count();
  }
  state.counters["resident_MiB"] = worker.resident_mib();
}
BENCHMARK(idle_worker)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
