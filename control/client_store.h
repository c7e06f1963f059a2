// What the client remembers between runs: its identity (secret), the hosts that it has paired with,
// and the relay servers by which it reaches them (their links are secret too). Writes are atomic;
// the directory and its files are the user's alone.
//
// In the user's own place the identity is the one of the user's own host, so that two computers can
// be each other's client under one key. A place that has an identity file of its own, from before
// or because the caller named the directory, keeps using that.
//
// One thread. Another program may write the same store meanwhile: each change is made to what
// stands on the disk then, and the lists here become that.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "connection/lists.h"

inline constexpr std::uint16_t HOST_PORT = 9876;  // where a host listens unless told otherwise

class ClientStore {
 public:
  // `directory` empty: the user's own place, for which the keystore is put into the user scope.
  // Makes an identity where there is none; refuses, with words, what it can't read: an identity
  // lost means that every host must be paired again.
  bool open(std::filesystem::path directory, std::string* error);

  const lund_keypair& identity() const { return identity_; }
  bool identity_is_hosts() const { return identity_is_hosts_; }  // this user's own host has it too
  const lund_host_list& hosts() const { return hosts_; }
  const lund_relay_config& relays() const { return relays_; }

  // By name, key code, or address ("1.2.3.4" or with a port); of several that match, the one paired
  // last. Null when no host matches.
  const lund_host_entry* find(const std::string& selector) const;
  const lund_host_entry* find(const std::uint8_t key[LUND_KEY_SIZE]) const;
  int count(const std::string& selector) const;  // how many match

  bool put(lund_host_entry host, std::string* error);
  // Changes what is stored of a host; one that has been forgotten meanwhile stays forgotten.
  using Change = std::function<void(lund_host_entry& host)>;
  bool update(const lund_host_entry& host, const Change& change, std::string* error);
  bool forget(lund_host_entry host, std::string* error);

  // Saved when `change` says so.
  using RelayChange = std::function<bool(lund_relay_config* relays)>;
  bool change_relays(const RelayChange& change, std::string* error);

  ClientStore() = default;
  ClientStore(const ClientStore&) = delete;
  ClientStore& operator=(const ClientStore&) = delete;

 private:
  bool open_own_identity(bool make, std::string* error);
  bool open_hosts_identity(std::string* error);
  bool load_hosts(std::string* error);
  bool load_relays(std::string* error);
  bool save_hosts(std::string* error);
  bool save_relays(std::string* error);

  std::filesystem::path directory_;
  bool identity_is_hosts_ = false;
  lund_keypair identity_;
  lund_host_list hosts_;
  lund_relay_config relays_;
};
