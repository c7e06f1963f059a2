// The host engine under sequences of datagrams, ticks and calls, with its tables checked after each
// step. Besides raw datagrams the input can ask for packets of real clients and servers, whole,
// changed or repeated, so that the search gets past authentication too.
//
// The input is a list of steps: an operation byte, then what the operation reads.
//   bits 0-2  operation, below
//   bit  3    client 0 or 1, or the other operation of two that have no client
//   bits 4-5  source address
//   bits 6-7  clock, ahead of the step: 0, 10 ms, 1.1 s, 11 s and a tick
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "connection/byte_order.h"
#include "connection/conn_host_internal.h"
#include "connection/protocol.h"
#include "fuzz/input.h"
#include "fuzz/repeatable_random.h"
#include "tests/support/engine_peer.h"
#include "tests/support/server_peer.h"
#include "tests/support/virtual_time.h"

namespace {

enum operation : std::uint8_t {
  RAW = 0,        // size, bytes
  HANDSHAKE = 1,  // a new one; the answer is taken
  SEALED = 2,     // type, flags, size, bytes: under the client's current keys
  REKEY = 3,      // selector: own session or the other's; under the current keys
  CHANGED = 4,    // position, mask: the last true datagram with a byte changed
  REPEATED = 5,   // the last true datagram again
  PAIR = 6,       // kind and secret, then as many steps of the exchange as asked
  CALL = 7,       // which: a call of the application
  OTHER = 8,
  SERVER = RAW | OTHER,        // how and which server, what it says
  PUNCH = CHANGED | OTHER,     // which kind and token: from a peer
  SERVERS = REPEATED | OTHER,  // which: a call that changes the servers, or what is said to them
};

// What a SERVER step makes of its message, in bits 3 and 4 of its first byte; bits 0-2 are the
// server's index.
enum delivery : std::uint8_t {
  TRUE_ONE = 0,
  FROM_ELSEWHERE = 1,
  WRONG_KEY = 2,
  PASSED_ON = 3,  // no message of its own: the next step's datagrams come through the relay
};

#define REQUIRE(condition) \
  if (!(condition)) fail(#condition, __LINE__)

[[noreturn]] void fail(const char* condition, int line) {
  std::fprintf(stderr, "conn_host_fuzz.cpp:%d: %s\n", line, condition);
  std::abort();
}

const std::string BLOB =
    "lunderhaze-pw1 000102030405060708090a0b0c0d0e0f 1024 2 " + std::string(64, 'a');
// Made once: their arithmetic would be most of a run. The host knows the first client.
const lund_keypair HOST_KEYS = peer::keypair_of(1);
const engine_peer CLIENTS[2] = {{2, HOST_KEYS.public_key}, {3, HOST_KEYS.public_key}};

const server_peer A("198.51.100.1", "198.51.100.1:9877", 0xA1);
const server_peer B("b.example", "198.51.100.2:9877", 0xB2);
const lund_rv_endpoint SOURCES[4] = {peer::at("192.168.1.20:5000"), peer::at("203.0.113.7:6000"),
                                     peer::at("[2001:db8::7]:7000"), peer::at("203.0.113.7:6001")};

lund_relay_server without_address(server_peer server) {
  server.relay.endpoint = {};
  return server.relay;
}

// What a new set of servers may hold: the two, and neighbours that differ in one thing each.
const lund_relay_server RELAYS[8] = {
    A.relay,
    B.relay,
    server_peer("198.51.100.1", "198.51.100.1:9877", 0xAA).relay,
    without_address(B),
    server_peer("B.EXAMPLE", "198.51.100.22:9877", 0xB2).relay,
    server_peer("b.example", "198.51.100.2:9878", 0xB2).relay,
    without_address(server_peer("c.example", "198.51.100.3:9877", 0xC3)),
    {},  // not valid
};

lund_rv_endpoint read_address(Input& in) {
  const std::uint8_t which = in.byte();
  lund_rv_endpoint address = SOURCES[which & 3];
  switch (which >> 2 & 7) {
    case 0:
      return {};
    case 1:
      return A.address;
    case 2:
      return B.address;
    case 3: {
      const Input::Bytes bytes = in.bytes(address.address.size());
      std::copy(bytes.begin(), bytes.end(), address.address.begin());
      break;
    }
    default:
      break;
  }
  address.port = static_cast<std::uint16_t>(address.port + (which >> 5));
  return address;
}

class world {
 public:
  world() {
    virtual_time::reset();
    repeatable_random_seed(1);
    lund_host_config config;
    config.identity = HOST_KEYS;
    config.name = "Desk";
    config.relays = peer::relays_of({A, B});
    config.user = this;
    config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                     std::size_t size) {
      REQUIRE(to->family == 4 || to->family == 6);
      auto* self = static_cast<world*>(user);
      self->answer_.assign(bytes, bytes + size);
      ++self->answers_;
    };
    config.log = [](void*, const char* text) { REQUIRE(std::strchr(text, '\n') == nullptr); };
    lund_client_list clients;
    lund_client_list_add(&clients, CLIENTS[0].key(), "known");
    host_ = lund_host_create(&config, &clients, BLOB.c_str());
  }
  ~world() { lund_host_destroy(host_); }
  world(const world&) = delete;
  world& operator=(const world&) = delete;

  void step(Input& in);
  void check() const;

 private:
  void receive(const peer::bytes& datagram) {
    std::uint8_t out[2048];
    std::size_t size = 0;
    lund_rx_info rx;
    answer_.clear();
    answers_ = 0;
    const int result = lund_host_receive(host_, datagram.data(), datagram.size(), from_, out,
                                         sizeof out, &size, &rx);
    REQUIRE((result == LUND_RX_OPENED) == (size != 0));
    if (result != LUND_RX_OPENED) return;
    REQUIRE(rx.session_id != 0 && rx.session_id == load_le<std::uint32_t>(out + 4));
    REQUIRE(size + LUND_SEAL_OVERHEAD == datagram.size());
  }
  void receive_true(const peer::bytes& datagram) {
    if (datagram.empty()) return;
    last_ = datagram;
    receive(datagram);
  }
  // Nothing of it may be noticed.
  void receive_forged(const peer::bytes& datagram) {
    const peer::bytes before = state();
    receive(datagram);
    REQUIRE(answers_ == 0 && state() == before);
  }
  // Everything in the engine but its lock.
  peer::bytes state() const {
    return {reinterpret_cast<const std::uint8_t*>(&host_->base.keypair),
            reinterpret_cast<const std::uint8_t*>(host_ + 1)};
  }
  void tick() {
    const std::uint64_t wait = lund_host_tick(host_);
    REQUIRE(wait >= 1'000 && wait <= 250'000);
  }
  void pair(engine_peer& client, std::uint8_t how);
  void call(const engine_peer& client, std::uint8_t which);
  const lund_host_work& read_work(Input& in) const { return host_->work[in.byte() % HOST_WORK]; }
  void read_token(Input& in, const std::uint8_t (&own)[16], std::uint8_t (&token)[16]) const;
  lund_rv_message read_message(Input& in) const;
  void server_says(Input& in);
  void punched(Input& in);
  void servers_call(Input& in);

  lund_host* host_ = nullptr;
  lund_rv_endpoint from_;
  int passed_on_by_ = -1;  // a server: the relay between the host and who sends next
  peer::bytes answer_;
  int answers_ = 0;
  peer::bytes last_;
  engine_peer clients_[2] = {CLIENTS[0], CLIENTS[1]};
};

void world::pair(engine_peer& client, std::uint8_t how) {
  const bool by_password = (how & 1) != 0;
  const bool right = (how & 2) != 0;
  const std::string secret = by_password ? std::string(64, 'a') : host_->pairing.pin;
  receive_true(client.pair_init(right ? secret.c_str() : "wrong",
                                by_password ? LUND_KIND_PASSWORD : LUND_KIND_PIN));
  for (int steps = how >> 6; steps > 0 && !answer_.empty(); --steps)
    receive_true(client.pair_take(peer::bytes(answer_)));
}

void world::call(const engine_peer& client, std::uint8_t which) {
  const std::uint32_t session_id = host_->links[which >> 5].session_id;
  std::uint8_t sealed[64];
  lund_conn_event event;
  switch (which & 7) {
    case 0:
      return lund_host_pairing_open(host_, which >> 3);
    case 1:
      return lund_host_pairing_close(host_);
    case 2:
      return static_cast<void>(lund_host_add_client(host_, client.key(), "added"));
    case 3:
      return static_cast<void>(lund_host_remove_client(host_, client.key()));
    case 4:
      return lund_host_session_close(host_, session_id);
    case 5:
      return lund_host_clear_password(host_);
    case 6:
      lund_host_seal(host_, session_id, peer::probe(0).data(), LUND_PROBE_SIZE, sealed,
                     sizeof sealed, nullptr);
      return;
    default:
      while (lund_host_poll_event(host_, &event) != 0)
        REQUIRE(event.type >= LUND_EV_PAIRED && event.type <= LUND_EV_REKEYED);
  }
}

// Those that the engine knows, or any.
void world::read_token(Input& in, const std::uint8_t (&own)[16], std::uint8_t (&token)[16]) const {
  const std::uint8_t fill = in.byte();
  if ((fill & 1) != 0)
    std::memcpy(token, own, sizeof token);
  else
    std::memset(token, fill, sizeof token);
}

// Of any type of the range; the fields of those that servers send.
lund_rv_message world::read_message(Input& in) const {
  lund_rv_message message;
  message.type = static_cast<std::uint8_t>(LUND_RV_REGISTER + in.byte() % 16);
  message.target_size = 16;
  switch (message.type) {
    case LUND_RV_CHALLENGE:
      std::memset(message.token, in.byte(), sizeof message.token);
      std::memset(message.key, in.byte(), sizeof message.key);
      break;
    case LUND_RV_REGISTERED:
      message.observed = read_address(in);
      message.lease_seconds = static_cast<std::uint16_t>(in.u16());
      break;
    case LUND_RV_PUNCH_NOTIFY: {
      const lund_host_work& work = read_work(in);
      const std::uint8_t fresh = in.byte();
      message.allocation = fresh != 0 ? fresh : work.allocation;
      read_token(in, work.token, message.token);
      read_token(in, work.punch_token, message.punch_token);
      message.peer = read_address(in);
      message.lan_count = in.byte() % (LUND_RV_LAN_MAX + 1);
      for (int i = 0; i < message.lan_count; ++i) message.lan[i] = read_address(in);
      break;
    }
    case LUND_RV_BOUND:
      message.allocation = read_work(in).allocation;
      message.status = in.byte() & 1;
      break;
    case LUND_RV_ERROR:
      message.status = in.byte();
      break;
    default:
      break;
  }
  return message;
}

void world::server_says(Input& in) {
  const std::uint8_t how = in.byte();
  if (host_->base.server_count == 0) return;
  const int index = (how & 7) % host_->base.server_count;
  const lund_conn_server& server = host_->base.servers[index];
  const int delivered = how >> 3 & 3;
  if (delivered == PASSED_ON) {
    passed_on_by_ = index;
    return;
  }
  const lund_rv_message message = read_message(in);
  if (server.endpoint.family == 0 && delivered != FROM_ELSEWHERE) return;
  // The same server may stand in the set twice, or a server be at an address of SOURCES.
  const bool at_server = conn_server_index(&host_->base, from_) >= 0;
  if (delivered != FROM_ELSEWHERE) from_ = server.endpoint;
  std::uint8_t key[sizeof server.net_key];
  std::memcpy(key, server.net_key, sizeof key);
  if (delivered == WRONG_KEY) key[how >> 5] ^= 1;
  peer::bytes datagram(LUND_RV_MESSAGE_MAX);
  datagram.resize(lund_rv_encode(datagram.data(), datagram.size(), key, &message));
  if (datagram.empty() || (at_server && delivered == FROM_ELSEWHERE)) return;
  if (delivered == TRUE_ONE)
    receive_true(datagram);
  else
    receive_forged(datagram);
}

void world::punched(Input& in) {
  const std::uint8_t type = (in.byte() & 1) != 0 ? LUND_RV_PUNCH_ACK : LUND_RV_PUNCH;
  std::uint8_t token[16];
  read_token(in, read_work(in).punch_token, token);
  const peer::bytes datagram = peer::punch(type, token, in.byte());
  const bool known =
      std::any_of(std::begin(host_->work), std::end(host_->work), [&](const lund_host_work& work) {
        return work.used != 0 && std::memcmp(work.punch_token, token, sizeof token) == 0;
      });
  const peer::bytes before = state();
  receive_true(datagram);
  REQUIRE(state() == before);
  REQUIRE(answers_ == (known && type == LUND_RV_PUNCH ? 1 : 0));
  if (answers_ != 0) REQUIRE(answer_.size() == datagram.size());
}

void world::servers_call(Input& in) {
  const std::uint8_t which = in.byte();
  const int count = which >> 2;
  switch (which & 3) {
    case 0: {
      lund_relay_config relays;
      relays.count = count % (LUND_RELAYS_MAX + 2);
      for (int i = 0; i < std::min(relays.count, LUND_RELAYS_MAX); ++i)
        relays.servers[i] = RELAYS[in.byte() & 7];
      return lund_host_set_relay(host_, &relays);
    }
    case 1: {
      const lund_relay_server& relay = RELAYS[count & 7];
      const lund_rv_endpoint address = read_address(in);
      return lund_host_server_resolved(host_, relay.host, relay.port,
                                       (count & 8) != 0 ? nullptr : &address);
    }
    case 2: {
      lund_rv_endpoint lan[LUND_RV_LAN_MAX];
      for (int i = 0; i < std::min(count % 8, LUND_RV_LAN_MAX); ++i) lan[i] = read_address(in);
      return lund_host_set_lan_endpoints(host_, lan, count % 8);
    }
    default:
      tick();
  }
}

void world::step(Input& in) {
  constexpr std::uint64_t AHEAD_US[4] = {0, 10'000, 1'100'000, 11'000'000};
  const std::uint8_t op = in.byte();
  engine_peer& client = clients_[op >> 3 & 1];
  from_ = SOURCES[op >> 4 & 3];
  if (passed_on_by_ >= 0 && passed_on_by_ < host_->base.server_count)
    from_ = host_->base.servers[passed_on_by_].endpoint;
  passed_on_by_ = -1;
  virtual_time::advance_us(AHEAD_US[op >> 6]);
  if (op >> 6 == 3) tick();
  switch (op & 15) {
    case SERVER:
      return server_says(in);
    case PUNCH:
      return punched(in);
    case SERVERS:
      return servers_call(in);
    default:
      break;
  }
  switch (op & 7) {
    case RAW:
      receive(in.block());
      break;
    case HANDSHAKE:
      receive_true(client.hs_init());
      client.hs_finish(peer::bytes(answer_));
      break;
    case SEALED: {
      const std::uint8_t type = in.byte();
      const std::uint8_t flags = in.byte();
      receive_true(client.seal(peer::packet(type, flags, in.block())));
      break;
    }
    case REKEY: {
      const std::uint8_t which = in.byte();
      receive_true(client.seal(peer::rekey(host_->links[which % HOST_LINKS].session_id)));
      break;
    }
    case CHANGED: {
      const std::uint8_t position = in.byte();
      const std::uint8_t mask = in.byte();
      peer::bytes changed = last_;
      if (!changed.empty()) changed[position % changed.size()] ^= mask;
      receive(changed);
      break;
    }
    case REPEATED:
      receive(peer::bytes(last_));
      break;
    case PAIR:
      pair(client, in.byte());
      break;
    default:
      call(client, in.byte());
      break;
  }
}

void check_slot(const lund_host& host, int index) {
  const lund_crypto_slot& slot = host.slots[index];
  REQUIRE(slot.state <= SLOT_BOUND);
  REQUIRE((slot.state == SLOT_FREE) == (slot.session.session_id == 0));
  if (slot.state != SLOT_BOUND) REQUIRE(slot.link == -1);
  if (slot.state == SLOT_FREE) return;
  REQUIRE(slot.client >= 0 && slot.client < LUND_CLIENTS_MAX);
  REQUIRE(host.clients[slot.client].used == 1);
  for (int other = 0; other < index; ++other)
    REQUIRE(host.slots[other].session.session_id != slot.session.session_id);
  if (slot.state != SLOT_BOUND) return;
  REQUIRE(slot.link >= 0 && slot.link < HOST_LINKS);
  const lund_host_link& link = host.links[slot.link];
  REQUIRE(link.used == 1 && link.client == slot.client);
  REQUIRE((link.current_slot == index) != (link.previous_slot == index));
}

void check_link(const lund_host& host, int index) {
  const lund_host_link& link = host.links[index];
  if (link.used == 0) {
    REQUIRE(link.session_id == 0 && link.current_slot == -1 && link.previous_slot == -1);
    return;
  }
  REQUIRE(link.session_id != 0);
  for (int other = 0; other < index; ++other)
    REQUIRE(host.links[other].session_id != link.session_id);
  REQUIRE(link.current_slot >= 0 && link.current_slot < HOST_SLOTS);
  REQUIRE(link.previous_slot >= -1 && link.previous_slot < HOST_SLOTS);
  for (const int slot : {link.current_slot, link.previous_slot})
    if (slot >= 0) REQUIRE(host.slots[slot].state == SLOT_BOUND && host.slots[slot].link == index);
  REQUIRE(link.peer.family != 0);
  REQUIRE(link.path >= LUND_PATH_LAN && link.path <= LUND_PATH_RELAY);
  REQUIRE(link.last_activity <= lund_now_us());
}

void check_registration(const lund_host& host, int index) {
  const lund_server_reg& registration = host.registrations[index];
  REQUIRE(registration.state >= REG_IDLE && registration.state <= REG_REGISTERED);
  REQUIRE(registration.tries >= 0);
  REQUIRE(registration.last_error >= -1 && registration.last_error <= 255);
  REQUIRE(registration.last_sent <= lund_now_us());
  REQUIRE(registration.next_at <= lund_now_us() + 65'535 * SECOND_US);
}

void check_status(lund_host* host, int index) {
  lund_server_status status;
  const bool listed = index >= 0 && index < host->base.server_count;
  REQUIRE((lund_host_server_status(host, index, &status) == 0) == listed);
  REQUIRE((status.port != 0) == listed && (status.host[0] != '\0') == listed);
  REQUIRE(std::memchr(status.host, 0, sizeof status.host) != nullptr);
  REQUIRE(status.state <= LUND_SERVER_REFUSED);
  REQUIRE((status.state <= LUND_SERVER_NO_NAME) == (status.endpoint.family == 0));
  REQUIRE(status.error >= 0 && status.error <= 255);
  if (status.endpoint.family == 0) REQUIRE(status.registered == 0);
}

void check_candidates(const lund_host_work& work) {
  REQUIRE(work.candidate_count >= 0 && work.candidate_count <= CANDIDATES_MAX);
  for (int i = 0; i < work.candidate_count; ++i) {
    REQUIRE(work.candidates[i].family == 4 || work.candidates[i].family == 6);
    for (int other = 0; other < i; ++other)
      REQUIRE(!lund_rv_endpoint_equal(work.candidates[other], work.candidates[i]));
  }
}

void check_work(const lund_host& host, int index) {
  const lund_host_work& work = host.work[index];
  REQUIRE(work.used <= 1 && work.active <= 1 && work.bound <= 1);
  check_candidates(work);
  if (work.used == 0) {
    REQUIRE(work.active == 0 && work.server == -1 && work.candidate_count == 0);
    return;
  }
  REQUIRE(work.server >= 0 && work.server < host.base.server_count);
  REQUIRE(host.base.servers[work.server].endpoint.family != 0);
  for (int other = 0; other < index; ++other) {
    const lund_host_work& before = host.work[other];
    if (before.used == 0 || before.server != work.server) continue;
    REQUIRE(before.active == 0 || work.active == 0);
    REQUIRE(before.allocation != work.allocation);
  }
  const std::uint64_t now = lund_now_us();
  REQUIRE(work.created_at <= now);
  REQUIRE(work.punch_until <= now + 2'500'000 && work.next_punch <= now + 50'000);
  REQUIRE(work.next_bind <= now + 15 * SECOND_US);
}

void check_pair(const lund_pair& pair) {
  REQUIRE(pair.attempts <= pair.max_attempts);
  REQUIRE(pair.last_message_size <= LUND_PAIR_MESSAGE_MAX);
}

void world::check() const {
  for (int i = 0; i < HOST_SLOTS; ++i) check_slot(*host_, i);
  for (int i = 0; i < HOST_LINKS; ++i) check_link(*host_, i);
  REQUIRE(host_->base.server_count >= 0 && host_->base.server_count <= LUND_RELAYS_MAX);
  REQUIRE(host_->base.lan_count >= 0 && host_->base.lan_count <= LUND_RV_LAN_MAX);
  for (int i = 0; i < LUND_RELAYS_MAX; ++i) check_registration(*host_, i);
  for (int i = -1; i <= LUND_RELAYS_MAX; ++i) check_status(host_, i);
  for (int i = 0; i < HOST_WORK; ++i) check_work(*host_, i);
  for (const lund_authorized_client& client : host_->clients) {
    REQUIRE(client.used <= 1);
    REQUIRE(std::memchr(client.name, 0, sizeof client.name) != nullptr);
  }
  REQUIRE(host_->base.event_count >= 0 && host_->base.event_count <= LUND_EVENTS);
  REQUIRE(host_->base.event_head >= 0 && host_->base.event_head < LUND_EVENTS);
  check_pair(host_->pairing.pin_pair);
  check_pair(host_->pairing.password_pair);
  REQUIRE(std::strlen(host_->pairing.pin) == (host_->pairing.pairing_open != 0 ? 6U : 0U));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  world hosted;
  Input in(data, size);
  while (!in.done()) {
    hosted.step(in);
    hosted.check();
  }
  return 0;
}
