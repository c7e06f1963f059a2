// connect: receives a host's screen, records and measures it.
#include <algorithm>
#include <cstdio>
#include <system_error>

#include "apps/client/commands.h"
#include "apps/client/connect_run.h"
#include "apps/client/host_choice.h"
#include "apps/client/known_hosts.h"
#include "apps/client/relay_links.h"
#include "apps/client/report.h"
#include "control/sysinfo.h"

namespace client_app {

namespace {

lund_hello make_hello(const Arguments& args) {
  lund_hello hello;
  hello.width = static_cast<std::uint16_t>(args.width);
  hello.height = static_cast<std::uint16_t>(args.height);
  hello.fps = static_cast<std::uint16_t>(args.fps);
  hello.bitrate_kbps = args.bitrate_kbps;
  hello.codec = args.codec == "hevc" ? 1 : args.codec == "h264" ? 2 : 0;
  hello.fec_percent = static_cast<std::uint8_t>(args.fec);
  hello.screen = static_cast<std::uint8_t>(args.screen);
  return hello;
}

ExitStatus exit_status(SessionEnd end) {
  switch (end) {
    case SessionEnd::Done:
      return EXIT_OK;
    case SessionEnd::NoAnswer:
      return EXIT_NO_ANSWER;
    case SessionEnd::LocalFailure:
      return EXIT_LOCAL;
    case SessionEnd::UnknownDevice:
    case SessionEnd::Busy:
    case SessionEnd::Refused:
    case SessionEnd::HostEnded:
      break;
  }
  return EXIT_REFUSED;
}

// What a session has shown is worth keeping however the stream ended.
bool remember(ClientStore& store, const lund_host_entry& host, const HostSession& session,
              const HostLink& link, const lund_relay_config& given, std::string* error) {
  if (session.paths().empty()) return true;
  const std::uint64_t now_s = lund_wall_us() / 1'000'000;
  std::fputs(remember_relays(given, &store).c_str(), stdout);
  return store.update(
      host,
      [&](lund_host_entry& entry) { learn(session.paths(), link.lan_search(), now_s, &entry); },
      error);
}

int report_stream(const Arguments& args, HostSession& session, HostLink& link, ExitStatus status) {
  std::string error;
  if (!args.out.empty() && !write_results(args.out, session, link, &error))
    status = static_cast<ExitStatus>(fail(EXIT_LOCAL, error));
  std::fputs(summary(session, link).c_str(), stdout);
  return status;
}

}  // namespace

int run_connect(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  const lund_host_entry* known = store.find(args.host);
  if (!known)
    return fail(EXIT_REFUSED,
                "no paired host answers to \"" + args.host + "\": pair first, or name one");
  const lund_host_entry host = *known;
  RelayList given;
  if (!given_relays(args.relays, args.relay_file, &given.config, &error))
    return fail(EXIT_USAGE, error);
  if (!args.out.empty()) {
    std::error_code failed;
    std::filesystem::create_directories(args.out, failed);
    if (failed)
      return fail(EXIT_LOCAL, "cannot make " + args.out.string() + ": " + failed.message());
  }

  const std::string own_name = computer_name_utf8();
  ClientConfig config;
  configure(args, store, given.config, own_name, &config);
  config.has_host_key = 1;
  std::copy(std::begin(host.key), std::end(host.key), config.host_key);
  HostLink link;
  if (!link.open(config, &error)) return fail(EXIT_LOCAL, error);
  add_candidates(link, parse_host(args.host), &host);
  link.look_for(wanted_for_connecting(host, args.path_mode));
  link.set_drop(args.drop_percent, args.seed);

  SessionRequest request;
  request.screens = {make_hello(args)};
  request.recordings = {args.out};
  request.reconnect = args.reconnect;
  ConnectRun run({args.seconds, args.stop});
  HostSession session(link, request, run);
  std::string ended;
  const SessionEnd end = run.run(session, &ended);
  int status = exit_status(end);
  if (session.main().ever_granted()) status = report_stream(args, session, link, exit_status(end));
  if (!remember(store, host, session, link, given.config, &error)) status = fail(EXIT_LOCAL, error);
  return end == SessionEnd::Done ? status : fail(static_cast<ExitStatus>(status), ended);
}

}  // namespace client_app
