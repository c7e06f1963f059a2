#include "connection/conn_punch.h"

#include <cstring>

void conn_send_punches(lund_conn_base* base, lund_rv_side side, const std::uint8_t punch_token[16],
                       const lund_rv_endpoint* candidates, int count, std::uint32_t* nonce) {
  lund_rv_message punch;
  punch.type = LUND_RV_PUNCH;
  punch.side = static_cast<std::uint8_t>(side);
  std::memcpy(punch.punch_token, punch_token, sizeof punch.punch_token);
  for (int i = 0; i < count; ++i) {
    punch.nonce = (*nonce)++;
    conn_send_rv(base, candidates[i], punch, nullptr);
  }
}

void conn_send_punch_ack(lund_conn_base* base, lund_rv_side side, const lund_rv_message& punch,
                         const lund_rv_endpoint& to) {
  lund_rv_message ack = punch;  // the same token and nonce
  ack.type = LUND_RV_PUNCH_ACK;
  ack.side = static_cast<std::uint8_t>(side);
  conn_send_rv(base, to, ack, nullptr);
}

void conn_send_bind(lund_conn_base* base, lund_rv_side side, int server, std::uint32_t allocation,
                    const std::uint8_t token[16]) {
  lund_rv_message bind;
  bind.type = LUND_RV_BIND;
  bind.side = static_cast<std::uint8_t>(side);
  bind.allocation = allocation;
  std::memcpy(bind.token, token, sizeof bind.token);
  conn_send_server(base, server, bind);
}
