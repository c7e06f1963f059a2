#include "apps/rendezvous/server.h"

#include <cstring>

#include "apps/rendezvous/server_state.h"
#include "connection/clock.h"
#include "connection/protocol.h"

namespace {

constexpr std::size_t SEALED_MIN_BYTES = 32;
// How often one address block is told that it asks too much.
constexpr Rate REFUSAL_RATE{10, 10};
// A burst of video, for a key frame goes out at once.
constexpr std::uint64_t RELAY_BURST_MIN_BYTES = 65'536;

Rate relay_rate_of(std::uint64_t bytes_per_second) {
  return {bytes_per_second, std::max(bytes_per_second / 4, RELAY_BURST_MIN_BYTES)};
}

bool is_rendezvous(const std::uint8_t* datagram, std::size_t size) {
  return size >= LUND_HEADER_SIZE && datagram[0] == LUND_MAGIC &&
         datagram[1] == LUND_VERSION_PLAIN && datagram[2] >= LUND_RV_REGISTER &&
         datagram[2] <= LUND_RV_ERROR;
}

bool is_sealed(const std::uint8_t* datagram, std::size_t size) {
  return size >= SEALED_MIN_BYTES && datagram[0] == LUND_MAGIC &&
         datagram[1] == LUND_VERSION_SEALED;
}

SipKey random_sip_key(bool* ready) {
  SipKey key;
  if (lund_random_bytes(&key, sizeof key) != LUND_OK) *ready = false;
  return key;
}

}  // namespace

RendezvousServer::State::State(const std::uint8_t* key, std::size_t key_size,
                               const RendezvousLimits& wanted, Send sender)
    : limits(wanted),
      request_rate{wanted.requests_per_second, 3 * wanted.requests_per_second},
      proof_rate{wanted.proofs_per_second, 2 * wanted.proofs_per_second},
      relay_rate(relay_rate_of(wanted.relay_bytes_per_second)),
      send(std::move(sender)),
      ready(tickets.ready() && lund_keypair_generate(&identity) == LUND_OK),
      now_us(lund_now_us()),
      accounts(wanted.accounts, random_sip_key(&ready)),
      hosts(wanted.hosts, random_sip_key(&ready)),
      allocations(wanted.allocations, random_sip_key(&ready)) {
  lund_rv_net_key(net_key, key, key_size);
}

RendezvousServer::State::~State() {
  lund_secure_wipe(net_key, sizeof net_key);
}

void RendezvousServer::State::receive(const std::uint8_t* datagram, std::size_t size,
                                      const lund_rv_endpoint& from) {
  lund_rv_message message;
  if (is_rendezvous(datagram, size) &&
      lund_rv_decode(datagram, size, net_key, &message) == LUND_OK) {
    on_message(message, size, from);
  } else {
    relay(datagram, size, from);
  }
}

void RendezvousServer::State::on_message(const lund_rv_message& message, std::size_t size,
                                         const lund_rv_endpoint& from) {
  const bool request = message.type == LUND_RV_REGISTER || message.type == LUND_RV_LOOKUP ||
                       message.type == LUND_RV_BIND;
  // An engine takes whatever comes from here under the tag for the server's own word: nothing that
  // carries it is ever relayed.
  if (!request) {
    ++counts.not_for_us;
    return;
  }
  Account& account = accounts.of(from);
  account.earn(size);
  if (!account.requests.take(request_rate, now_us)) {
    ++counts.over_rate;
    if (message.type != LUND_RV_BIND && account.refusals.take(REFUSAL_RATE, now_us))
      refuse(ERROR_TRY_LATER, message, from, account);
    return;
  }
  switch (message.type) {
    case LUND_RV_REGISTER:
      return on_register(message, from, account);
    case LUND_RV_LOOKUP:
      return on_lookup(message, from, account);
    default:
      return on_bind(message, from, account);
  }
}

void RendezvousServer::State::relay(const std::uint8_t* datagram, std::size_t size,
                                    const lund_rv_endpoint& from) {
  const AllocationTable::Route* route = allocations.route(from);
  if (!route) {
    ++(is_rendezvous(datagram, size) ? counts.bad_tag : counts.unbound);
    return;
  }
  AllocationSide& sender = route->allocation->sides[route->side];
  const AllocationSide& receiver =
      route->allocation->sides[route->side == HOST_SIDE ? CLIENT_SIDE : HOST_SIDE];
  if (!receiver.bound()) {
    ++counts.unbound;
    return;
  }
  if (limits.relay_bytes_per_second != 0 && !sender.bytes.take(relay_rate, now_us, size)) {
    ++counts.over_bytes;
    return;
  }
  if (is_sealed(datagram, size)) sender.sealed_at_us = now_us;
  ++counts.relayed;
  counts.relayed_bytes += size;
  send_bytes(receiver.address, datagram, size);
}

bool RendezvousServer::State::answer(const lund_rv_message& message, const lund_rv_endpoint& to,
                                     Account& account) {
  std::uint8_t bytes[LUND_RV_MESSAGE_MAX];
  const std::size_t size = lund_rv_encode(bytes, sizeof bytes, net_key, &message);
  if (!account.can_pay(size, now_us)) {
    ++counts.over_account;
    return false;
  }
  account.pay(size);
  send_bytes(to, bytes, size);
  return true;
}

void RendezvousServer::State::refuse(RendezvousError error, const lund_rv_message& request,
                                     const lund_rv_endpoint& to, Account& account) {
  lund_rv_message refusal;
  refusal.type = LUND_RV_ERROR;
  refusal.nonce = request.nonce;
  refusal.status = error;
  answer(refusal, to, account);
}

void RendezvousServer::State::send_bytes(const lund_rv_endpoint& to, const std::uint8_t* bytes,
                                         std::size_t size) {
  if (!send(to, bytes, size)) ++counts.send_failed;
}

RendezvousServer::RendezvousServer(const std::uint8_t* key, std::size_t key_size,
                                   const RendezvousLimits& limits, Send send)
    : state_(std::make_unique<State>(key, key_size, limits, std::move(send))) {}

RendezvousServer::~RendezvousServer() = default;

bool RendezvousServer::ready() const {
  return state_->ready;
}

void RendezvousServer::receive(const std::uint8_t* datagram, std::size_t size,
                               const lund_rv_endpoint& from) {
  if (!state_->ready) return;
  state_->now_us = lund_now_us();
  state_->receive(datagram, size, from);
}

void RendezvousServer::tick() {
  state_->now_us = lund_now_us();
  state_->hosts.expire(state_->now_us);
  state_->allocations.expire(state_->now_us);
}

RendezvousStatistics RendezvousServer::statistics() const {
  RendezvousStatistics out = state_->counts;
  out.hosts = state_->hosts.size();
  out.allocations = state_->allocations.size();
  return out;
}
