#include "tests/support/rendezvous_sockets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "connection/byte_order.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

// At a time, so that a socket buffer of the usual size holds what they say.
constexpr std::size_t HOSTS_TOGETHER = 250;
constexpr milliseconds RESEND{300};

milliseconds left_until(Clock::time_point end) {
  return std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(end - Clock::now()));
}

lund_rv_message message_of(std::uint8_t type) {
  lund_rv_message out;
  out.type = type;
  return out;
}

}  // namespace

RendezvousProgram::RendezvousProgram(const std::vector<std::string>& arguments) {
  write_file(directory_ / "key", KEY);
  std::vector<std::string> all = {
      own_program("lunderhaze-rendezvous"), "--port", "0", "--host", "127.0.0.1", "--key-file",
      (directory_ / "key").string()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  process_ = std::make_unique<ChildProcess>(all);
  lund_rv_net_key(net_key_, reinterpret_cast<const std::uint8_t*>(KEY), std::strlen(KEY));
  if (!process_->wait_for_output("Ctrl+C stops.\n", seconds(20))) {
    ADD_FAILURE() << process_->output();
    return;
  }
  constexpr std::string_view BEFORE = "Listening on UDP port ";
  const std::size_t at = process_->output().find(BEFORE) + BEFORE.size();
  port_ = static_cast<std::uint16_t>(std::stoi(process_->output().substr(at)));
}

lund_rv_endpoint RendezvousProgram::address() const {
  lund_rv_endpoint out;
  lund_addr_parse(&out, "127.0.0.1", port_);
  return out;
}

std::string RendezvousProgram::statistics() {
  const std::size_t before = process_->output().size();
  process_->signal(REPORT_SIGNAL);
  // The last word of it; a text that never comes makes the wait read what there is.
  const auto complete = [&] {
    return process_->output().find("not sent", before) != std::string::npos;
  };
  for (int i = 0; i < 100 && !complete(); ++i) process_->wait_for_output("\x01", milliseconds(100));
  return process_->output().substr(before);
}

LoopbackPeer::LoopbackPeer(const std::string& address, const RendezvousProgram& server)
    : socket(address), server_(server.address()) {
  std::memcpy(net_key_, server.net_key(), sizeof net_key_);
}

void LoopbackPeer::send(const lund_rv_message& message) const {
  LoopbackSocket::Bytes bytes(LUND_RV_MESSAGE_MAX);
  bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), net_key_, &message));
  socket.send(server_, bytes);
}

std::optional<lund_rv_message> LoopbackPeer::receive(std::uint8_t type, milliseconds deadline) {
  const auto end = Clock::now() + deadline;
  while (const auto bytes = socket.receive(left_until(end))) {
    lund_rv_message message;
    if (lund_rv_decode(bytes->data(), bytes->size(), net_key_, &message) == LUND_OK &&
        (type == 0 || message.type == type))
      return message;
  }
  return std::nullopt;
}

std::optional<lund_rv_message> LoopbackPeer::ask(const lund_rv_message& message, std::uint8_t type,
                                                 milliseconds deadline) {
  for (const auto end = Clock::now() + deadline; Clock::now() < end;) {
    send(message);
    if (const auto answer = receive(type, RESEND)) return answer;
  }
  return std::nullopt;
}

bool LoopbackPeer::bind(const lund_rv_message& told, std::uint8_t side) {
  lund_rv_message message = message_of(LUND_RV_BIND);
  message.allocation = told.allocation;
  std::memcpy(message.token, told.token, sizeof message.token);
  message.side = side;
  const auto bound = ask(message, LUND_RV_BOUND);
  return bound && bound->status == 0;
}

std::optional<lund_rv_message> LoopbackPeer::look_up(const std::uint8_t* target, std::size_t size) {
  lund_rv_message message = message_of(LUND_RV_LOOKUP);
  message.nonce = 1;
  message.target_size = static_cast<std::uint8_t>(size);
  std::memcpy(message.target, target, size);
  return ask(message, LUND_RV_LOOKUP_RESULT);
}

struct LoopbackHosts::Host {
  Host(std::uint32_t number, const std::string& address, const RendezvousProgram& server)
      : peer(std::make_unique<LoopbackPeer>(address, server)) {
    std::uint8_t secret[LUND_KEY_SIZE] = {};
    store_le(secret + 1, number + 1);
    lund_keypair_from_secret(&keys, secret);
    std::memcpy(request.key, keys.public_key, LUND_KEY_SIZE);
  }

  void take_answers() {
    while (const auto answer = peer->receive(0, milliseconds(0))) {
      if (answer->type == LUND_RV_REGISTERED) confirmed = true;
      if (answer->type != LUND_RV_CHALLENGE) continue;
      std::memcpy(request.token, answer->token, sizeof request.token);
      lund_rv_register_proof(request.proof, keys.secret, answer->key, answer->token,
                             keys.public_key, nullptr, 0);
      peer->send(request);
    }
  }

  std::unique_ptr<LoopbackPeer> peer;
  lund_keypair keys;
  lund_rv_message request = message_of(LUND_RV_REGISTER);
  bool confirmed = false;
};

LoopbackHosts::LoopbackHosts(int count, const RendezvousProgram& server,
                             const std::string& address) {
  for (int i = 0; i < count; ++i)
    hosts_.emplace_back(static_cast<std::uint32_t>(i),
                        address.empty()
                            ? "127.1." + std::to_string(i / 200) + "." + std::to_string(1 + i % 200)
                            : address,
                        server);
}

LoopbackHosts::~LoopbackHosts() = default;

LoopbackPeer& LoopbackHosts::peer_of(int host) {
  return *hosts_[static_cast<std::size_t>(host)].peer;
}

const std::uint8_t* LoopbackHosts::key(int host) const {
  return hosts_[static_cast<std::size_t>(host)].keys.public_key;
}

void LoopbackHosts::register_some(std::size_t begin, std::size_t end, Clock::time_point deadline) {
  std::vector<Host*> waiting;
  for (std::size_t i = begin; i < end; ++i) waiting.push_back(&hosts_[i]);
  for (auto resend = Clock::now(); !waiting.empty() && Clock::now() < deadline;) {
    if (Clock::now() >= resend) {
      for (const Host* host : waiting) host->peer->send(host->request);
      resend = Clock::now() + RESEND;
    }
    const lund_socket first = waiting.front()->peer->socket.handle();
    lund_udp_wait(&first, 1, 5);
    for (Host* host : waiting) host->take_answers();
    std::erase_if(waiting, [](const Host* host) { return host->confirmed; });
  }
}

int LoopbackHosts::register_all(seconds deadline) {
  const auto end = Clock::now() + deadline;
  for (Host& host : hosts_) {
    host.take_answers();  // what came twice the last time
    host.confirmed = false;
  }
  for (std::size_t i = 0; i < hosts_.size(); i += HOSTS_TOGETHER)
    register_some(i, std::min(i + HOSTS_TOGETHER, hosts_.size()), end);
  return static_cast<int>(
      std::count_if(hosts_.begin(), hosts_.end(), [](const Host& h) { return h.confirmed; }));
}
