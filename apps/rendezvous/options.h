// What the program is told: where to listen and under which key, from options, a link, a file, or
// drawn at random; and the link to hand out.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "apps/rendezvous/server.h"
#include "connection/lists.h"

struct RendezvousOptions {
  std::optional<std::uint16_t> port;  // to listen on, 0 for any; none: the link's, or the default
  // One of these at most.
  std::optional<std::string> key;                 // as in a link
  std::optional<std::filesystem::path> key_file;  // its first line: a key, or a whole link
  std::optional<std::string> link;
  std::string bind;        // the local address to listen on and answer from; empty: all
  std::string host;        // by which clients reach this server; empty: the link's, or found out
  bool hide_link = false;  // what it prints is kept where more people read than may know the key
  RendezvousLimits limits;
};

// Holds a secret; wiped at the end of its life.
struct RendezvousSetup {
  lund_relay_server server;  // as the link says
  lund_rv_endpoint listen;   // family 0 for all local addresses; its port counts in any case
  bool from_link = false;    // the port in the link stands, whatever is listened on here
};

// `own_host` is taken where neither options nor link name a host. A random key is drawn where none
// is given. False with a text for a person.
bool set_up(const RendezvousOptions& options, const std::string& own_host, RendezvousSetup* setup,
            std::string* error);
