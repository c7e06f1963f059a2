// What held a secret leaves nothing behind, whichever way its scope is left. The records of secrets
// themselves (lund_keypair, lund_relay_server, lund_pairing_status) do so by nature; this is for
// everything else.
#pragma once

#include <utility>

#include "connection/secure.h"

// Of a string or a vector all that it has room for, a string's short form within the object too.
// Growth leaves the former room behind: give it its size before anything secret comes in.
template <class Owner>
void wipe_owned(Owner& owner) noexcept {
  owner.clear();
  lund_secure_wipe(owner.data(), owner.capacity() * sizeof(*owner.data()));
}

// A value, or a string or a vector with what it owns. One that it is made from is wiped as well:
// moving a short string copies it.
template <class T>
struct Wiped {
  T value{};
  Wiped() = default;
  explicit Wiped(T&& from) : value(std::move(from)) { wipe(from); }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  ~Wiped() { wipe(value); }

 private:
  static void wipe(T& wiped) {
    if constexpr (requires { wiped.capacity(); })
      wipe_owned(wiped);
    else
      lund_secure_wipe(&wiped, sizeof wiped);
  }
};
