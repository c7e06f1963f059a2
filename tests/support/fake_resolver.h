// The resolver of a host's server names without its thread: it finds what a test says, when a test
// says it. Linking the object library test_fake_resolver puts it in place of the real one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connection/resolver.h"

struct FakeResolver {
  lund_host* host = nullptr;
  lund_relay_config relays;  // of which it was told
  bool stopped = false;
  std::vector<std::string> servers_at_stop;  // the engine's table at that moment, the hosts

  void found(int server, const char* ip);  // null: not found
};

// Those that were started, in order, since a test last emptied the list.
std::vector<std::unique_ptr<FakeResolver>>& fake_resolvers();
