// The rendezvous server's core on the virtual clock, with hosts and clients made by hand that speak
// to it message by message, and can say what no honest one says.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/rendezvous/server.h"
#include "connection/clock.h"
#include "connection/protocol.h"
#include "tests/support/engine_peer.h"
#include "tests/support/virtual_time.h"

class RendezvousRig {
 public:
  using Bytes = peer::bytes;
  struct Sent {
    lund_rv_endpoint to;
    Bytes bytes;
  };

  explicit RendezvousRig(const RendezvousLimits& limits = {})
      : server_((virtual_time::reset(), KEY), sizeof KEY, limits,
                [this](const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size) {
                  if (!sink) sent.push_back({to, Bytes(bytes, bytes + size)});
                  return !socket_fails;
                }) {
    lund_rv_net_key(net_key, KEY, sizeof KEY);
  }

  Bytes encode(const lund_rv_message& message) const {
    Bytes out(LUND_RV_MESSAGE_MAX);
    out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
    return out;
  }
  void receive(const Bytes& bytes, const lund_rv_endpoint& from) {
    server_.receive(bytes.data(), bytes.size(), from);
  }
  void receive(const lund_rv_message& message, const lund_rv_endpoint& from) {
    receive(encode(message), from);
  }

  // What was sent to this address since it was last asked, decoded; untagged datagrams are left.
  std::vector<lund_rv_message> take(const lund_rv_endpoint& to) {
    std::vector<lund_rv_message> out;
    std::erase_if(sent, [&](const Sent& one) {
      lund_rv_message message;
      if (!lund_rv_endpoint_equal(one.to, to) ||
          lund_rv_decode(one.bytes.data(), one.bytes.size(), net_key, &message) != LUND_OK)
        return false;
      out.push_back(message);
      return true;
    });
    return out;
  }
  // The only message sent there; one of type 0 when there is none, or more.
  lund_rv_message take_one(const lund_rv_endpoint& to) {
    const std::vector<lund_rv_message> all = take(to);
    return all.size() == 1 ? all.front() : lund_rv_message{};
  }

  // Time passes with the ticks that the program gives.
  void wait_ms(std::uint64_t ms) {
    for (std::uint64_t step; ms > 0; ms -= step) {
      step = std::min<std::uint64_t>(ms, 500);
      virtual_time::advance_ms(step);
      server_.tick();
    }
  }
  void wait_s(std::uint64_t seconds) { wait_ms(seconds * 1000); }

  RendezvousStatistics statistics() const { return server_.statistics(); }

  std::vector<Sent> sent;
  bool socket_fails = false;
  bool sink = false;  // what is sent is not kept
  std::uint8_t net_key[LUND_KEY_SIZE];

 private:
  static constexpr std::uint8_t KEY[] = {'s', 'e', 'c', 'r', 'e', 't'};
  RendezvousServer server_;
};

// A host as its engine speaks, but for its timers.
class SimHost {
 public:
  SimHost(RendezvousRig& rig, const lund_keypair& keys, const lund_rv_endpoint& at)
      : address(at), keys_(keys), rig_(&rig) {}

  lund_rv_message register_message() const {
    lund_rv_message message;
    message.type = LUND_RV_REGISTER;
    std::memcpy(message.key, keys_.public_key, sizeof message.key);
    message.lan_count = static_cast<int>(lan.size());
    std::copy(lan.begin(), lan.end(), message.lan);
    if (!challenge) return message;
    std::memcpy(message.token, challenge->token, sizeof message.token);
    lund_rv_register_proof(message.proof, keys_.secret, challenge->key, challenge->token,
                           keys_.public_key, lan.data(), message.lan_count);
    return message;
  }
  // Sends a REGISTER and gives the answer; a challenge is kept for the next one.
  lund_rv_message register_once() {
    rig_->receive(register_message(), address);
    const lund_rv_message answer = rig_->take_one(address);
    if (answer.type == LUND_RV_CHALLENGE) challenge = answer;
    return answer;
  }
  // Answers a challenge at once, as an engine does; the last answer.
  lund_rv_message register_fully() {
    const lund_rv_message first = register_once();
    return first.type == LUND_RV_CHALLENGE ? register_once() : first;
  }
  // Takes the notification that came, as the engine does.
  bool take_notification() {
    const lund_rv_message message = rig_->take_one(address);
    if (message.type != LUND_RV_PUNCH_NOTIFY) return false;
    notice = message;
    return true;
  }
  lund_rv_message bind() {
    lund_rv_message message;
    message.type = LUND_RV_BIND;
    message.allocation = notice.allocation;
    std::memcpy(message.token, notice.token, sizeof message.token);
    message.side = 0;
    rig_->receive(message, address);
    return rig_->take_one(address);
  }
  void send(const RendezvousRig::Bytes& bytes) { rig_->receive(bytes, address); }
  RendezvousRig::Bytes key_id() const {
    RendezvousRig::Bytes id(LUND_KEY_ID_SIZE);
    lund_key_id(id.data(), keys_.public_key);
    return id;
  }
  const std::uint8_t* key() const { return keys_.public_key; }

  lund_rv_endpoint address;
  std::vector<lund_rv_endpoint> lan;
  std::optional<lund_rv_message> challenge;
  lund_rv_message notice;

 private:
  lund_keypair keys_;
  RendezvousRig* rig_;
};

// A client as its engine speaks, but for its timers.
class SimClient {
 public:
  SimClient(RendezvousRig& rig, const lund_rv_endpoint& at) : address(at), rig_(&rig) {}

  lund_rv_message look_up(const RendezvousRig::Bytes& target) {
    lund_rv_message message;
    message.type = LUND_RV_LOOKUP;
    message.nonce = ++nonce;
    message.target_size = static_cast<std::uint8_t>(target.size());
    std::copy(target.begin(), target.end(), message.target);
    message.lan_count = static_cast<int>(lan.size());
    std::copy(lan.begin(), lan.end(), message.lan);
    rig_->receive(message, address);
    last_answers = rig_->take(address);
    const lund_rv_message answer = last_answers.size() == 1 ? last_answers[0] : lund_rv_message{};
    if (answer.type == LUND_RV_LOOKUP_RESULT && answer.status == 0) result = answer;
    return answer;
  }
  lund_rv_message look_up(const SimHost& host) { return look_up(host.key_id()); }
  lund_rv_message bind_message() const {
    lund_rv_message message;
    message.type = LUND_RV_BIND;
    message.allocation = result.allocation;
    std::memcpy(message.token, result.token, sizeof message.token);
    message.side = 1;
    return message;
  }
  lund_rv_message bind() {
    rig_->receive(bind_message(), address);
    return rig_->take_one(address);
  }
  void send(const RendezvousRig::Bytes& bytes) { rig_->receive(bytes, address); }

  lund_rv_endpoint address;
  std::vector<lund_rv_endpoint> lan;
  std::uint32_t nonce = 0;
  lund_rv_message result;
  std::vector<lund_rv_message> last_answers;  // to the last look-up

 private:
  RendezvousRig* rig_;
};

// A datagram that looks like a sealed record, which is all that a relay can tell.
inline RendezvousRig::Bytes sealed_record(std::size_t size = 100, std::uint8_t fill = 7) {
  RendezvousRig::Bytes out(size, fill);
  out[0] = LUND_MAGIC;
  out[1] = LUND_VERSION_SEALED;
  return out;
}
