// What a test puts into a store.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "connection/lists.h"

// A pairing password's verifier, as an engine writes it, without being any password's.
inline std::string password_blob(char digit = 'b') {
  return "lunderhaze-pw1 " + std::string(32, 'a') + " 65536 3 " + std::string(64, digit);
}

inline lund_client_list clients_named(const std::string& name, int count) {
  lund_client_list clients;
  for (int i = 0; i < count; ++i) {
    std::uint8_t key[LUND_KEY_SIZE] = {};
    key[0] = static_cast<std::uint8_t>(i + 1);
    EXPECT_EQ(lund_client_list_add(&clients, key, name.c_str()), i);
  }
  return clients;
}

inline lund_relay_config one_relay(
    const std::string& link = "lunderhaze-relay://relay.example:1234#secret-key") {
  lund_relay_config relays;
  EXPECT_EQ(lund_relay_config_add_link(&relays, link.c_str()), 0);
  return relays;
}
