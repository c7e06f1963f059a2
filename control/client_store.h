// What the client remembers between runs, in a directory of its own: its identity (secret) and the
// hosts that it has paired with. Writes are atomic; the directory and its files are the user's
// alone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "connection/lists.h"

inline constexpr std::uint16_t HOST_PORT = 9876;  // where a host listens unless told otherwise

class ClientStore {
 public:
  // `directory` empty: the user's own place. Makes an identity where there is none; refuses, with
  // words, what it can't read: an identity lost means that every host must be paired again.
  bool open(std::filesystem::path directory, std::string* error);

  const lund_keypair& identity() const { return identity_; }
  const lund_host_list& hosts() const { return hosts_; }

  // By name, key code, or address ("1.2.3.4" or with a port); null when no host matches.
  const lund_host_entry* find(const std::string& selector) const;

  bool put(const lund_host_entry& host, std::string* error);

  ~ClientStore();

 private:
  std::filesystem::path directory_;
  lund_keypair identity_;
  lund_host_list hosts_;
};
