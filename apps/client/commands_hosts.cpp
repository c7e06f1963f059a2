// discover, hosts, forget: what is on the network, and what this device knows.
#include <cstdio>
#include <ctime>

#include "apps/client/commands.h"
#include "apps/client/known_hosts.h"
#include "apps/client/pairing.h"
#include "control/text.h"

namespace client_app {

namespace {

std::string time_text(std::uint64_t seconds) {
  if (seconds == 0) return "-";
  const auto time = static_cast<std::time_t>(seconds);
  const std::tm* local = std::localtime(&time);
  char text[32];
  if (!local || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", local) == 0) return "-";
  return text;
}

}  // namespace

int run_discover(const Arguments& args) {
  std::string error;
  const auto found = discover_hosts(args.port, args.wait_ms, &error);
  if (!error.empty()) return fail(EXIT_LOCAL, error);
  for (const FoundHost& host : found)
    std::printf("%-24s %-22s %4ux%-4u%s\n", host.reply.name,
                addr_string(host.addresses.front()).c_str(), host.reply.width, host.reply.height,
                host.reply.busy ? "  busy" : "");
  if (found.empty()) return fail(EXIT_NO_ANSWER, "no host answered");

  ClientStore store;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  for (const lund_host_entry& host : updated_by(found, store.hosts())) {
    if (!store.put(host, &error)) return fail(EXIT_LOCAL, error);
    std::printf("updated \"%s\" (%s): at %s\n", host.name, code_of(host.key).c_str(),
                addr_string(host.lan_endpoint).c_str());
  }
  return EXIT_OK;
}

int run_hosts(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  const lund_host_list& hosts = store.hosts();
  if (hosts.count == 0) {
    std::printf("no hosts are known: pair first\n");
    return EXIT_OK;
  }
  std::printf("%-24s %-9s  %-21s  %-21s  %-16s  %s\n", "NAME", "KEY CODE", "ON THE LAN", "OUTSIDE",
              "ADDED", "LAST USED");
  for (int i = 0; i < hosts.count; ++i) {
    const lund_host_entry& host = hosts.entries[i];
    std::printf("%-24s %-9s  %-21s  %-21s  %-16s  %s\n", host.name, code_of(host.key).c_str(),
                addr_string(host.lan_endpoint).c_str(), addr_string(host.wan_endpoint).c_str(),
                time_text(host.added_at).c_str(), time_text(host.last_used).c_str());
  }
  return EXIT_OK;
}

int run_forget(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  switch (store.count(args.host)) {
    case 0:
      return fail(EXIT_REFUSED, "no known host answers to \"" + args.host + "\"");
    case 1:
      break;
    default:
      return fail(EXIT_REFUSED,
                  "several hosts answer to \"" + args.host + "\": name one by its key code");
  }
  const lund_host_entry host = *store.find(args.host);
  if (!store.forget(host, &error)) return fail(EXIT_LOCAL, error);
  std::printf("forgot \"%s\" (%s); it still knows this device\n", host.name,
              code_of(host.key).c_str());
  return EXIT_OK;
}

}  // namespace client_app
