// The host engine under sequences of datagrams, ticks and calls, with its tables checked after each
// step. Besides raw datagrams the input can ask for packets of real clients, whole, changed or
// repeated, so that the search gets past authentication too.
//
// The input is a list of steps: an operation byte, then what the operation reads.
//   bits 0-2  operation, below
//   bit  3    client 0 or 1
//   bits 4-5  source address
//   bits 6-7  clock, ahead of the step: 0, 10 ms, 1.1 s, 11 s and a tick
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

class world {
 public:
  world() {
    virtual_time::reset();
    repeatable_random_seed(1);
    lund_host_config config;
    config.identity = HOST_KEYS;
    config.name = "Desk";
    config.user = this;
    config.send = [](void* user, const lund_rv_endpoint*, const std::uint8_t* bytes,
                     std::size_t size) {
      static_cast<world*>(user)->answer_.assign(bytes, bytes + size);
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
  void pair(engine_peer& client, std::uint8_t how);
  void call(const engine_peer& client, std::uint8_t which);

  lund_host* host_ = nullptr;
  lund_rv_endpoint from_;
  peer::bytes answer_;
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

void world::step(Input& in) {
  static const lund_rv_endpoint SOURCES[4] = {
      peer::at("192.168.1.20:5000"), peer::at("203.0.113.7:6000"), peer::at("[2001:db8::7]:7000"),
      peer::at("203.0.113.7:6001")};
  constexpr std::uint64_t AHEAD_US[4] = {0, 10'000, 1'100'000, 11'000'000};
  const std::uint8_t op = in.byte();
  engine_peer& client = clients_[op >> 3 & 1];
  from_ = SOURCES[op >> 4 & 3];
  virtual_time::advance_us(AHEAD_US[op >> 6]);
  if (op >> 6 == 3) lund_host_tick(host_);
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

void check_pair(const lund_pair& pair) {
  REQUIRE(pair.attempts <= pair.max_attempts);
  REQUIRE(pair.last_message_size <= LUND_PAIR_MESSAGE_MAX);
}

void world::check() const {
  for (int i = 0; i < HOST_SLOTS; ++i) check_slot(*host_, i);
  for (int i = 0; i < HOST_LINKS; ++i) check_link(*host_, i);
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
