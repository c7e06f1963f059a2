// relay list, add, remove, check: the servers by which hosts are reached from outside.
#include <algorithm>
#include <cstdio>

#include "apps/client/commands.h"
#include "apps/client/relay_links.h"
#include "connection/resolver.h"

namespace client_app {

namespace {

constexpr int CHECK_TIMEOUT_MS = 3000;

using Change = std::function<ListChange(lund_relay_config* relays, std::string* text)>;

int change_list(const Arguments& args, const Change& change) {
  ClientStore store;
  std::string text;
  if (!store.open(args.store, &text)) return fail(EXIT_LOCAL, text);
  ListChange result = ListChange::Done;
  std::string error;
  const auto apply = [&](lund_relay_config* relays) {
    result = change(relays, &text);
    return result == ListChange::Done;
  };
  if (!store.change_relays(apply, &error)) return fail(EXIT_LOCAL, error);
  if (result == ListChange::Full) return fail(EXIT_LOCAL, text);
  if (result == ListChange::BadArgument) return fail(EXIT_USAGE, text);
  std::fputs(text.c_str(), stdout);
  return EXIT_OK;
}

// A server that doesn't answer, whatever the reason, is one thing to a script; a failure here is
// another.
int status_of(const RelayCheck& check) {
  return check.result == LUND_RELAY_REACHABLE       ? EXIT_OK
         : check.result == LUND_RELAY_LOCAL_FAILURE ? EXIT_LOCAL
                                                    : EXIT_NO_ANSWER;
}

}  // namespace

int run_relay_list(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  std::fputs(relay_lines(store.relays()).c_str(), stdout);
  return EXIT_OK;
}

int run_relay_add(const Arguments& args) {
  return change_list(args, [&](lund_relay_config* relays, std::string* text) {
    return add_relays(relays, with_standard_input({args.relay}), text);
  });
}

int run_relay_remove(const Arguments& args) {
  return change_list(args, [&](lund_relay_config* relays, std::string* text) {
    return remove_relay(relays, args.relay, text);
  });
}

int run_relay_check(const Arguments& args) {
  lund_relay_config relays;
  std::string error;
  if (args.relay.empty()) {
    ClientStore store;
    if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
    relays = store.relays();
  } else if (!given_relays({args.relay}, {}, &relays, &error)) {
    return fail(EXIT_USAGE, error);
  }
  if (relays.count == 0) std::fputs(relay_lines(relays).c_str(), stdout);
  const std::vector<RelayCheck> checks = check_relays(relays, CHECK_TIMEOUT_MS);
  int worst = EXIT_OK;
  for (std::size_t i = 0; i < checks.size(); ++i) {
    const std::string name = relay_name(relays.servers[i]);
    std::printf("%s\n", check_line(name, checks[i]).c_str());
    worst = std::max(worst, status_of(checks[i]));
  }
  return worst;
}

}  // namespace client_app
