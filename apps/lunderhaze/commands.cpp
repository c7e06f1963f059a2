#include "apps/lunderhaze/commands.h"

#include <algorithm>
#include <cstdio>

#include "apps/lunderhaze/commands_internal.h"
#include "apps/lunderhaze/console.h"
#include "apps/lunderhaze/run.h"
#include "connection/resolver.h"
#include "connection/wiped.h"
#include "control/host_commands.h"
#include "control/keystore.h"
#include "control/relay_list.h"
#include "control/switches.h"
#include "control/text.h"

const char* const COMMANDS_USAGE =
    "       lunderhaze ... --accept-pair-back     takes every offer to be reached in return\n"
    "       lunderhaze status                     of the running host, or what is stored\n"
    "       lunderhaze pair [SECONDS]             opens pairing on the running host\n"
    "       lunderhaze devices remove NAME|CODE   a paired device may not connect any more\n"
    "       lunderhaze mute [on|off]              this computer's speakers while a client streams\n"
    "       lunderhaze clipboard [on|off]         whether clients share the clipboard\n"
    "       lunderhaze relays list\n"
    "       lunderhaze relays add LINK...         - reads links from standard input\n"
    "       lunderhaze relays remove NAME|NUMBER\n"
    "       lunderhaze relays check [LINK]        whether each answers\n"
    "       lunderhaze autostart [on|off]         whether the host starts when this user logs in\n"
    "       lunderhaze firewall [on|off] [--port N]  whether the firewall lets clients in\n"
    "       lunderhaze doctor [--json] [--port N]    what a host needs here, and what to do\n"
    "       lunderhaze --version\n";

ExitStatus say(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  return EXIT_OK;
}

ExitStatus wrong_usage(const std::string& text) {
  std::fprintf(stderr, "lunderhaze: %s\n%s", text.c_str(), COMMANDS_USAGE);
  return EXIT_USAGE;
}

namespace {

// ---- relays

ExitStatus save_and_apply(const lund_relay_config& relays, const std::string& changes) {
  if (!keystore::save_relays(relays))
    return fail(EXIT_STORE, "could not save the relay server list");
  say(changes);
  HostRequest request;
  request.kind = HostRequest::Kind::Relays;
  std::string text;
  switch (ask_host(keystore::hostStoreDirectory(), request, &text)) {
    case HostReply::Done:
      return say(text + "\n");
    case HostReply::NotRunning:
      return say(text + ": counts from its next start\n");
    default:
      return fail(EXIT_REFUSED, text + ": counts from the host's next start");
  }
}

ExitStatus change_relays(ListChange change, const lund_relay_config& relays,
                         const std::string& text) {
  switch (change) {
    case ListChange::Done:
      return save_and_apply(relays, text);
    case ListChange::BadArgument:
      return fail(EXIT_USAGE, text);
    case ListChange::Full:
      return fail(EXIT_STORE, text);
  }
  return EXIT_STORE;
}

ExitStatus report_on_relays(const lund_relay_config& relays) {
  const std::vector<RelayCheck> checks = check_relays(relays, RELAY_CHECK_MS);
  bool all = true;
  for (std::size_t i = 0; i < checks.size(); ++i) {
    say(check_line(relay_name(relays.servers[i]), checks[i]) + "\n");
    all = all && checks[i].result == LUND_RELAY_REACHABLE;
  }
  if (relays.count == 0) say("no relay servers\n");
  return all ? EXIT_OK : EXIT_UNREACHABLE;
}

ExitStatus relays_command(const Arguments& args) {
  const std::string verb = args.size() > 1 ? args[1] : "";
  const Arguments rest(args.begin() + std::min<std::ptrdiff_t>(2, std::ssize(args)), args.end());
  lund_relay_config relays = keystore::load_relays();
  std::string text;
  if (verb == "list" && rest.empty()) return say(relay_lines(relays));
  if (verb == "add" && !rest.empty()) {
    const ListChange change = add_relays(&relays, with_standard_input(rest), &text);
    return change_relays(change, relays, text);
  }
  if (verb == "remove" && rest.size() == 1) {
    const ListChange change = remove_relay(&relays, rest[0], &text);
    return change_relays(change, relays, text);
  }
  if (verb == "check" && rest.empty()) return report_on_relays(relays);
  if (verb == "check" && rest.size() == 1) {
    lund_relay_config given;
    if (add_relays(&given, with_standard_input(rest), &text) != ListChange::Done)
      return fail(EXIT_USAGE, text);
    return report_on_relays(given);
  }
  return wrong_usage("relays: list, add LINK..., remove NAME|NUMBER or check [LINK]");
}

// ---- devices

// The paired device of this name or key code; says what is wrong when there isn't exactly one.
const lund_client_entry* find_device(const lund_client_list& devices, const std::string& selector,
                                     std::string* error) {
  const lund_client_entry* found = nullptr;
  for (int i = 0; i < devices.count; ++i) {
    const lund_client_entry& device = devices.entries[i];
    if (selector != device.name && !is_code_of(selector, device.key)) continue;
    if (found) {
      *error = "several devices answer to \"" + selector + "\": name one by its key code";
      return nullptr;
    }
    found = &device;
  }
  if (!found) *error = "no paired device answers to \"" + selector + "\"";
  return found;
}

ExitStatus remove_device(const lund_client_entry& device, lund_client_list devices) {
  HostRequest request;
  request.kind = HostRequest::Kind::Remove;
  std::copy(std::begin(device.key), std::end(device.key), request.key.begin());
  std::string text;
  switch (ask_host(keystore::hostStoreDirectory(), request, &text)) {
    case HostReply::Done:
      return say(text + "\n");
    case HostReply::NotRunning:
      break;
    default:
      return fail(EXIT_REFUSED, text);
  }
  lund_client_list_remove(&devices, device.key);
  if (!keystore::save_clients(devices))
    return fail(EXIT_STORE, "could not save the list of paired devices");
  return say("removed\n");
}

ExitStatus devices_command(const Arguments& args) {
  if (args.size() != 3 || args[1] != "remove")
    return wrong_usage("devices: remove NAME|CODE (status lists them)");
  const lund_client_list devices = keystore::load_clients();
  std::string error;
  const lund_client_entry* device = find_device(devices, args[2], &error);
  if (!device) return fail(EXIT_USAGE, error);
  return remove_device(*device, devices);
}

// ---- status, pair

StoredHost stored_host() {
  StoredHost stored;
  lund_keypair identity;
  if (keystore::peek_identity(&identity)) stored.key_code = code_of(identity.public_key);
  stored.has_password = !Wiped(keystore::load_password_blob()).value.empty();
  const lund_relay_config relays = keystore::load_relays();
  for (int i = 0; i < relays.count; ++i) stored.relays.push_back(relay_name(relays.servers[i]));
  const lund_client_list clients = keystore::load_clients();
  for (int i = 0; i < clients.count; ++i) {
    const lund_client_entry& client = clients.entries[i];
    stored.devices.push_back({client.name, code_of(client.key), {}, client.added_at, false});
  }
  return stored;
}

ExitStatus status_command(const Arguments& args) {
  if (args.size() != 1) return wrong_usage("status takes no arguments");
  std::string text;
  switch (ask_host(keystore::hostStoreDirectory(), {}, &text)) {
    case HostReply::Done:
      return say(text);
    case HostReply::NotRunning:
      say("The host is not running\n" + stored_text(stored_host()));
      return EXIT_NOT_RUNNING;
    default:
      return fail(EXIT_REFUSED, text);
  }
}

ExitStatus pair_command(const Arguments& args) {
  HostRequest request;
  request.kind = HostRequest::Kind::Pair;
  const auto seconds =
      args.size() == 2 ? parse_number(args[1], 1, PAIRING_SECONDS_MAX) : PAIRING_SECONDS;
  if (!seconds || args.size() > 2)
    return wrong_usage("pair takes 1 to " + std::to_string(PAIRING_SECONDS_MAX) + " seconds");
  request.seconds = *seconds;
  std::string text;
  switch (ask_host(keystore::hostStoreDirectory(), request, &text)) {
    case HostReply::Done:
      return say(text + "\n");
    case HostReply::NotRunning:
      return fail(EXIT_NOT_RUNNING, text);
    default:
      return fail(EXIT_REFUSED, text);
  }
}

// ---- mute, clipboard

struct Switch {
  HostRequest::Kind kind;
  bool (*load)(const std::filesystem::path& directory);
  bool (*save)(const std::filesystem::path& directory, bool on);
  std::string (*line)(bool on);
};

ExitStatus switch_command(const Arguments& args, const Switch& what) {
  const std::filesystem::path directory = keystore::hostStoreDirectory();
  HostRequest request;
  request.kind = what.kind;
  if (args.size() > 1) request.on = parse_switch(args[1]);
  if (args.size() > 2 || (args.size() == 2 && !request.on))
    return wrong_usage(args[0] + " takes on, off or nothing");
  if (request.on && !what.save(directory, *request.on))
    return fail(EXIT_STORE, "could not save the setting");
  std::string text;
  switch (ask_host(directory, request, &text)) {
    case HostReply::Done:
      return say(text + "\n");
    case HostReply::NotRunning:
      say(what.line(what.load(directory)) + "\n");
      return request.on ? say(text + ": counts from its next start\n") : EXIT_OK;
    default:
      return fail(EXIT_REFUSED, request.on ? text + ": counts from the host's next start" : text);
  }
}

ExitStatus mute_command(const Arguments& args) {
  return switch_command(args, {HostRequest::Kind::Mute, load_mute_host, save_mute_host, mute_line});
}

ExitStatus clipboard_command(const Arguments& args) {
  return switch_command(args, {HostRequest::Kind::Clipboard, load_clipboard_sync,
                               save_clipboard_sync, clipboard_line});
}

struct Command {
  const char* name;
  ExitStatus (*run)(const Arguments& args);
};
constexpr Command COMMANDS[] = {
    {"relays", relays_command},       {"devices", devices_command},
    {"status", status_command},       {"pair", pair_command},
    {"mute", mute_command},           {"clipboard", clipboard_command},
    {"autostart", autostart_command}, {"firewall", firewall_command},
    {"doctor", doctor_command},
};

const Command* find_command(const std::string& name) {
  for (const Command& command : COMMANDS)
    if (name == command.name) return &command;
  return nullptr;
}

}  // namespace

bool is_command(const std::string& name) {
  return find_command(name) != nullptr;
}

ExitStatus run_command(const std::vector<std::string>& args) {
  std::string error;
  if (!keystore::configureHostStore(keystore::User, &error)) return fail(EXIT_STORE, error);
  return find_command(args[0])->run(args);
}
