// A UDP port for a program that has to be told one.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "connection/netsock.h"
#include "control/sysinfo_platform.h"

// Nobody has it, and nobody else gets it until somebody opens it: it lies below those that systems
// hand out by themselves (Linux from 32768, Windows from 49152), and each process of the tests
// looks from a place of its own on.
inline std::uint16_t free_port() {
  constexpr std::uint32_t FIRST = 10'000, COUNT = 20'000, OF_A_PROCESS = 16;
  static std::uint32_t next = sysinfo_platform::process_id() * OF_A_PROCESS;
  lund_net_init();
  for (std::uint32_t tries = 0; tries < COUNT; ++tries) {
    const auto port = static_cast<std::uint16_t>(FIRST + next++ % COUNT);
    const lund_socket socket = lund_udp_open(4, nullptr, port);
    if (socket == LUND_NO_SOCKET) continue;
    lund_udp_close(socket);
    return port;
  }
  ADD_FAILURE() << "no UDP port is free";
  return 0;
}
