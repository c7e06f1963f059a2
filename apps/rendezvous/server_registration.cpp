// REGISTER: a challenge for whoever comes without one, the proof of the rest.
#include <monocypher.h>

#include <algorithm>
#include <cstring>

#include "apps/rendezvous/server_state.h"

namespace {

// Short, because a registration is also what keeps the host's NAT mapping open.
constexpr std::uint16_t LEASE_SECONDS = 20;

Registration registration_of(const lund_rv_message& message, const lund_rv_endpoint& from) {
  Registration out;
  std::copy(std::begin(message.key), std::end(message.key), out.key.begin());
  out.address = from;
  std::copy(std::begin(message.token), std::end(message.token), out.challenge.begin());
  std::copy(std::begin(message.proof), std::end(message.proof), out.proof.begin());
  out.lan = lan_of(message);
  return out;
}

// The agreement's shared secret comes out the same on either side of it, so the host's function
// makes the proof to compare with.
bool proof_is_right(const Registration& r, const lund_keypair& server) {
  std::uint8_t expected[16];
  if (lund_rv_register_proof(expected, server.secret, r.key.data(), r.challenge.data(),
                             r.key.data(), r.lan.endpoints.data(), r.lan.count) != LUND_OK)
    return false;
  return crypto_verify16(expected, r.proof.data()) == 0;
}

}  // namespace

void RendezvousServer::State::on_register(const lund_rv_message& message,
                                          const lund_rv_endpoint& from, Account& account) {
  const Registration registration = registration_of(message, from);
  if (!tickets.is_current(registration.challenge.data(), from, message.key, now_us)) {
    ++counts.challenges;
    lund_rv_message challenge;
    challenge.type = LUND_RV_CHALLENGE;
    const Token token = tickets.challenge(from, message.key, now_us);
    std::copy(token.begin(), token.end(), challenge.token);
    std::copy(std::begin(identity.public_key), std::end(identity.public_key), challenge.key);
    challenge.observed = from;
    answer(challenge, from, account);
    return;
  }
  // The very bytes that were proved before need no arithmetic: 10,000 hosts refresh 500 times a
  // second.
  Host* known = hosts.find(registration.key);
  if (known && same_registration(known->registration, registration)) {
    ++counts.refreshes;
    hosts.refresh(*known, now_us);
    return confirm_registration(from, account);
  }
  if (!proofs.take(proof_rate, now_us)) {
    ++counts.busy;
    return refuse(ERROR_TRY_LATER, message, from, account);
  }
  if (!proof_is_right(registration, identity)) {
    ++counts.bad_proof;
    return refuse(ERROR_START_OVER, message, from, account);
  }
  if (!hosts.put(registration, now_us)) {
    ++counts.full;
    return refuse(ERROR_FULL, message, from, account);
  }
  ++counts.registrations;
  confirm_registration(from, account);
}

void RendezvousServer::State::confirm_registration(const lund_rv_endpoint& to, Account& account) {
  account.prove(now_us);
  lund_rv_message registered;
  registered.type = LUND_RV_REGISTERED;
  registered.observed = to;
  registered.lease_seconds = LEASE_SECONDS;
  answer(registered, to, account);
}
