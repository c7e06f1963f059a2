#include "tests/support/fake_resolver.h"

#include <algorithm>

std::vector<std::unique_ptr<FakeResolver>>& fake_resolvers() {
  static std::vector<std::unique_ptr<FakeResolver>> resolvers;
  return resolvers;
}

void FakeResolver::found(int server, const char* ip) {
  const lund_relay_server& relay = relays.servers[server];
  lund_rv_endpoint endpoint;
  if (ip != nullptr) lund_addr_parse_ip(&endpoint, ip);
  lund_host_server_resolved(host, relay.host, relay.port, ip != nullptr ? &endpoint : nullptr);
}

struct lund_resolver {
  FakeResolver* fake;
};

// As the real one: nothing to do without a name.
lund_resolver* lund_resolver_start_host(lund_host* host, const lund_relay_config* relays) {
  const lund_relay_server* end = relays->servers + relays->count;
  const auto is_name = [](const lund_relay_server& server) {
    lund_rv_endpoint literal;
    return lund_addr_parse_ip(&literal, server.host) != 0;
  };
  if (std::none_of(relays->servers, end, is_name)) return nullptr;
  fake_resolvers().push_back(std::make_unique<FakeResolver>(FakeResolver{host, *relays, {}, {}}));
  return new lund_resolver{fake_resolvers().back().get()};
}

lund_resolver* lund_resolver_start_client(lund_client*, const lund_relay_config*) {
  return nullptr;
}

void lund_resolver_stop(lund_resolver* resolver) {
  if (resolver == nullptr) return;
  FakeResolver& fake = *resolver->fake;
  fake.stopped = true;
  lund_server_status server;
  for (int i = 0; lund_host_server_status(fake.host, i, &server) == 0; ++i)
    fake.servers_at_stop.emplace_back(server.host);
  delete resolver;
}
