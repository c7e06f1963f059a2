// pair: becoming a device that a host knows, and, with --back, letting that host connect here.
#include <cstdio>
#include <cstring>
#include <iostream>

#include "apps/client/commands.h"
#include "apps/client/host_choice.h"
#include "apps/client/pairing.h"
#include "apps/client/relay_links.h"
#include "control/host_commands.h"
#include "control/keystore.h"
#include "control/sysinfo.h"
#include "control/text.h"

namespace client_app {

namespace {

constexpr char OTHER_IDENTITY[] =
    "--back needs the identity that this computer's own host has, and this store has another: "
    "leave --store away (or move the file identity in it away, and pair again)";

// Lets the host's key in at this user's own host: by asking the one that runs, or in its store.
bool let_in(const lund_host_entry& host, std::string* text) {
  HostRequest request;
  request.kind = HostRequest::Kind::Authorize;
  std::copy(std::begin(host.key), std::end(host.key), request.key.begin());
  request.name = host.name;
  switch (ask_host(keystore::hostStoreDirectory(), request, text)) {
    case HostReply::Done:
      return true;
    case HostReply::Refused:
    case HostReply::Failed:
      return false;
    case HostReply::NotRunning:
      break;
  }
  lund_client_list clients = keystore::load_clients();
  if (lund_client_list_add(&clients, host.key, host.name) < 0) {
    *text = "32 devices are already paired with this computer";
    return false;
  }
  *text = "the list of this computer's paired devices could not be saved";
  return keystore::save_clients(clients);
}

int pair_back(HostLink& link, const Arguments& args, const lund_host_entry& host,
              const std::string& own_name) {
  std::printf("waiting for the answer at the other computer\n");
  std::fflush(stdout);
  switch (offer_way_back(link, own_name, args.back_port, *args.stop)) {
    case BackEnd::Stopped:
      return fail(EXIT_PAIRING, "stopped: \"" + std::string(host.name) + "\" may not connect here");
    case BackEnd::NoAnswer:
      return fail(EXIT_PAIRING,
                  "nobody accepted at \"" + std::string(host.name) + "\": it may not connect here");
    case BackEnd::Accepted:
      break;
  }
  std::string text;
  if (!let_in(host, &text)) return fail(EXIT_LOCAL, "not let in here: " + text);
  std::printf("\"%s\" may now connect to this computer\n", host.name);
  return EXIT_OK;
}

// What is known of the host already stays, but for what pairing has shown.
lund_host_entry merged(const ClientStore& store, const lund_host_entry& paired) {
  const lund_host_entry* known = store.find(paired.key);
  lund_host_entry host = known ? *known : paired;
  std::memcpy(host.name, paired.name, sizeof host.name);
  if (paired.lan_endpoint.family != 0) host.lan_endpoint = paired.lan_endpoint;
  if (paired.lan_id != 0) host.lan_id = paired.lan_id;
  if (paired.wan_endpoint.family != 0) host.wan_endpoint = paired.wan_endpoint;
  return host;
}

}  // namespace

int run_pair(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  if (args.back && !store.identity_is_hosts()) return fail(EXIT_USAGE, OTHER_IDENTITY);

  PairRequest request;
  request.secret = args.pin.empty() ? args.password : args.pin;
  request.kind = args.pin.empty() ? std::uint32_t{LUND_KIND_PASSWORD} : 0;  // 0: guess
  if (request.secret == "-") std::getline(std::cin, request.secret);
  lund_relay_config given;
  if (!given_relays(args.relays, args.relay_file, &given, &error)) return fail(EXIT_USAGE, error);

  const HostChoice choice = parse_host(args.host);
  request.stop = args.stop;
  request.nobody = nobody_answered(choice);
  const std::string code = !args.code.empty()                      ? args.code
                           : choice.kind == HostChoice::Kind::Code ? choice.text
                                                                   : "";
  const lund_host_entry* known = store.find(args.host);
  const std::string own_name = computer_name_utf8();
  lund_client_config config;
  configure(args, store, given, own_name, &config);
  config.host_code = code.c_str();
  HostLink link;
  if (!link.open(config, &error)) return fail(EXIT_LOCAL, error);
  add_candidates(link, choice, known);
  link.look_for(wanted_for_pairing(choice, known, args.path_mode));
  lund_rv_endpoint resolved;
  if (choice.kind == HostChoice::Kind::Name &&
      lund_net_resolve(args.host.c_str(), HOST_PORT, &resolved) == 0)
    lund_client_add_candidate(link.engine(), &resolved, 0);

  lund_host_entry paired;
  const PairEnd end = pair_with_host(link, request, &paired, &error);
  if (end == PairEnd::NoAnswer) return fail(EXIT_NO_ANSWER, error);
  if (end != PairEnd::Paired) return fail(EXIT_PAIRING, error);
  if (std::memcmp(paired.key, store.identity().public_key, LUND_KEY_SIZE) == 0)
    return fail(EXIT_PAIRING, "this is this computer's own host: pair from another computer");

  paired.lan_id = link.lan_search().lan_id_at(paired.lan_endpoint);
  const lund_host_entry host = merged(store, paired);
  if (!store.put(host, &error)) return fail(EXIT_LOCAL, error);
  std::printf("paired with \"%s\" (%s)\n", host.name, code_of(host.key).c_str());
  std::fputs(remember_relays(given, &store).c_str(), stdout);
  return args.back ? pair_back(link, args, host, own_name) : EXIT_OK;
}

}  // namespace client_app
