// Passwords and PINs pass through the service; what held one is wiped before it is freed.
#pragma once

#include "connection/secure.h"

// A text or bytes, wiped with its scope.
template <class Bytes>
struct Wiped {
  Bytes value;
  Wiped() = default;
  explicit Wiped(Bytes initial) : value(std::move(initial)) {}
  ~Wiped() { lund_secure_wipe(value.data(), value.size()); }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
};
