// The client engine under sequences of datagrams, ticks and calls, beside a real host engine and
// two rendezvous servers: what the host sends can arrive, be lost, late, repeated, changed or from
// elsewhere; the servers can say anything. The client's tables are checked after each step.
//
// The input is a byte for the client's configuration (bit 0: it knows the host's key and is known;
// bit 1: it has the host's code; bits 2-3: path mode) and a list of steps: an operation byte, then
// what the operation reads.
//   bits 0-3  operation, below
//   bits 4-5  source address
//   bits 6-7  clock, ahead of the step: 0, 10 ms, 260 ms, 3 s
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "connection/byte_order.h"
#include "connection/conn_client_internal.h"
#include "connection/conn_host.h"
#include "fuzz/conn_client_servers.h"
#include "fuzz/input.h"
#include "fuzz/repeatable_random.h"
#include "tests/support/virtual_time.h"

namespace {

enum Operation : std::uint8_t {
  RAW = 0,         // size, bytes
  TICK = 1,        // both engines
  EXCHANGE = 2,    // rounds: everything sent arrives, both ways, and both tick
  TO_CLIENT = 3,   // the oldest that waits for the client arrives
  TO_HOST = 4,     // the oldest that waits for the host arrives
  LOSE = 5,        // everything on its way is lost
  CHANGED = 6,     // which, position, mask: something the host once sent, a byte changed
  REPEATED = 7,    // which: something the host once sent, again
  SEALED = 8,      // type, flags, size, bytes: the host says this on the session
  SAY = 9,         // the client says something on the session
  CANDIDATE = 10,  // which, class
  CALL = 11,       // which: a call of the application
  PAIR = 12,       // how: kind, secret
  SERVER = 13,     // what a server says, or the resolver; see conn_client_servers.h
  RESTART = 14,    // of the host
  EVENTS = 15,
};

#define REQUIRE(condition) \
  if (!(condition)) fail(#condition, __LINE__)

[[noreturn]] void fail(const char* condition, int line) {
  std::fprintf(stderr, "conn_client_fuzz.cpp:%d: %s\n", line, condition);
  std::abort();
}

using Bytes = Input::Bytes;

lund_rv_endpoint at(const char* text) {
  lund_rv_endpoint out;
  lund_addr_parse(&out, text, 0);
  return out;
}

constexpr char PASSWORD[] = "246810";
constexpr std::uint32_t PASSWORD_MEM_KIB = 8;
constexpr std::size_t KEPT = 64;  // datagrams of the host that can be changed or repeated

const std::string& password_blob() {
  static const std::string text = [] {
    lund_password_record record;
    record.mem_kib = PASSWORD_MEM_KIB;
    record.iterations = 1;
    lund_password_derive(record.verifier, PASSWORD, record.salt, record.mem_kib, record.iterations);
    char blob[LUND_PASSWORD_BLOB_MAX];
    lund_password_blob_format(blob, sizeof blob, &record);
    return std::string(blob);
  }();
  return text;
}

// Asking for a derivation of up to 256 MiB is a host's right; a search has no time for it.
bool costly(const Bytes& datagram) {
  return datagram.size() >= 70 && datagram[2] == LUND_PKT_HOST_INFO &&
         (load_le<std::uint32_t>(&datagram[13]) > 64 || load_le<std::uint32_t>(&datagram[17]) > 2);
}

class World {
 public:
  explicit World(std::uint8_t setup);
  ~World() {
    lund_client_destroy(client_);
    lund_host_destroy(host_);
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void step(Input& in);
  void check();

 private:
  void create_host(const lund_client_list& clients);
  int to_client(const Bytes& datagram);
  void to_client_true(const Bytes& datagram);
  void to_host(const Bytes& datagram);
  void tick();
  void exchange(int rounds);
  void host_says(Input& in);
  void client_says();
  void call(std::uint8_t which);
  void pair(std::uint8_t how);
  void restart_host();
  void events();
  Bytes kept(std::uint8_t which) const {
    return kept_.empty() ? Bytes{} : kept_[which % kept_.size()];
  }
  std::uint32_t session_id() const;

  lund_keypair host_keys_, client_keys_;
  lund_host* host_ = nullptr;
  lund_client* client_ = nullptr;
  Servers servers_;
  lund_rv_endpoint from_;
  std::deque<Bytes> for_client_, for_host_;
  std::deque<Bytes> kept_;
};

World::World(std::uint8_t setup) {
  const bool paired = (setup & 1) != 0;
  virtual_time::reset();
  repeatable_random_seed(1);
  lund_keypair_generate(&host_keys_);
  lund_keypair_generate(&client_keys_);
  lund_client_list clients;
  if (paired) lund_client_list_add(&clients, client_keys_.public_key, "client");
  create_host(clients);
  lund_client_config config;
  config.identity = client_keys_;
  config.name = "client";
  config.rekey_seconds = 5;
  config.rekey_messages = 40;
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                   std::size_t size) {
    REQUIRE(to->family != 0 && size >= LUND_HEADER_SIZE && size <= LUND_PAIR_MESSAGE_MAX);
    auto* world = static_cast<World*>(user);
    if (world->servers_.sent(*to, bytes, size)) return;
    world->for_host_.emplace_back(bytes, bytes + size);
  };
  config.log = [](void*, const char* text) { REQUIRE(std::strchr(text, '\n') == nullptr); };
  if (paired) {
    config.has_host_key = 1;
    std::memcpy(config.host_key, host_keys_.public_key, LUND_KEY_SIZE);
  }
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, host_keys_.public_key);
  if ((setup & 2) != 0) config.host_code = code;
  config.path_mode = setup >> 2 & 3;
  Servers::configure(config);
  client_ = lund_client_create(&config);
  servers_.attach(client_, host_keys_.public_key);
  // So that it can be looked at whole: its padding, too, and a lock that is made when first taken.
  client_engine::forget_pairing(*client_);
  session_id();
}

void World::create_host(const lund_client_list& clients) {
  lund_host_config config;
  config.identity = host_keys_;
  config.name = "host";
  config.user = this;
  config.send = [](void* user, const lund_rv_endpoint*, const std::uint8_t* bytes,
                   std::size_t size) {
    static_cast<World*>(user)->for_client_.emplace_back(bytes, bytes + size);
  };
  host_ = lund_host_create(&config, &clients, password_blob().c_str());
}

std::uint32_t World::session_id() const {
  lund_client_status status;
  lund_client_status_get(client_, &status);
  return status.session_id;
}

int World::to_client(const Bytes& datagram) {
  if (costly(datagram)) return LUND_RX_NONE;
  std::uint8_t out[2048];
  std::size_t size = 0;
  lund_rx_info rx;
  const int result = lund_client_receive(client_, datagram.data(), datagram.size(), from_, out,
                                         sizeof out, &size, &rx);
  REQUIRE((result == LUND_RX_OPENED) == (size != 0));
  if (result == LUND_RX_OPENED) {
    REQUIRE(rx.session_id != 0 && rx.session_id == load_le<std::uint32_t>(out + 4));
    REQUIRE(size + LUND_SEAL_OVERHEAD == datagram.size());
  }
  if (result == LUND_RX_PLAIN) REQUIRE(datagram[2] == LUND_PKT_DISCOVER_REPLY);
  return result;
}

void World::to_client_true(const Bytes& datagram) {
  kept_.push_back(datagram);
  if (kept_.size() > KEPT) kept_.pop_front();
  to_client(datagram);
}

void World::to_host(const Bytes& datagram) {
  std::uint8_t out[2048];
  std::size_t size = 0;
  lund_host_receive(host_, datagram.data(), datagram.size(), from_, out, sizeof out, &size,
                    nullptr);
}

void World::tick() {
  const std::uint64_t wait = lund_client_tick(client_);
  REQUIRE(wait >= 1'000 && wait <= 250'000);
  lund_host_tick(host_);
}

void World::exchange(int rounds) {
  for (int i = 0; i < rounds; ++i) {
    virtual_time::advance_ms(5);
    tick();
    for (; !for_host_.empty(); for_host_.pop_front()) to_host(for_host_.front());
    for (; !for_client_.empty(); for_client_.pop_front()) to_client_true(for_client_.front());
  }
}

void World::host_says(Input& in) {
  lund_packet_header header;
  header.type = in.byte();
  header.flags = in.byte();
  const Bytes body = in.block();
  Bytes plain(LUND_HEADER_SIZE);
  lund_encode_header(plain.data(), plain.size(), &header);
  plain.insert(plain.end(), body.begin(), body.end());
  Bytes sealed(plain.size() + LUND_SEAL_OVERHEAD);
  sealed.resize(lund_host_seal(host_, session_id(), plain.data(), plain.size(), sealed.data(),
                               sealed.size(), nullptr));
  if (!sealed.empty()) to_client_true(sealed);
}

void World::client_says() {
  const Bytes plain = {LUND_MAGIC, LUND_VERSION_PLAIN, LUND_PKT_BYE, 0, 0, 0, 0, 0};
  Bytes sealed(plain.size() + LUND_SEAL_OVERHEAD);
  lund_rv_endpoint peer;
  const std::size_t size =
      lund_client_seal(client_, 0, plain.data(), plain.size(), sealed.data(), sealed.size(), &peer);
  REQUIRE(size == 0 || (size == sealed.size() && peer.family != 0));
  if (size > 0) for_host_.push_back(sealed);
}

void World::call(std::uint8_t which) {
  switch (which & 7) {
    case 0:
    case 1:
      lund_client_connect(client_);
      return;
    case 2:
      lund_client_open_session(client_);
      return;
    case 3:
      return lund_client_session_close(client_, session_id());
    case 4:
      return lund_client_session_close(client_, 0);
    case 5:
      return lund_client_rekey(client_);
    case 6:
      return lund_host_pairing_open(host_, which >> 3);
    default:
      return lund_host_pairing_close(host_);
  }
}

void World::pair(std::uint8_t how) {
  lund_pairing_status status;
  lund_host_pairing_status(host_, &status);
  const char* secrets[4] = {status.pin, PASSWORD, "000000", "wrong"};
  lund_client_pair(client_, secrets[how & 3], how >> 2 & 3);
}

void World::restart_host() {
  lund_client_list clients;
  lund_host_export_clients(host_, &clients);
  lund_host_destroy(host_);
  create_host(clients);
}

void World::events() {
  lund_conn_event event;
  while (lund_client_poll_event(client_, &event) != 0) {
    REQUIRE(event.type >= LUND_EV_PATH_CHANGED && event.type <= LUND_EV_CLIENT_LOOKUP_FAILED);
    REQUIRE(event.server >= -1 && event.server < Servers::COUNT);
    if (event.type == LUND_EV_CLIENT_LOOKUP_FAILED) REQUIRE(event.server >= 0);
    REQUIRE(std::memchr(event.name, 0, sizeof event.name) != nullptr);
    if (event.type == LUND_EV_CLIENT_PAIR_FAILED) REQUIRE(event.status >= 1 && event.status <= 5);
  }
  while (lund_host_poll_event(host_, &event) != 0) {
  }
}

void World::step(Input& in) {
  static const lund_rv_endpoint ADDRESSES[4] = {at("192.168.1.10:9876"), at("198.51.100.7:9876"),
                                                at("203.0.113.99:9877"), at("[2001:db8::7]:7000")};
  constexpr std::uint64_t AHEAD_US[4] = {0, 10'000, 260'000, 3'000'000};
  const std::uint8_t op = in.byte();
  from_ = ADDRESSES[op >> 4 & 3];
  virtual_time::advance_us(AHEAD_US[op >> 6]);
  switch (op & 15) {
    case RAW:
      REQUIRE(to_client(in.block()) != LUND_RX_OPENED);
      break;
    case TICK:
      tick();
      break;
    case EXCHANGE:
      exchange(in.byte() & 31);
      break;
    case TO_CLIENT:
      if (for_client_.empty()) break;
      to_client_true(Bytes(for_client_.front()));
      for_client_.pop_front();
      break;
    case TO_HOST:
      if (for_host_.empty()) break;
      to_host(Bytes(for_host_.front()));
      for_host_.pop_front();
      break;
    case LOSE:
      for_client_.clear();
      for_host_.clear();
      break;
    case CHANGED: {
      Bytes changed = kept(in.byte());
      const std::uint8_t position = in.byte();
      const std::uint8_t mask = in.byte();
      if (changed.empty() || mask == 0) break;
      changed[position % changed.size()] ^= mask;
      REQUIRE(to_client(changed) != LUND_RX_OPENED);
      break;
    }
    case REPEATED:
      REQUIRE(to_client(kept(in.byte())) != LUND_RX_OPENED);
      break;
    case SEALED:
      host_says(in);
      break;
    case SAY:
      client_says();
      break;
    case CANDIDATE: {
      lund_rv_endpoint address = from_;
      address.port = static_cast<std::uint16_t>(address.port + (in.byte() & 7));
      lund_client_add_candidate(client_, &address, in.byte() & 3);
      break;
    }
    case CALL:
      call(in.byte());
      break;
    case PAIR:
      pair(in.byte());
      break;
    case SERVER:
      servers_.step(in, lund_rv_endpoint(from_),
                    [this](const lund_rv_endpoint& from, const Bytes& datagram) {
                      from_ = from;
                      REQUIRE(to_client(datagram) != LUND_RX_OPENED);
                    });
      break;
    case RESTART:
      restart_host();
      break;
    default:
      events();
      break;
  }
}

void check_session(const lund_client_session& session) {
  REQUIRE(session.state <= LUND_SESSION_UP);
  if (session.state != LUND_SESSION_UP) {
    REQUIRE(session.session_id == 0 && session.current.session_id == 0);
    REQUIRE(!session.has_pending && !session.has_previous);
  } else {
    REQUIRE(session.session_id != 0 && session.current.session_id != 0);
    REQUIRE(!session.has_pending || session.pending.session_id != 0);
    REQUIRE(!session.has_previous || session.previous.session_id != 0);
    REQUIRE(!(session.has_pending && session.in_flight));
  }
  if (session.state == LUND_SESSION_FREE) REQUIRE(!session.in_flight && !session.answered);
}

void check_path(const lund_client_path& path) {
  const std::uint64_t now = lund_now_us();
  if (!path.used) {
    REQUIRE(path.addr.family == 0 && !path.alive);
    return;
  }
  REQUIRE(path.path_class >= LUND_PATH_LAN && path.path_class <= LUND_PATH_RELAY);
  REQUIRE(path.addr.family != 0);
  REQUIRE(path.rtt_us <= 10'000'000);
  REQUIRE(path.last_rx <= now && path.last_ack <= now && path.stable_since <= now);
}

void World::check() {
  servers_.check();
  bool up = false;
  for (const lund_client_session& session : client_->sessions) {
    check_session(session);
    up = up || session.state == LUND_SESSION_UP;
  }
  for (const lund_client_path& path : client_->paths) check_path(path);
  REQUIRE(client_->current_path >= -1 && client_->current_path < LUND_CLIENT_PATHS);
  if (client_->current_path >= 0) REQUIRE(client_->paths[client_->current_path].used);
  if (up) REQUIRE(client_->first_up_at != 0);
  REQUIRE(client_->mode <= LUND_CLIENT_CONNECTING);
  // Nobody but the host, by a whole exchange, can make the client take a key.
  if (client_->has_host_key)
    REQUIRE(std::memcmp(client_->host_key, host_keys_.public_key, LUND_KEY_SIZE) == 0);
  if (client_->mode != LUND_CLIENT_PAIRING) {
    const auto* secret = reinterpret_cast<const std::uint8_t*>(&client_->pairing);
    REQUIRE(std::all_of(secret, secret + sizeof client_->pairing, [](auto b) { return b == 0; }));
  }
  REQUIRE(client_->base.event_count >= 0 && client_->base.event_count <= LUND_EVENTS);
  // As deep as the network ever is; what is older is lost.
  while (for_client_.size() > 256) for_client_.pop_front();
  while (for_host_.size() > 256) for_host_.pop_front();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Input in(data, size);
  World world(in.byte());
  while (!in.done()) {
    world.step(in);
    world.check();
  }
  return 0;
}
