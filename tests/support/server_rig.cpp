#include "tests/support/server_rig.h"

#include <cstring>

#include "tests/support/virtual_time.h"

ServerRig::ServerRig(const std::function<void(lund_client_config&)>& adjust)
    : ClientRig([&adjust](lund_client_config& config) {
        config.relays = peer::relays_of({SERVERS[0], SERVERS[1]});
        if (adjust) adjust(config);
      }) {}

std::vector<lund_rv_message> ServerRig::asked(std::uint8_t type, int server) {
  std::vector<lund_rv_message> messages;
  std::erase_if(sent, [&](const Sent& datagram) {
    if (datagram.bytes[2] != type || !lund_rv_endpoint_equal(datagram.to, SERVERS[server].address))
      return false;
    const auto message = SERVERS[server].read(datagram.bytes);
    if (message) messages.push_back(*message);
    return message.has_value();
  });
  return messages;
}

int ServerRig::say(const lund_rv_message& message, int server) {
  return receive(SERVERS[server].address, SERVERS[server].say(message));
}

int ServerRig::punch(const lund_rv_endpoint& from, const lund_rv_message& message) {
  return receive(from, peer::punch(message.type, message.punch_token, message.nonce, message.side));
}

lund_rv_message ServerRig::result(std::uint32_t allocation, int server) {
  lund_rv_message message = server_peer::of_type(LUND_RV_LOOKUP_RESULT);
  message.nonce = state(server).nonce;
  std::memcpy(message.key, host_keypair.public_key, sizeof message.key);
  message.peer = EnginePair::HOST_WAN;
  message.observed = EnginePair::CLIENT_WAN;
  message.allocation = allocation;
  std::memcpy(message.token, &allocation, sizeof allocation);
  std::memcpy(message.punch_token, &allocation, sizeof allocation);
  message.token[15] = static_cast<std::uint8_t>(1 + server);
  message.punch_token[15] = static_cast<std::uint8_t>(0x81 + server);
  return message;
}

lund_rv_message ServerRig::failure(std::uint8_t status, int server) {
  lund_rv_message message = server_peer::of_type(LUND_RV_LOOKUP_RESULT);
  message.nonce = state(server).nonce;
  message.status = status;
  return message;
}

lund_rv_message ServerRig::bound(std::uint8_t status, int server) {
  lund_rv_message message = server_peer::of_type(LUND_RV_BOUND);
  message.allocation = state(server).allocation;
  message.status = status;
  return message;
}

lund_rv_message ServerRig::host_punch(std::uint32_t nonce, int server) {
  lund_rv_message message = server_peer::of_type(LUND_RV_PUNCH);
  message.nonce = nonce;
  std::memcpy(message.punch_token, state(server).punch_token, sizeof message.punch_token);
  return message;
}

void ServerRig::find(int server) {
  lund_client_connect(client);
  tick();
  say(result(0xA110C, server), server);
}

std::vector<std::uint64_t> ServerRig::times_of(std::uint8_t type, std::uint64_t ms, int server) {
  std::vector<std::uint64_t> times;
  const std::uint64_t start = lund_now_us();
  const std::uint64_t end = start + ms * 1000;
  while (lund_now_us() <= end) {
    const std::uint64_t now = lund_now_us();
    const std::uint64_t wait = tick();
    if (!asked(type, server).empty()) times.push_back((now - start) / 1000);
    virtual_time::advance_us(wait);
  }
  return times;
}
