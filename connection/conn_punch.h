// What the host's and the client's engine say alike towards each other and for their allocation;
// they differ by the side that they speak for.
#pragma once

#include "connection/conn.h"

enum class lund_rv_side : std::uint8_t { host = 0, client = 1 };

// A PUNCH to each candidate, each with a nonce of its own from the running counter.
void conn_send_punches(lund_conn_base* base, lund_rv_side side, const std::uint8_t punch_token[16],
                       const lund_rv_endpoint* candidates, int count, std::uint32_t* nonce);
void conn_send_punch_ack(lund_conn_base* base, lund_rv_side side, const lund_rv_message& punch,
                         const lund_rv_endpoint& to);
void conn_send_bind(lund_conn_base* base, lund_rv_side side, int server, std::uint32_t allocation,
                    const std::uint8_t token[16]);
