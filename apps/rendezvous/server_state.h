// Inside the rendezvous server: its tables and what it does with each message.
//   server.cpp               dispatch, answers, relaying
//   server_registration.cpp  REGISTER
//   server_lookup.cpp        LOOKUP and BIND, notifications of hosts
#pragma once

#include "apps/rendezvous/accounts.h"
#include "apps/rendezvous/allocations.h"
#include "apps/rendezvous/hosts.h"
#include "apps/rendezvous/server.h"
#include "apps/rendezvous/tickets.h"

// Values of LUND_RV_ERROR's status.
enum RendezvousError : std::uint8_t {
  ERROR_TRY_LATER = 0,
  ERROR_START_OVER = 2,
  ERROR_FULL = 4,
};

struct RendezvousServer::State {
  State(const std::uint8_t* key, std::size_t key_size, const RendezvousLimits& wanted, Send sender);
  ~State();

  void receive(const std::uint8_t* datagram, std::size_t size, const lund_rv_endpoint& from);
  void relay(const std::uint8_t* datagram, std::size_t size, const lund_rv_endpoint& from);
  void on_message(const lund_rv_message& message, std::size_t size, const lund_rv_endpoint& from);
  void on_register(const lund_rv_message& message, const lund_rv_endpoint& from, Account& account);
  void on_lookup(const lund_rv_message& message, const lund_rv_endpoint& from, Account& account);
  void on_bind(const lund_rv_message& message, const lund_rv_endpoint& from, Account& account);

  // To the sender of a message, at its account's expense; false when it couldn't pay.
  bool answer(const lund_rv_message& message, const lund_rv_endpoint& to, Account& account);
  void refuse(RendezvousError error, const lund_rv_message& request, const lund_rv_endpoint& to,
              Account& account);
  void send_bytes(const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size);

  void confirm_registration(const lund_rv_endpoint& to, Account& account);

  // The host hears of the client, and makes this allocation its current one.
  void notify(Host& host, const Allocation& allocation, const LanEndpoints& client_lan);
  // Whether the host may be notified on behalf of an address that may be spoofed.
  bool may_notify_unproven(Host& host, Account& account);
  Allocation* current_of(const Host& host);
  enum class BindOutcome { Bound, Gone, NotYet };
  BindOutcome bind(const lund_rv_message& message, const lund_rv_endpoint& from);
  Allocation* bring_back(const lund_rv_message& bind, const lund_rv_endpoint& from);
  bool may_bind_from(const lund_rv_endpoint& from, const Allocation& allocation, Side side);

  std::uint8_t net_key[LUND_KEY_SIZE];
  const RendezvousLimits limits;
  const Rate request_rate, proof_rate, relay_rate;
  Send send;
  Tickets tickets;
  lund_keypair identity;
  bool ready = false;
  std::uint64_t now_us;  // of the datagram being worked on
  AccountTable accounts;
  HostTable hosts;
  AllocationTable allocations;
  TokenBucket proofs;
  std::uint32_t notification_nonce = 0;
  RendezvousStatistics counts;
};

// The endpoints that another party may be told of: those in networks that aren't routed, or at the
// sender's own address. Otherwise anybody could have a host punch at a third party.
LanEndpoints tellable(const LanEndpoints& lan, const lund_rv_endpoint& observed);
LanEndpoints lan_of(const lund_rv_message& message);
