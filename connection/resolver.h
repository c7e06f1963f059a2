// Relay servers by name: a thread that keeps their addresses fresh for an engine, and the look-ups
// and the reachability check that a user interface needs. Nothing here logs.
#pragma once

#include <cstdint>

#include "connection/conn_client.h"
#include "connection/conn_host.h"

// Fills in the server's endpoint, by the system's resolver unless its host is a literal; blocks.
// 0, or -1 with the endpoint as it was.
int lund_relay_resolve(lund_relay_server* server);
int lund_relay_config_resolve(lund_relay_config* config);  // how many have an endpoint then

enum lund_relay_check_result : int {
  LUND_RELAY_REACHABLE = 0,
  LUND_RELAY_NO_ANSWER = 1,  // offline, blocked, or another key
  LUND_RELAY_NO_NAME = 2,
  LUND_RELAY_LOCAL_FAILURE = 3,
};

// Whether a server answers to its key: a look-up of nobody, three times within `timeout_ms` (not
// positive: 1500). Blocks for that long at most, plus the resolver. `rtt_us_out` is 0 unless
// reachable.
int lund_relay_check(const lund_relay_server* server, int timeout_ms, std::uint64_t* rtt_us_out);

// Resolves each name of `relays` at once, again 120 s after a success and 10 s after a failure, and
// tells the engine each result. Null without a name to resolve, or without a thread. `relays` is
// copied; keys are not kept. The engine must outlive the call of lund_resolver_stop, after which
// the handle is gone.
struct lund_resolver;
lund_resolver* lund_resolver_start_host(lund_host* host, const lund_relay_config* relays);
lund_resolver* lund_resolver_start_client(lund_client* client, const lund_relay_config* relays);
// Doesn't wait for a look-up under way, whose result is thrown away: once it returns, no call into
// the engine is running and none will follow. Null is accepted. Lock order: resolver, then engine.
void lund_resolver_stop(lund_resolver* resolver);
