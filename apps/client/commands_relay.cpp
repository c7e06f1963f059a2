// relay list, add, remove, check: the servers by which hosts are reached from outside.
#include <algorithm>
#include <cstdio>

#include "apps/client/commands.h"
#include "apps/client/relay_links.h"
#include "connection/resolver.h"

namespace client_app {

namespace {

// What the command line names, by link or by the name of one that is remembered.
bool named_relays(const std::string& text, const lund_relay_config& remembered,
                  lund_relay_config* named, std::string* error) {
  for (int i = 0; i < remembered.count; ++i)
    if (relay_name(remembered.servers[i]) == text || remembered.servers[i].host == text)
      return lund_relay_config_add(named, &remembered.servers[i]) >= 0;
  if (!add_relay_link(text, named, error)) {
    if (text != "-")
      *error =
          "this is neither a remembered relay server nor a link "
          "(lunderhaze-relay://host[:port]#key)";
    return false;
  }
  if (named->count == 0) *error = "no relay link on standard input";
  return named->count > 0;
}

int check(const lund_relay_server& server) {
  std::uint64_t rtt_us = 0;
  const int result = lund_relay_check(&server, 0, &rtt_us);
  std::printf("%s: %s\n", relay_name(server).c_str(), relay_check_text(result, rtt_us).c_str());
  std::fflush(stdout);
  return relay_check_status(result);
}

}  // namespace

std::string relay_check_text(int result, std::uint64_t rtt_us) {
  char text[64];
  switch (result) {
    case LUND_RELAY_REACHABLE:
      std::snprintf(text, sizeof text, "reachable (rtt %.1f ms)",
                    static_cast<double>(rtt_us) / 1000);
      return text;
    case LUND_RELAY_NO_ANSWER:
      return "no answer: offline, blocked, or wrong secret";
    case LUND_RELAY_NO_NAME:
      return "name not found";
    default:
      return "local failure: no socket or no random source";
  }
}

int relay_check_status(int result) {
  switch (result) {
    case LUND_RELAY_REACHABLE:
      return EXIT_OK;
    case LUND_RELAY_NO_ANSWER:
    case LUND_RELAY_NO_NAME:
      return EXIT_NO_ANSWER;
    default:
      return EXIT_LOCAL;
  }
}

int run_relay_list(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  const lund_relay_config& relays = store.relays();
  if (relays.count == 0) std::printf("no relay servers are remembered\n");
  for (int i = 0; i < relays.count; ++i) std::printf("%s\n", relay_name(relays.servers[i]).c_str());
  return EXIT_OK;
}

int run_relay_add(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  lund_relay_config added;
  if (!add_relay_link(args.relay, &added, &error)) return fail(EXIT_USAGE, error);
  for (int i = 0; i < added.count; ++i) {
    if (!store.put_relay(added.servers[i], &error)) return fail(EXIT_LOCAL, error);
    std::printf("relay server %s is remembered\n", relay_name(added.servers[i]).c_str());
  }
  return added.count > 0 ? EXIT_OK : fail(EXIT_USAGE, "no relay link on standard input");
}

int run_relay_remove(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  lund_relay_config named;
  if (!named_relays(args.relay, store.relays(), &named, &error)) return fail(EXIT_USAGE, error);
  for (int i = 0; i < named.count; ++i) {
    if (!store.forget_relay(named.servers[i], &error)) return fail(EXIT_REFUSED, error);
    std::printf("relay server %s is forgotten\n", relay_name(named.servers[i]).c_str());
  }
  return EXIT_OK;
}

int run_relay_check(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  lund_relay_config named = store.relays();
  if (!args.relay.empty()) {
    named = {};
    if (!named_relays(args.relay, store.relays(), &named, &error)) return fail(EXIT_USAGE, error);
  }
  if (named.count == 0) return fail(EXIT_REFUSED, "no relay servers are remembered");
  int worst = EXIT_OK;
  for (int i = 0; i < named.count; ++i) worst = std::max(worst, check(named.servers[i]));
  return worst;
}

}  // namespace client_app
