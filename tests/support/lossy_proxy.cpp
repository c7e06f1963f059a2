#include "tests/support/lossy_proxy.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "connection/clock.h"
#include "connection/protocol.h"

namespace {

constexpr std::size_t DATAGRAM_BYTES = 65'535;
constexpr std::size_t CLIENTS_MAX = 63;  // lund_udp_wait takes 64 sockets
constexpr int AT_ONCE = 256;             // so that a flood keeps nothing waiting
constexpr std::uint64_t WAIT_MAX_US = 60'000'000;

lund_rv_endpoint loopback(std::uint16_t port) {
  lund_rv_endpoint address;
  lund_addr_parse(&address, "127.0.0.1", port);
  return address;
}

lund_socket open_socket() {
  const lund_rv_endpoint address = loopback(0);
  const lund_socket socket = lund_udp_open(4, &address, 0);
  if (socket == LUND_NO_SOCKET) ADD_FAILURE() << "no UDP socket could be opened";
  return socket;
}

bool asks_for_hosts(const std::uint8_t* bytes, std::size_t size) {
  lund_discover question;
  return lund_decode_discover(bytes, size, &question) == 0;
}

}  // namespace

std::string LossyProxy::Counts::text() const {
  return std::to_string(received) + " received, " + std::to_string(lost) + " lost, " +
         std::to_string(duplicated) + " duplicated, " + std::to_string(held_back) + " held back, " +
         std::to_string(passed_on) + " passed on";
}

LossyProxy::LossyProxy(const lund_rv_endpoint& host, const NetworkLink& to_host,
                       const NetworkLink& to_client, std::uint64_t seed)
    : host_(host), to_host_(to_host, seed), to_client_(to_client, ~seed) {
  lund_net_init();
  socket_ = open_socket();
  address_ = loopback(lund_udp_local_port(socket_));
  thread_ = std::thread([this] { run(); });
}

LossyProxy::~LossyProxy() {
  {
    const std::lock_guard lock(mutex_);
    leave_ = true;
  }
  lund_udp_send(socket_, address_, "", 0);  // ends the thread's wait
  thread_.join();
  for (const Client& client : clients_) lund_udp_close(client.socket);
  lund_udp_close(socket_);
}

LossyProxy::Counts LossyProxy::to_host() const {
  const std::lock_guard lock(mutex_);
  return to_host_.counts;
}

LossyProxy::Counts LossyProxy::to_client() const {
  const std::lock_guard lock(mutex_);
  return to_client_.counts;
}

void LossyProxy::run() {
  for (;;) {
    wait();
    {
      const std::lock_guard lock(mutex_);
      if (leave_) return;
    }
    receive_from_clients();
    for (const Client& client : clients_) receive_from_host(client);
    send_what_is_due();
  }
}

// For a datagram, or until the next one is due.
void LossyProxy::wait() const {
  std::vector<lund_socket> sockets = {socket_};
  for (const Client& client : clients_) sockets.push_back(client.socket);
  const std::uint64_t now = lund_now_us();
  const std::uint64_t due = in_flight_.empty() ? now + WAIT_MAX_US : in_flight_.top().at_us;
  const std::uint64_t wait_us = std::min(due > now ? due - now : 0, WAIT_MAX_US);
  lund_udp_wait(sockets.data(), static_cast<int>(sockets.size()),
                static_cast<int>((wait_us + 999) / 1000));
}

void LossyProxy::receive_from_clients() {
  std::uint8_t bytes[DATAGRAM_BYTES];
  lund_rv_endpoint from;
  for (int i = 0; i < AT_ONCE; ++i) {
    const int size = lund_udp_recv(socket_, bytes, sizeof bytes, &from);
    if (size < 0) return;
    const auto length = static_cast<std::size_t>(size);
    if (length == 0 || asks_for_hosts(bytes, length)) continue;
    const Client* client = client_at(from);
    if (client) take(to_host_, client->socket, host_, bytes, length);
  }
}

void LossyProxy::receive_from_host(const Client& client) {
  std::uint8_t bytes[DATAGRAM_BYTES];
  lund_rv_endpoint from;
  for (int i = 0; i < AT_ONCE; ++i) {
    const int size = lund_udp_recv(client.socket, bytes, sizeof bytes, &from);
    if (size < 0) return;
    if (size > 0 && lund_rv_endpoint_equal(from, host_))
      take(to_client_, socket_, client.address, bytes, static_cast<std::size_t>(size));
  }
}

void LossyProxy::take(Way& way, lund_socket socket, const lund_rv_endpoint& to,
                      const std::uint8_t* bytes, std::size_t size) {
  const std::uint64_t now = lund_now_us();
  const NetworkFate fate = decide_fate(way.random, way.link);
  const std::uint64_t sent = now + way.queue.wait_us(way.link, size, now);
  const std::lock_guard lock(mutex_);
  const auto put = [&](std::uint64_t after_us) {
    in_flight_.push({sent + after_us, order_++, socket, to, {bytes, bytes + size}, &way.counts});
    ++way.counts.on_its_way;
  };
  ++way.counts.received;
  if (!fate.arrives) ++way.counts.lost;
  if (fate.held_back) ++way.counts.held_back;
  if (fate.twice) ++way.counts.duplicated;
  if (fate.arrives) put(fate.after_us);
  if (fate.twice) put(fate.copy_after_us);
}

void LossyProxy::send_what_is_due() {
  const std::uint64_t now = lund_now_us();
  for (; !in_flight_.empty() && in_flight_.top().at_us <= now; in_flight_.pop()) {
    const InFlight& next = in_flight_.top();
    const std::lock_guard lock(mutex_);  // whoever has received it finds it counted
    if (lund_udp_send(next.socket, next.to, next.bytes.data(), next.bytes.size()) != 0)
      ADD_FAILURE() << "the proxy itself has lost a datagram";
    --next.counts->on_its_way;
    ++next.counts->passed_on;
  }
}

const LossyProxy::Client* LossyProxy::client_at(const lund_rv_endpoint& address) {
  for (const Client& client : clients_)
    if (lund_rv_endpoint_equal(client.address, address)) return &client;
  if (clients_.size() == CLIENTS_MAX) {
    ADD_FAILURE() << "more clients than the proxy has sockets for";
    return nullptr;
  }
  return &clients_.emplace_back(address, open_socket());
}
