// Passwords and PINs pass through the service; what held one is wiped before it is freed.
#pragma once

#include "connection/secure.h"

// A text or bytes, wiped with its scope.
template <class Bytes>
struct WipedBytes {
  Bytes value;
  WipedBytes() = default;
  explicit WipedBytes(Bytes initial) : value(std::move(initial)) {}
  ~WipedBytes() { lund_secure_wipe(value.data(), value.size()); }
  WipedBytes(const WipedBytes&) = delete;
  WipedBytes& operator=(const WipedBytes&) = delete;
};
