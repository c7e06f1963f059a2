// What the tests of the resolver's thread share.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "connection/resolver_internal.h"

constexpr std::chrono::seconds PATIENCE{20};  // for another thread to come along

inline lund_relay_config relays_of(const std::vector<std::string>& hosts) {
  lund_relay_config config;
  const std::uint8_t key[] = {1, 2, 3};
  for (const std::string& host : hosts)
    EXPECT_EQ(lund_relay_server_set(&config.servers[config.count++], host.c_str(), 9877, key, 3),
              0);
  return config;
}

template <class Done>
bool soon(const Done& done) {
  const auto limit = std::chrono::steady_clock::now() + PATIENCE;
  while (!done() && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
}
