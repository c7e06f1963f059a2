// What the host does for a client that a server has announced: datagrams to each of its addresses
// for a moment, so that the NATs on the way let its own come in, and a relay allocation beside
// them, by which it can be reached where that fails. Nothing of this admits anybody: the client's
// handshake, by whichever way it comes, does.
#include <algorithm>
#include <cstring>

#include "connection/conn_host_internal.h"
#include "connection/conn_punch.h"

namespace {

constexpr std::uint8_t STATUS_OK = 0;

constexpr std::uint64_t PUNCH_FOR_US = 2'500'000;
constexpr std::uint64_t PUNCH_EVERY_US = 50'000;
constexpr std::uint64_t BIND_RETRY_US = SECOND_US;
constexpr std::uint64_t BIND_KEEP_ALIVE_US = 15 * SECOND_US;
// Without a session, an allocation is bound for so long and no longer.
constexpr std::uint64_t BIND_FOR_US = 30 * SECOND_US;
constexpr std::uint64_t WORK_LIFE_US = 60 * SECOND_US;

bool any_session(const lund_host* host) {
  return std::any_of(std::begin(host->links), std::end(host->links),
                     [](const lund_host_link& link) { return link.used != 0; });
}

lund_host_work* find_work(lund_host* host, int server, std::uint32_t allocation) {
  for (lund_host_work& work : host->work)
    if (work.used != 0 && work.server == server && work.allocation == allocation) return &work;
  return nullptr;
}

// The first free entry, otherwise the oldest.
lund_host_work* take_work(lund_host* host) {
  lund_host_work* oldest = host->work;
  for (lund_host_work& work : host->work) {
    if (work.used == 0) return &work;
    if (work.created_at < oldest->created_at) oldest = &work;
  }
  return oldest;
}

lund_host_work* begin_work(lund_host* host, int server, const lund_rv_message& message,
                           std::uint64_t now) {
  lund_host_work* work = take_work(host);
  *work = {};
  work->used = 1;
  work->server = server;
  work->allocation = message.allocation;
  work->created_at = now;
  work->next_bind = now;
  char client[LUND_ADDR_TEXT];
  char name[LUND_SERVER_TEXT];
  conn_log(&host->base, "client %s via %s: punching %d candidates, relay allocation %08x",
           conn_addr_str(message.peer, client, sizeof client),
           conn_server_str(&host->base, server, name, sizeof name), message.lan_count + 1,
           message.allocation);
  return work;
}

bool lists(const lund_host_work& work, const lund_rv_endpoint& address) {
  return std::any_of(work.candidates, work.candidates + work.candidate_count,
                     [&](const lund_rv_endpoint& candidate) {
                       return lund_rv_endpoint_equal(candidate, address);
                     });
}

void add_candidate(lund_host_work* work, const lund_rv_endpoint& address) {
  if (address.family == 0 || lists(*work, address)) return;
  work->candidates[work->candidate_count++] = address;
}

// An entry that goes on binding: that of an announced client which may still come, or through which
// a session may run.
bool binds(const lund_host* host, const lund_host_work& work, std::uint64_t now) {
  return work.active != 0 && (any_session(host) || now - work.created_at < BIND_FOR_US);
}

void punch(lund_host* host, lund_host_work* work, std::uint64_t now) {
  if (now >= work->punch_until || now < work->next_punch) return;
  conn_send_punches(&host->base, lund_rv_side::host, work->punch_token, work->candidates,
                    work->candidate_count, &host->punch_nonce);
  work->next_punch = now + PUNCH_EVERY_US;
}

void bind_allocation(lund_host* host, lund_host_work* work, std::uint64_t now) {
  if (!binds(host, *work, now) || now < work->next_bind) return;
  conn_send_bind(&host->base, lund_rv_side::host, work->server, work->allocation, work->token);
  work->next_bind = now + (work->bound != 0 ? BIND_KEEP_ALIVE_US : BIND_RETRY_US);
}

void step(lund_host* host, lund_host_work* work, std::uint64_t now) {
  punch(host, work, now);
  bind_allocation(host, work, now);
}

bool outlived(const lund_host* host, const lund_host_work& work, std::uint64_t now) {
  return now - work.created_at > WORK_LIFE_US && (work.active == 0 || !any_session(host));
}

}  // namespace

void conn_host_take_notify(lund_host* host, int server, const lund_rv_message& message,
                           std::uint64_t now) {
  lund_host_work* work = find_work(host, server, message.allocation);
  if (work == nullptr) work = begin_work(host, server, message, now);
  for (lund_host_work& other : host->work)
    if (other.used != 0 && other.server == server) other.active = 0;
  work->active = 1;
  std::memcpy(work->token, message.token, sizeof work->token);
  std::memcpy(work->punch_token, message.punch_token, sizeof work->punch_token);
  work->candidate_count = 0;
  add_candidate(work, message.peer);
  for (int i = 0; i < message.lan_count; ++i) add_candidate(work, message.lan[i]);
  work->next_punch = now;
  work->punch_until = now + PUNCH_FOR_US;
  step(host, work, now);
}

void conn_host_take_bound(lund_host* host, int server, const lund_rv_message& message,
                          std::uint64_t now) {
  lund_host_work* work = find_work(host, server, message.allocation);
  if (work == nullptr) return;
  if (message.status != STATUS_OK) {
    *work = {};
    return;
  }
  if (work->bound == 0) conn_log(&host->base, "relay allocation %08x bound", work->allocation);
  work->bound = 1;
  work->next_bind = now + BIND_KEEP_ALIVE_US;
}

// A PUNCH proves nothing about its sender, so it changes nothing here. An acknowledgement needs no
// reaction: by arriving it has opened the way.
void conn_host_take_punch(lund_host* host, const lund_rv_message& message,
                          const lund_rv_endpoint& from) {
  if (message.type != LUND_RV_PUNCH) return;
  for (const lund_host_work& work : host->work) {
    if (work.used == 0 ||
        std::memcmp(work.punch_token, message.punch_token, sizeof work.punch_token) != 0)
      continue;
    conn_send_punch_ack(&host->base, lund_rv_side::host, message, from);
    return;
  }
}

void conn_host_work_tick(lund_host* host, std::uint64_t now, std::uint64_t* wake) {
  for (lund_host_work& work : host->work) {
    if (work.used == 0) continue;
    if (outlived(host, work, now)) {
      work = {};
      continue;
    }
    step(host, &work, now);
    if (now < work.punch_until) *wake = std::min(*wake, work.next_punch);
    if (binds(host, work, now)) *wake = std::min(*wake, work.next_bind);
  }
}

void conn_host_work_clear(lund_host* host, int server) {
  for (lund_host_work& work : host->work)
    if (work.used != 0 && work.server == server) work = {};
}

void conn_host_work_move(lund_host* host, const std::int32_t kept[LUND_RELAYS_MAX]) {
  for (lund_host_work& work : host->work) {
    if (work.used == 0) continue;
    if (kept[work.server] >= 0)
      work.server = kept[work.server];
    else
      work = {};
  }
}

bool conn_host_is_candidate(const lund_host* host, const lund_rv_endpoint& address) {
  return std::any_of(std::begin(host->work), std::end(host->work), [&](const lund_host_work& work) {
    return work.used != 0 && lists(work, address);
  });
}
